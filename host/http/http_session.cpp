#include "host/http/http_session.h"

#include "host/base/log.h"
#include "host/base/trim.h"

#include <curl/curl.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cctype>
#include <cstring>

namespace
{
std::once_flag curl_init_once;

// What the body callbacks of one transfer need.
struct Transfer
{
  CURL* curl = nullptr;
  const HTTP_Request* request = nullptr;
  HTTP_Response* response = nullptr;
  size_t upload_offset = 0;
  bool resend_refused = false;
};

// A 2xx body goes to the response's sink when it has one; any other body is kept
// for the caller's error text.
size_t write_body(char* data, size_t size, size_t count, void* user)
{
  Transfer& t = *static_cast<Transfer*>(user);
  const size_t len = size * count;
  if (t.response->body_sink())
  {
    long status = 0;
    curl_easy_getinfo(t.curl, CURLINFO_RESPONSE_CODE, &status);
    if (status >= 200 && status < 300)
      return t.response->body_sink()(data, len, status) ? len : 0;
  }
  t.response->body().append(data, len);
  return len;
}

size_t read_body(char* buffer, size_t size, size_t count, void* user)
{
  Transfer& t = *static_cast<Transfer*>(user);
  const size_t room = size * count;
  if (t.request->body_source())
  {
    const size_t n = t.request->body_source()(buffer, room);
    return n == HTTP_Request::abort_body ? CURL_READFUNC_ABORT : n;
  }
  const std::string& body = t.request->body();
  const size_t n = std::min(room, body.size() - t.upload_offset);
  std::memcpy(buffer, body.data() + t.upload_offset, n);
  t.upload_offset += n;
  return n;
}

// Called by libcurl to rewind a body before sending it again on a fresh
// connection; refused for a request that must not be repeated.
int refuse_rewind(void* user, curl_off_t, int)
{
  static_cast<Transfer*>(user)->resend_refused = true;
  return CURL_SEEKFUNC_FAIL;
}

// Adds the certificates of the configured CA file to the trust store libcurl has
// already filled from the system's defaults, so a private CA is trusted besides
// the public ones rather than instead of them.
CURLcode add_ca_file(CURL*, void* ssl_ctx, void* user)
{
  const std::string& path = *static_cast<const std::string*>(user);
  X509_STORE* store = SSL_CTX_get_cert_store(static_cast<SSL_CTX*>(ssl_ctx));
  BIO* bio = BIO_new_file(path.c_str(), "r");
  if (bio == nullptr)
    return CURLE_SSL_CACERT_BADFILE;
  STACK_OF(X509_INFO)* infos = PEM_X509_INFO_read_bio(bio, nullptr, nullptr, nullptr);
  BIO_free(bio);
  if (infos == nullptr)
    return CURLE_SSL_CACERT_BADFILE;
  int added = 0;
  for (int i = 0; i < sk_X509_INFO_num(infos); ++i)
  {
    X509_INFO* info = sk_X509_INFO_value(infos, i);
    if (info->x509 && X509_STORE_add_cert(store, info->x509) == 1)
      ++added;
  }
  sk_X509_INFO_pop_free(infos, X509_INFO_free);
  return added > 0 ? CURLE_OK : CURLE_SSL_CACERT_BADFILE;
}

// Header lines of the final answer only: a new status line starts over, so the
// fields of an interim "100 Continue" are not kept.
size_t write_header(char* data, size_t size, size_t count, void* user)
{
  HTTP_Response* response = static_cast<HTTP_Response*>(user);
  const std::string line(data, size * count);
  if (line.compare(0, 5, "HTTP/") == 0)
    response->headers().clear();
  else
  {
    const size_t colon = line.find(':');
    if (colon != std::string::npos)
      response->headers().put(trim_space(line.substr(0, colon)), trim_space(line.substr(colon + 1)), false);
  }
  return size * count;
}

Http_Transport_Error classify(CURLcode code)
{
  switch (code)
  {
  case CURLE_COULDNT_RESOLVE_HOST:
  case CURLE_COULDNT_CONNECT:
    return HTTP_TRANSPORT_CONNECT;
  case CURLE_GOT_NOTHING:
  case CURLE_RECV_ERROR:
  case CURLE_SEND_ERROR:
  case CURLE_PARTIAL_FILE:
  case CURLE_SEND_FAIL_REWIND:  // the connection broke while a streamed body was sent
  case CURLE_HTTP2:
  case CURLE_HTTP2_STREAM:
    return HTTP_TRANSPORT_DROPPED;
  case CURLE_OPERATION_TIMEDOUT:
    return HTTP_TRANSPORT_TIMEOUT;
  case CURLE_SSL_CONNECT_ERROR:
  case CURLE_PEER_FAILED_VERIFICATION:
  case CURLE_SSL_CACERT_BADFILE:
    return HTTP_TRANSPORT_TLS;
  case CURLE_ABORTED_BY_CALLBACK:
  case CURLE_WRITE_ERROR:
  case CURLE_READ_ERROR:
    return HTTP_TRANSPORT_ABORTED;
  default:
    return HTTP_TRANSPORT_OTHER;
  }
}

const char* method_name(int method)
{
  switch (method)
  {
  case HTTP_METHOD_POST:
    return "POST";
  case HTTP_METHOD_PUT:
    return "PUT";
  case HTTP_METHOD_DELETE:
    return "DELETE";
  default:
    return "GET";
  }
}
}  // namespace

