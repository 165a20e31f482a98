#include "host/catalog/read_catalogs.h"

#include "host/base/log.h"
#include "host/storage/backupd_client.h"

bool read_catalogs(const char* resource, nlohmann::ordered_json& result, int timeout_seconds,
                   int max_seconds_retry)
{
  if (resource == nullptr || resource[0] != '/')
  {
    LOG_MSG(LM_ERROR, "Invalid catalog resource '%s'\n", resource ? resource : "");
    return false;
  }
  Backupd_Client client(timeout_seconds, max_seconds_retry);
  std::string answer;
  if (!client.get(resource, answer))
  {
    LOG_MSG(LM_ERROR, "Failed to read catalog '%s' from backupd: %s\n", resource, client.error().c_str());
    return false;
  }
  nlohmann::ordered_json parsed = nlohmann::ordered_json::parse(answer, nullptr, false);
  if (parsed.is_discarded())
  {
    LOG_MSG(LM_ERROR, "Catalog answer of '%s' is not JSON\n", resource);
    return false;
  }
  result = std::move(parsed);
  return true;
}
