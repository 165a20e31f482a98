#ifndef BACKUP_EXCHANGE_JOB_EXCHANGE_BACKUP_INPUT_H
#define BACKUP_EXCHANGE_JOB_EXCHANGE_BACKUP_INPUT_H

#include "backup/exchange/core/ews/exchange_common.h"
#include "host/base/compression.h"
#include "host/base/secure_allocator.h"
#include "host/storage/pool_info.h"

#include <cstdint>
#include <string>
#include <vector>

class Job;
class Job_Definition;
class Job_Event_Handler;

// Kinds of backup of one instance and database.
enum Exchange_Backup_Type
{
  EXCHANGE_BACKUP_TYPE_NONE = 0,
  EXCHANGE_BACKUP_TYPE_FULL = 1,
  EXCHANGE_BACKUP_TYPE_INCREMENTAL = 2,
  EXCHANGE_BACKUP_TYPE_BRICK = 8,
  EXCHANGE_BACKUP_TYPE_LOG = 27,
};

// The storages (database and log locations) of one on-premises database.
typedef std::vector<std::string> Exchange_Input_Storages;

// What a backup of one instance and database starts from; the incarnation
// lookup fills type, rev, location and pool_info. Plain values.
struct Exchange_Backup_Input
{
  std::string instance;
  std::string database;
  Exchange_Input_Storages storages;
  std::string username;
  Secure_String password;
  Exchange_Backup_Method method = EXCHANGE_BACKUP_METHOD_NONE;
  Exchange_Backup_Type type = EXCHANGE_BACKUP_TYPE_NONE;
  std::string location;
  std::string incarnation_uuid;
  int rev = 0;
  bool truncate = false;
  uint64_t set_size = 0;
  uint64_t set_storage_size = 0;
  Compression_Method compression = COMPR_NONE;
  Job_Event_Handler* progress = nullptr;
  Pool_Info pool_info;
  std::string access_key;
  bool check_consistency = false;
  std::string vss_provider;
  int compression_level = 0;
  unsigned int channels = 0;
  Job* job = nullptr;
  Job_Definition* job_def = nullptr;
};

// What such a backup produced.
struct Exchange_Backup_Output
{
  uint64_t size = 0;
  uint64_t set_size = 0;
  uint64_t set_storage_size = 0;
  uint32_t build = 0;
  std::string catalog_uuid;
  std::vector<std::string> files;
};

#endif
