#ifndef HOST_BASE_HOST_STATUS_H
#define HOST_BASE_HOST_STATUS_H

#include <string>

// How a host operation ended, by what the caller should do next. Callers decide
// by kind, never by parsing the message.
enum Host_Status_Kind
{
  HOST_STATUS_OK = 0,
  HOST_STATUS_THROTTLED = 1,     // the server asked to wait (BackOffMilliseconds, Retry-After)
  HOST_STATUS_TRANSIENT = 2,     // dropped connection or passing server fault: back off and retry
  HOST_STATUS_UNAUTHORIZED = 3,  // the credentials were refused (a token may have expired)
  HOST_STATUS_PERMANENT = 4,     // retrying cannot help: fail with the message
  HOST_STATUS_CANCELLED = 5,     // the caller asked to stop
};

// The one status of the host layer: a kind, the service's code and message, and the
// wait the service suggested. The EWS client, the storage clients and the catalog
// client report through it. A status carries no secret: messages are built from
// service answers and local facts, never from header values.
struct [[nodiscard]] Host_Status
{
  Host_Status_Kind kind = HOST_STATUS_OK;
  std::string code;          // the service's code ("ErrorServerBusy", "HTTP 503", ...), may be empty
  std::string message;       // what happened, for people
  long retry_after_ms = -1;  // the wait the server asked for, -1 when it gave none

  bool ok() const { return kind == HOST_STATUS_OK; }
  // Worth another attempt after a wait.
  bool retryable() const { return kind == HOST_STATUS_THROTTLED || kind == HOST_STATUS_TRANSIENT; }
  // "code: message" (or one of them), for log lines.
  std::string text() const
  {
    if (code.empty())
      return message;
    if (message.empty())
      return code;
    return code + ": " + message;
  }

  static Host_Status success() { return Host_Status(); }
  static Host_Status make(Host_Status_Kind kind, const std::string& code, const std::string& message,
                          long retry_after_ms = -1)
  {
    Host_Status s;
    s.kind = kind;
    s.code = code;
    s.message = message;
    s.retry_after_ms = retry_after_ms;
    return s;
  }
};

// The kind's name ("throttled", "transient", ...), for log lines and JSON.
const char* host_status_kind_name(Host_Status_Kind kind);

#endif
