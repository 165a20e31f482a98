#ifndef HOST_STORAGE_BACKUPD_CLIENT_H
#define HOST_STORAGE_BACKUPD_CLIENT_H

#include <string>

#include "host/base/host_status.h"

// JSON requests to this agent's backup server (Host_Manager's backupd URL) over a
// host HTTP session, with the access key and host id headers, retrying transient
// failures (connection refused or dropped, HTTP 408, 429, 5xx) for
// `max_seconds_retry`, after backupd's Retry-After wait when it gave one. Used by
// the pool and catalog clients. Each object makes its own session; one thread at
// a time per object. The client logs nothing: its callers report failures.
class Backupd_Client
{
public:
  // `timeout_seconds` bounds one attempt; -1 takes 60 seconds.
  Backupd_Client(int timeout_seconds, int max_seconds_retry);

  // GET or POST `resource` ("/d2/r/v2/…", with its query string). True on a 2xx
  // answer; `answer` holds the body in any case. On failure status() classifies
  // it and error() says why, with backupd's own error text when it gave one.
  bool get(const std::string& resource, std::string& answer);
  bool post(const std::string& resource, const std::string& body, std::string& answer);

  const Host_Status& status() const { return status_; }
  // The HTTP status of the last answer, 0 when none came.
  long http_status() const { return http_status_; }
  const std::string& error() const { return error_; }

private:
  bool request(int method, const std::string& resource, const std::string* body, std::string& answer);

  int timeout_seconds_;
  int max_seconds_retry_;
  long http_status_ = 0;
  Host_Status status_;
  std::string error_;
};

// backupd's own reason for a refusal: the "error" member of its JSON answer
// `body`, or "" when it gave none.
std::string backupd_error_of(const std::string& body);

#endif
