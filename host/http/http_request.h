#ifndef HOST_HTTP_HTTP_REQUEST_H
#define HOST_HTTP_HTTP_REQUEST_H

#include "host/http/cgi_base.h"

#include <cstddef>
#include <functional>
#include <string>

enum Http_Method
{
  HTTP_METHOD_GET = 1,
  HTTP_METHOD_POST = 2,
  HTTP_METHOD_PUT = 3,
  HTTP_METHOD_DELETE = 4,
};

// One request over an HTTP_Session: method, absolute path, the query string
// (without "?", built by the caller in query_string_buffer()), per-request
// header fields and a body.
class HTTP_Request : public CGI_Base
{
public:
  // `keep_alive` false asks the server to close the connection after the answer.
  HTTP_Request(int method, const char* path, bool keep_alive = true);

  int method() const { return method_; }
  const std::string& path() const { return path_; }
  bool keep_alive() const { return keep_alive_; }
  std::string& query_string_buffer() { return query_; }
  const std::string& query_string() const { return query_; }
  // Path and query as sent on the request line.
  std::string target() const;

  // When set, the answer's body goes here as it arrives instead of into the
  // response's body(); returning false stops the transfer (a transport failure).
  std::function<bool(const char* data, size_t size)> body_sink;
  // Seconds for this request's whole transfer; 0: the session's time limit.
  long timeout = 0;

private:
  int method_;
  std::string path_;
  bool keep_alive_;
  std::string query_;
};

// What came back: status, header fields (names as sent), body.
class HTTP_Response : public CGI_Base
{
public:
  long status() const { return status_; }
  void status(long s) { status_ = s; }
  void reset()
  {
    status_ = 0;
    headers_.clear();
    body_.clear();
  }

private:
  long status_ = 0;
};

#endif
