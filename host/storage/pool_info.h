#ifndef HOST_STORAGE_POOL_INFO_H
#define HOST_STORAGE_POOL_INFO_H

#include <nlohmann/json.hpp>
#include <string>

#include "host/storage/client_io_base.h"

// A storage pool as backupd describes it: where its storage is served (`url`) and
// the pool's own client settings.
//
// `settings` keys read by set_options_by_pool (all optional): "max_seconds_retry"
// (integer), "resumption_buffer_size" (integer), "dedup_chunk_size" (integer),
// "compression_method" (0..3, see Compression_Method), "extra_options" (object of
// strings, sent as headers), "s3" (a pool on an S3-compatible store: object of
// "endpoint", "bucket", "prefix", "region", "access_key_id", "secret_access_key";
// the region and the key go to the options, the URL already holds the rest). Other keys are backupd's own ("read_only",
// "device_uuid").
struct Pool_Info
{
  std::string uuid;
  std::string name;
  std::string host_uuid;
  std::string url;
  nlohmann::ordered_json settings = nlohmann::ordered_json::object();

  // Reads backupd's JSON form {"uuid", "name", "host_uuid", "url", "settings"};
  // false with `error` set when a member is missing or of the wrong type.
  bool from_json(const nlohmann::ordered_json& value, std::string& error);
  nlohmann::ordered_json to_json() const;
};

// Pool access modes of get_pool_info.
enum Pool_Access
{
  POOL_ACCESS_WRITE = 0,
  POOL_ACCESS_READ = 1,
};

// Asks backupd for a pool (GET /d2/r/v2/pools/<uuid>). `device_uuid` (null or
// empty for any device) must match the pool's device when the pool names one;
// `mode` is a Pool_Access, and a read-only pool refuses POOL_ACCESS_WRITE.
// Transient failures are retried for `max_seconds_retry`. `reserved` must be
// null. Failures are logged with the pool uuid.
bool get_pool_info(const std::string& pool_uuid, const char* device_uuid, Pool_Info& info, int mode,
                   int max_seconds_retry, void* reserved);

// Applies the pool's settings to storage client options; false (options left
// as they were) when a setting has the wrong type or the pool has no URL.
bool set_options_by_pool(Client_IO_Base::Options& options, const Pool_Info& info);

#endif
