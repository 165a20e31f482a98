#ifndef HOST_CATALOG_EXCHANGE_BACKUP_SET_H
#define HOST_CATALOG_EXCHANGE_BACKUP_SET_H

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

// The catalog record of one Exchange backup set, as the backup executor commits it
// and the restore reads it back. Its JSON form (keys as the member names, in this
// order) is documented in docs/backupd.md; backupd keeps it as committed.
struct Exchange_Backup_Set
{
  std::string uuid;  // the set's own id, new for every backup
  std::string module = "exchange";
  std::string resource_uuid;      // the job source id
  std::string minor_resource_id;  // the job definition id
  std::string host_uuid;          // the job definition's host id
  std::string instance;           // on-premises instance, empty for Exchange Online
  std::string database;           // on-premises database, empty for Exchange Online
  std::string backup_method;      // "ews", …
  // The EWS client transport that exported the items ("ews" or "graph"): their
  // data is uploaded only through the same kind. A record without it is "ews".
  std::string transport = "ews";
  std::string incarnation;
  std::string pool_uuid;  // the job target
  std::string device_uuid;
  std::string uri;  // "host id/job definition id" under the pool URL
  int rev = 0;
  std::string agent;  // the stream's agent string
  int channels = 1;
  std::string definition_name;
  std::string definition_uid;
  std::string subtype;
  std::vector<std::string> files;        // the stream's data files
  std::vector<std::string> catalogs;     // the stream's catalog files
  std::vector<std::string> index_files;  // the mailbox index files
  std::vector<std::string> failed_mailboxes;
  uint64_t size = 0;
  uint64_t set_size = 0;
  uint64_t set_storage_size = 0;
  int64_t backup_start_time = 0;  // seconds since 1970-01-01 UTC
  int64_t backup_end_time = 0;

  nlohmann::ordered_json to_json() const;
  // Strict reading: "uuid", "module", "resource_uuid", "rev" and
  // "backup_start_time" are required; every member present must have its type.
  bool from_json(const nlohmann::ordered_json& value, std::string& error);
};

#endif
