#ifndef HOST_EWS_EWS_STATUS_H
#define HOST_EWS_EWS_STATUS_H

#include <string>

// How one request to the mailbox service ended, as a transport reports it.
enum EWS_Status_Kind
{
  EWS_STATUS_OK = 0,
  EWS_STATUS_THROTTLED = 1,     // the server asked to wait (BackOffMilliseconds, Retry-After)
  EWS_STATUS_TRANSIENT = 2,     // dropped connection or passing server fault: back off and retry
  EWS_STATUS_UNAUTHORIZED = 3,  // the credentials were refused (a token may have expired)
  EWS_STATUS_PERMANENT = 4,     // retrying cannot help: fail with the server's message
};

struct EWS_Status
{
  EWS_Status_Kind kind = EWS_STATUS_OK;
  std::string code;         // the service's response code ("ErrorServerBusy", "HTTP 503", ...)
  std::string message;      // the service's message text
  long retry_after_ms = -1; // the wait the server asked for, -1 when it gave none

  bool ok() const { return kind == EWS_STATUS_OK; }
  // "code: message" (or one of them), for log lines.
  std::string text() const
  {
    if (code.empty())
      return message;
    if (message.empty())
      return code;
    return code + ": " + message;
  }

  static EWS_Status make(EWS_Status_Kind kind, const std::string& code, const std::string& message,
                         long retry_after_ms = -1)
  {
    EWS_Status s;
    s.kind = kind;
    s.code = code;
    s.message = message;
    s.retry_after_ms = retry_after_ms;
    return s;
  }
};

// Response codes after which a retry may succeed (time budgets, busy or
// unavailable stores, passing internal errors).
bool ews_is_transient_code(const std::string& code);

#endif
