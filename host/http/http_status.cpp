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

Http_Outcome http_transport_outcome(const HTTP_Session& session)
{
  switch (session.transport_error())
  {
  case HTTP_TRANSPORT_OK:
    return HTTP_OUTCOME_ANSWERED;
  case HTTP_TRANSPORT_CONNECT:
  case HTTP_TRANSPORT_TLS:
    // No connection, or no secure one: not a byte of the request reached the server.
    return HTTP_OUTCOME_NOT_APPLIED;
  default:
    // A server acts on a request only once it has the whole of it; after that, a
    // reset, a close, a time-out or a cut answer leave the outcome open.
    return session.request_sent() || session.answer_started() ? HTTP_OUTCOME_UNKNOWN : HTTP_OUTCOME_NOT_APPLIED;
  }
}

Http_Outcome http_answer_outcome(const HTTP_Response& response)
{
  switch (response.status())
  {
  case 429:
  case 503:
    // Throttling and unavailability are answered before the request is acted on.
    return HTTP_OUTCOME_NOT_APPLIED;
  case 502:
  case 504:
    // A gateway lost or gave up waiting for the answer of the server behind it.
    return HTTP_OUTCOME_UNKNOWN;
  default:
    return HTTP_OUTCOME_ANSWERED;
  }
}

const char* http_outcome_name(Http_Outcome outcome)
{
  switch (outcome)
  {
  case HTTP_OUTCOME_ANSWERED:
    return "answered";
  case HTTP_OUTCOME_NOT_APPLIED:
    return "not applied";
  default:
    return "unknown";
  }
}
