#include "host/catalog/read_catalogs.h"

#include "host/base/log.h"
#include "host/storage/backupd_client.h"
#include <nlohmann/json.hpp>

namespace
{
bool failed(Host_Status* status, const Host_Status& why)
{
  if (status != nullptr)
    *status = why;
  return false;
}
}  // namespace

bool read_catalogs(const char* resource, nlohmann::ordered_json& result, int timeout_seconds, int max_seconds_retry,
                   Host_Status* status)
{
  if (resource == nullptr || resource[0] != '/')
  {
    LOG_MSG(LM_ERROR, "Invalid catalog resource '%s'\n", resource ? resource : "");
    return failed(status, Host_Status::make(HOST_STATUS_PERMANENT, "", "invalid catalog resource"));
  }
  Backupd_Client client(timeout_seconds, max_seconds_retry);
  std::string answer;
  if (!client.get(resource, answer))
  {
    LOG_MSG(LM_ERROR, "Failed to read catalog '%s' from backupd: %s\n", resource, client.error().c_str());
    return failed(status, client.status());
  }
  nlohmann::ordered_json parsed = nlohmann::ordered_json::parse(answer, nullptr, false);
  if (parsed.is_discarded())
  {
    LOG_MSG(LM_ERROR, "Catalog answer of '%s' is not JSON\n", resource);
    return failed(status, Host_Status::make(HOST_STATUS_PERMANENT, "", "the catalog answer is not JSON"));
  }
  result = std::move(parsed);
  if (status != nullptr)
    *status = Host_Status::success();
  return true;
}