HTTP_Session::HTTP_Session(const Settings& settings) : settings_(settings)
{
  std::call_once(curl_init_once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  const bool ipv6 = settings_.host.find(':') != std::string::npos;
  base_url_ = std::string(settings_.ssl ? "https://" : "http://") + (ipv6 ? "[" : "") + settings_.host +
              (ipv6 ? "]" : "") + ":" + std::to_string(settings_.port);
  curl_ = curl_easy_init();
}

const char* HTTP_Session::user_agent() { return "exchange-online-backup/1.0"; }

HTTP_Session::~HTTP_Session()
{
  if (curl_)
    curl_easy_cleanup(curl_);
}

void HTTP_Session::set_error(int code)
{
  transport_error_ = classify(static_cast<CURLcode>(code));
  error_ = curl_easy_strerror(static_cast<CURLcode>(code));
}

bool HTTP_Session::perform(const HTTP_Request& request, HTTP_Response& response)
{
  std::lock_guard<std::mutex> guard(lock_);
  response.reset();
  error_.clear();
  transport_error_ = HTTP_TRANSPORT_OK;
  request_sent_ = false;
  answer_started_ = false;
  if (curl_ == nullptr)
  {
    error_ = "HTTP client could not be initialised";
    transport_error_ = HTTP_TRANSPORT_OTHER;
    return false;
  }

  curl_easy_reset(curl_);
  Transfer transfer;
  transfer.curl = curl_;
  transfer.request = &request;
  transfer.response = &response;
  const std::string url = base_url_ + request.target();
  curl_easy_setopt(curl_, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl_, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl_, CURLOPT_USERAGENT, user_agent());
  curl_easy_setopt(curl_, CURLOPT_CONNECTTIMEOUT, settings_.connect_timeout);
  curl_easy_setopt(curl_, CURLOPT_TIMEOUT,
                   request.transfer_timeout() >= 0 ? request.transfer_timeout() : settings_.transfer_timeout);
  curl_easy_setopt(curl_, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(curl_, CURLOPT_SSL_VERIFYHOST, 2L);
  if (!settings_.ca_file.empty())
  {
    curl_easy_setopt(curl_, CURLOPT_SSL_CTX_FUNCTION, add_ca_file);
    curl_easy_setopt(curl_, CURLOPT_SSL_CTX_DATA, &settings_.ca_file);
  }
  curl_easy_setopt(curl_, CURLOPT_PROTOCOLS_STR, "http,https");
  if (!request.aws_sigv4_provider().empty())
  {
    // libcurl adds x-amz-date and x-amz-content-sha256 and the Authorization field.
    curl_easy_setopt(curl_, CURLOPT_AWS_SIGV4, request.aws_sigv4_provider().c_str());
    curl_easy_setopt(curl_, CURLOPT_USERNAME, request.aws_key_id().c_str());
    curl_easy_setopt(curl_, CURLOPT_PASSWORD, request.aws_secret().c_str());
  }
  curl_easy_setopt(curl_, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, write_body);
  curl_easy_setopt(curl_, CURLOPT_WRITEDATA, &transfer);
  curl_easy_setopt(curl_, CURLOPT_HEADERFUNCTION, write_header);
  curl_easy_setopt(curl_, CURLOPT_HEADERDATA, &response);
  const int method = request.method();
  if (method == HTTP_METHOD_GET)
    curl_easy_setopt(curl_, CURLOPT_HTTPGET, 1L);
  else if (method == HTTP_METHOD_HEAD)
    curl_easy_setopt(curl_, CURLOPT_NOBODY, 1L);
  else if (method == HTTP_METHOD_PUT || request.body_source() || !request.repeatable())
  {
    // Sent through the read callback: from the source as it comes, or from body().
    // libcurl rewinds such a body only through the seek callback.
    curl_easy_setopt(curl_, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl_, CURLOPT_READFUNCTION, read_body);
    curl_easy_setopt(curl_, CURLOPT_READDATA, &transfer);
    if (!request.repeatable())
    {
      curl_easy_setopt(curl_, CURLOPT_SEEKFUNCTION, refuse_rewind);
      curl_easy_setopt(curl_, CURLOPT_SEEKDATA, &transfer);
    }
    const int64_t size =
      request.body_source() ? request.body_source_size() : static_cast<int64_t>(request.body().size());
    if (size >= 0)
      curl_easy_setopt(curl_, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(size));
  }
  else
  {
    curl_easy_setopt(curl_, CURLOPT_POSTFIELDS, request.body().data());
    curl_easy_setopt(curl_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body().size()));
  }
  if (method != HTTP_METHOD_GET && method != HTTP_METHOD_HEAD)
    curl_easy_setopt(curl_, CURLOPT_CUSTOMREQUEST, method_name(method));

  curl_slist* header_list = nullptr;
  for (const HTTP_Headers::Field& f : request.headers().fields())
    header_list = curl_slist_append(header_list, (f.first + ": " + f.second).c_str());
  // libcurl would add "Expect: 100-continue" to large bodies; EWS does not need it.
  header_list = curl_slist_append(header_list, "Expect:");
  // Without a type of the caller's, libcurl would call a body a form.
  if (request.headers().get("Content-Type") == nullptr)
    header_list = curl_slist_append(header_list, "Content-Type:");
  if (!request.keep_alive())
    header_list = curl_slist_append(header_list, "Connection: close");
  curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, header_list);

  const CURLcode code = curl_easy_perform(curl_);
  long connects = 0;
  curl_easy_getinfo(curl_, CURLINFO_NUM_CONNECTS, &connects);
  connections_opened_ += connects;
  curl_slist_free_all(header_list);
  // The header list may hold an authorization value; libcurl keeps a pointer to it.
  curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, nullptr);
  if (!request.aws_sigv4_provider().empty())
  {
    curl_easy_setopt(curl_, CURLOPT_USERNAME, nullptr);
    curl_easy_setopt(curl_, CURLOPT_PASSWORD, nullptr);
  }
  if (code != CURLE_OK)
  {
    set_error(code);
    // How far the exchange got: a request whose body did not go out whole cannot
    // have been acted on; one that did, or whose answer had begun, may have been.
    long header_bytes = 0, answered = 0;
    curl_off_t body_bytes = 0;
    curl_easy_getinfo(curl_, CURLINFO_REQUEST_SIZE, &header_bytes);
    curl_easy_getinfo(curl_, CURLINFO_SIZE_UPLOAD_T, &body_bytes);
    curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &answered);
    const int64_t body_size =
      request.body_source() ? request.body_source_size() : static_cast<int64_t>(request.body().size());
    answer_started_ = answered != 0;
    request_sent_ = answer_started_ || (header_bytes > 0 && (body_size < 0 || body_bytes >= body_size));
    if (transfer.resend_refused)
    {
      // libcurl wanted to send the request again because the connection died
      // after it went out: it may have been acted on.
      transport_error_ = HTTP_TRANSPORT_DROPPED;
      error_ = "connection closed after the request was sent, without an answer";
      request_sent_ = true;
    }
    return false;
  }
  long status = 0;
  curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &status);
  response.status(status);
  return true;
}
