#ifndef HOST_HTTP_HTTP_REQUEST_H
#define HOST_HTTP_HTTP_REQUEST_H

#include "host/http/cgi_base.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

enum Http_Method
{
  HTTP_METHOD_GET = 1,
  HTTP_METHOD_POST = 2,
  HTTP_METHOD_PUT = 3,
  HTTP_METHOD_DELETE = 4,
  HTTP_METHOD_HEAD = 5,
};

// One request over an HTTP_Session: method, absolute path, the query string
// (without "?", built by the caller in query_string_buffer()), per-request
// header fields and a body: either body() in memory or a streamed body source.
class HTTP_Request : public CGI_Base
{
public:
  // Fills `buffer` with up to `size` bytes of a streamed body and returns how
  // many; 0 ends the body; `abort_body` stops the transfer (the session then
  // reports HTTP_TRANSPORT_ABORTED). Called on the thread that runs perform().
  typedef std::function<size_t(char* buffer, size_t size)> Body_Source;
  static const size_t abort_body = static_cast<size_t>(-1);

  // `keep_alive` false asks the server to close the connection after the answer.
  HTTP_Request(int method, const char* path, bool keep_alive = true);

  int method() const { return method_; }
  const std::string& path() const { return path_; }
  bool keep_alive() const { return keep_alive_; }
  std::string& query_string_buffer() { return query_; }
  const std::string& query_string() const { return query_; }
  // Path and query as sent on the request line.
  std::string target() const;

  // Streams the body from `source` instead of body(); with `size` < 0 it is sent
  // in chunks. The source is called again from its start only if the caller
  // performs the request again.
  void set_body_source(Body_Source source, int64_t size = -1);
  const Body_Source& body_source() const { return body_source_; }
  int64_t body_source_size() const { return body_source_size_; }

  // Seconds the whole exchange may take, overriding the session's limit; 0 is no
  // limit (long streams), -1 (the default) the session's.
  void transfer_timeout(long seconds) { transfer_timeout_ = seconds; }
  long transfer_timeout() const { return transfer_timeout_; }

  // False for a request that must reach the server at most once per perform()
  // (it creates something). libcurl sends a request again by itself when a
  // reused connection dies before the first byte of the answer; such a request
  // instead fails as dropped after being sent, and the caller decides.
  void repeatable(bool yes) { repeatable_ = yes; }
  bool repeatable() const { return repeatable_; }

  // Signs the request with AWS Signature Version 4 (libcurl's CURLOPT_AWS_SIGV4):
  // `provider` as libcurl takes it ("aws:amz:REGION:s3"), the key id and its
  // secret. libcurl signs the path and query exactly as given, so the caller
  // sends them in their canonical form (segments percent-encoded with upper-case
  // digits, query parameters sorted by name, each with "=").
  void sign_aws_sigv4(const std::string& provider, const std::string& key_id, const std::string& secret);
  const std::string& aws_sigv4_provider() const { return sigv4_provider_; }
  const std::string& aws_key_id() const { return sigv4_key_id_; }
  const std::string& aws_secret() const { return sigv4_secret_; }

private:
  int method_;
  std::string path_;
  bool keep_alive_;
  std::string query_;
  Body_Source body_source_;
  int64_t body_source_size_ = -1;
  long transfer_timeout_ = -1;
  bool repeatable_ = true;
  std::string sigv4_provider_;
  std::string sigv4_key_id_;
  std::string sigv4_secret_;
};

// What came back: status, header fields (names as sent), body. With a body sink
// the body of a 2xx answer goes to the sink as it arrives and body() stays empty;
// the body of any other answer is kept in body() for the error text.
class HTTP_Response : public CGI_Base
{
public:
  // Takes the next bytes of a 2xx answer's body; false stops the transfer (the
  // session then reports HTTP_TRANSPORT_ABORTED). Called on the thread that runs
  // perform().
  typedef std::function<bool(const char* data, size_t size, long status)> Body_Sink;

  long status() const { return status_; }
  void status(long s) { status_ = s; }
  void set_body_sink(Body_Sink sink) { sink_ = std::move(sink); }
  const Body_Sink& body_sink() const { return sink_; }
  // Clears status, headers and body; the sink stays.
  void reset()
  {
    status_ = 0;
    headers_.clear();
    body_.clear();
  }

private:
  long status_ = 0;
  Body_Sink sink_;
};

#endif
