#ifndef HOST_STORAGE_BACKUPD_CLIENT_H
#define HOST_STORAGE_BACKUPD_CLIENT_H

#include <string>

// JSON requests to this agent's backup server (Host_Manager's backupd URL), with
// the access key header, retrying transient failures (connection refused or
// dropped, HTTP 408, 429, 5xx) with back-off for `max_seconds_retry`. Used by the
// pool and catalog clients. Each call is independent; safe from any thread.
class Backupd_Client
{
public:
  // `timeout_seconds` bounds one attempt; -1 takes 60 seconds.
  Backupd_Client(int timeout_seconds, int max_seconds_retry);

  // GET or POST `resource` ("/d2/r/v2/…", with its query string). True on a 2xx
  // answer; `answer` holds the body in any case. On failure `error()` says why,
  // with backupd's own error text when it gave one.
  bool get(const std::string& resource, std::string& answer);
  bool post(const std::string& resource, const std::string& body, std::string& answer);

  long status() const { return status_; }
  const std::string& error() const { return error_; }

private:
  bool request(const char* method, const std::string& resource, const std::string* body, std::string& answer);
  bool attempt(const char* method, const std::string& url, const std::string* body, std::string& answer,
               bool& transient);

  long timeout_seconds_;
  int max_seconds_retry_;
  long status_ = 0;
  std::string error_;
};

#endif
