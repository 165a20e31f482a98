#ifndef HOST_HTTP_JSON_RESTFUL_CLIENT_H
#define HOST_HTTP_JSON_RESTFUL_CLIENT_H

#include "host/base/host_status.h"
#include "host/http/http_session.h"

#include <nlohmann/json_fwd.hpp>

#include <map>
#include <string>

// Identifiers of the standing header fields of a JSON_RESTful_Client.
enum Http_Header_Id
{
  HTTP_HEADER_ACCEPT = 1,
  HTTP_HEADER_CONTENT_TYPE = 2,
  HTTP_HEADER_USER_AGENT = 3,
  HTTP_HEADER_ACCEPT_LANGUAGE = 4,
  HTTP_HEADER_CONNECTION = 5,
  HTTP_HEADER_AUTHORIZATION = 6,
};

// A JSON client over one HTTP_Session. Standing header fields (set_header) go with
// every request; a request's own fields are added after them. One thread at a time.
//
// An answer where the server asks to wait (429, 503) is sent again after the
// server's Retry-After wait (or a back-off) while the retry budget lasts; other
// failures are not retried here, since a POST may not be safe to repeat.
//
// Failures are kept in status() and last_error(): the transport's reason, or the
// status and the start of the answer body. Header values (tokens) never enter
// them. The client logs nothing; its callers report failures.
class JSON_RESTful_Client
{
public:
  // `accept_json` sends "Accept: application/json" with every request.
  explicit JSON_RESTful_Client(bool accept_json = true);

  // Binds the client to a session (null unbinds it; requests then fail).
  void reset(const HTTP_Session_Ptr& session);
  // Sets (or with null, removes) a standing header field.
  void set_header(int id, const char* value);

  // GET; on a 2xx answer parses the body into `value` (when not null). False on a
  // transport error, a non-2xx status or a body that is not JSON.
  bool get(HTTP_Request& request, nlohmann::ordered_json* value);
  // POST with `body` of `content_type`; otherwise as get().
  bool post(HTTP_Request& request, const std::string& body, const char* content_type, nlohmann::ordered_json* value);

  // Seconds during which throttled answers are retried (default 60; 0: never).
  void set_retry_budget(int seconds) { retry_budget_ = seconds; }

  // How the last request ended, classified (see http_answer_status).
  const Host_Status& status() const { return status_; }
  long last_status() const { return last_status_; }
  const std::string& last_error() const { return last_error_; }
  // The body of the last answer (kept for diagnostics).
  const std::string& last_body() const { return response_.body(); }
  const HTTP_Response& last_response() const { return response_; }

private:
  bool send(HTTP_Request& request, nlohmann::ordered_json* value);
  Host_Status attempt(HTTP_Request& request, nlohmann::ordered_json* value);

  HTTP_Session_Ptr session_;
  std::map<int, std::string> standing_;
  HTTP_Response response_;
  int retry_budget_ = 60;
  Host_Status status_;
  long last_status_ = 0;
  std::string last_error_;
};

#endif
