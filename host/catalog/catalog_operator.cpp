#include "host/catalog/catalog_operator.h"

#include "host/base/log.h"
#include "host/storage/backupd_client.h"
#include <nlohmann/json.hpp>

Catalog_Operator::Catalog_Operator(int timeout_seconds, int max_seconds_retry)
  : timeout_seconds_(timeout_seconds), max_seconds_retry_(max_seconds_retry)
{
}

bool Catalog_Operator::commit(const Exchange_Backup_Set& record) { return commit(record.to_json()); }

bool Catalog_Operator::commit(const nlohmann::ordered_json& record)
{
  created_ = false;
  std::string uuid = record.is_object() && record.contains("uuid") && record["uuid"].is_string()
                       ? record["uuid"].get<std::string>()
                       : std::string();
  if (uuid.empty())
  {
    error_ = "the record has no uuid";
    status_ = Host_Status::make(HOST_STATUS_PERMANENT, "", error_);
    LOG_MSG(LM_ERROR, "Failed to commit catalog record: %s\n", error_.c_str());
    return false;
  }
  // Retrying a POST is safe here: backupd answers a repeated record as done.
  Backupd_Client client(timeout_seconds_, max_seconds_retry_);
  std::string answer;
  if (!client.post("/d2/r/v2/sets/restore/sets", record.dump(), answer))
  {
    status_ = client.status();
    error_ = client.error();
    LOG_MSG(LM_ERROR, "Failed to commit catalog record %s: %s\n", uuid.c_str(), error_.c_str());
    return false;
  }
  nlohmann::json parsed = nlohmann::json::parse(answer, nullptr, false);
  created_ = parsed.is_object() && parsed.value("created", false);
  status_ = Host_Status::success();
  error_.clear();
  return true;
}
