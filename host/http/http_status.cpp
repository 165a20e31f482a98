#include "host/http/http_status.h"

#include <curl/curl.h>

#include <cstdlib>
#include <ctime>

long http_retry_after_ms(const HTTP_Response& response)
{
  const std::string* value = response.headers().get("Retry-After");
  if (value == nullptr || value->empty())
    return -1;
  char* end = nullptr;
  const long seconds = std::strtol(value->c_str(), &end, 10);
  if (end && *end == '\0' && seconds >= 0)
    return seconds * 1000;
  const time_t when = curl_getdate(value->c_str(), nullptr);
  if (when < 0)
    return -1;
  const long delta = static_cast<long>(when - std::time(nullptr));
  return delta > 0 ? delta * 1000 : 0;
}

Host_Status http_transport_status(const HTTP_Session& session)
{
  switch (session.transport_error())
  {
  case HTTP_TRANSPORT_OK:
    return Host_Status::success();
  case HTTP_TRANSPORT_CONNECT:
  case HTTP_TRANSPORT_DROPPED:
  case HTTP_TRANSPORT_TIMEOUT:
    return Host_Status::make(HOST_STATUS_TRANSIENT, "connection", session.error());
  case HTTP_TRANSPORT_ABORTED:
    return Host_Status::make(HOST_STATUS_CANCELLED, "connection", session.error());
  default:
    return Host_Status::make(HOST_STATUS_PERMANENT, "connection", session.error());
  }
}

Host_Status http_answer_status(const HTTP_Response& response, const std::string& detail)
{
  const long status = response.status();
  if (status >= 200 && status < 300)
    return Host_Status::success();
  const std::string code = "HTTP " + std::to_string(status);
  if (status == 429 || status == 503)
    return Host_Status::make(HOST_STATUS_THROTTLED, code, detail, http_retry_after_ms(response));
  if (status == 408 || status >= 500)
    return Host_Status::make(HOST_STATUS_TRANSIENT, code, detail);
  if (status == 401)
    return Host_Status::make(HOST_STATUS_UNAUTHORIZED, code, detail);
  return Host_Status::make(HOST_STATUS_PERMANENT, code, detail);
}
