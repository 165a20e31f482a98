#include "host/ews/ews_graph_status.h"

#include "host/base/trim.h"
#include "host/http/http_status.h"

#include <nlohmann/json.hpp>

#include <strings.h>

const char* const EWS_Graph_Status::unknown_mailbox = "MailboxNotFound";

namespace
{
// At most this much of a body goes into a message when it is not an envelope.
const size_t excerpt = 256;

std::string string_member(const nlohmann::ordered_json& object, const char* key)
{
  const nlohmann::ordered_json* value = EWS_Graph_Status::member(object, key);
  return value && value->is_string() ? trim_space(value->get<std::string>()) : std::string();
}

// Error codes of Exchange and Graph that pass with time.
bool is_busy(const std::string& code)
{
  for (const char* c :
       {"ErrorServerBusy", "activityLimitReached", "TooManyRequests", "ApplicationThrottled", "MailboxConcurrency"})
    if (strcasecmp(code.c_str(), c) == 0)
      return true;
  return false;
}

bool is_passing(const std::string& code)
{
  for (const char* c : {"ErrorTimeoutExpired", "ErrorMailboxStoreUnavailable", "ErrorInternalServerTransientError",
                        "ErrorBatchProcessingStopped", "serviceNotAvailable", "timeout", "generalException"})
    if (strcasecmp(code.c_str(), c) == 0)
      return true;
  return false;
}
}  // namespace

const nlohmann::ordered_json* EWS_Graph_Status::member(const nlohmann::ordered_json& object, const char* key)
{
  if (!object.is_object())
    return nullptr;
  for (auto it = object.begin(); it != object.end(); ++it)
    if (strcasecmp(it.key().c_str(), key) == 0)
      return &it.value();
  return nullptr;
}

Host_Status EWS_Graph_Status::of_answer(const HTTP_Response& response)
{
  const long status = response.status();
  std::string code;
  std::string message;
  const auto body = nlohmann::ordered_json::parse(response.body(), nullptr, false);
  const nlohmann::ordered_json* error = member(body, "error");
  if (error && error->is_object())
  {
    code = string_member(*error, "code");
    message = string_member(*error, "message");
  }
  else if (body.is_object())
    message = string_member(body, "message");
  else
    message = trim_space(response.body().substr(0, excerpt));
  if (code.empty())
    code = "HTTP " + std::to_string(status);
  if (message.empty())
    message = "HTTP status " + std::to_string(status);

  const long wait = http_retry_after_ms(response);
  if (status == 429 || status == 503 || (status == 504 && wait >= 0))
    return Host_Status::make(HOST_STATUS_THROTTLED, code, message, wait);
  if (status == 401)
    return Host_Status::make(HOST_STATUS_UNAUTHORIZED, code, message);
  if (status == 408 || status >= 500)
    return Host_Status::make(HOST_STATUS_TRANSIENT, code, message);
  return Host_Status::make(HOST_STATUS_PERMANENT, code, message);
}

Host_Status EWS_Graph_Status::of_item_error(const nlohmann::ordered_json& error)
{
  std::string code = string_member(error, "code");
  const std::string message = string_member(error, "message");
  if (code.empty())
    code = "item error";
  if (is_busy(code))
    return Host_Status::make(HOST_STATUS_THROTTLED, code, message);
  if (is_passing(code))
    return Host_Status::make(HOST_STATUS_TRANSIENT, code, message);
  return Host_Status::make(HOST_STATUS_PERMANENT, code, message);
}

bool EWS_Graph_Status::is_folder_exists(const Host_Status& status)
{
  return strcasecmp(status.code.c_str(), "ErrorFolderExists") == 0 ||
         strcasecmp(status.code.c_str(), "folderExists") == 0;
}
