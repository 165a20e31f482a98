#include "host/http/http_session.h"

#include "host/base/log.h"

#include <curl/curl.h>

#include <cctype>

namespace
{
std::once_flag curl_init_once;

struct Body_Target
{
  const HTTP_Request* request;
  HTTP_Response* response;
};

size_t write_body(char* data, size_t size, size_t count, void* user)
{
  const Body_Target* target = static_cast<const Body_Target*>(user);
  if (target->request->body_sink)
    return target->request->body_sink(data, size * count) ? size * count : 0;
  target->response->body().append(data, size * count);
  return size * count;
}

std::string trim(const std::string& text)
{
  size_t begin = 0;
  size_t end = text.size();
  while (begin < end && std::isspace(static_cast<unsigned char>(text[begin])))
    ++begin;
  while (end > begin && std::isspace(static_cast<unsigned char>(text[end - 1])))
    --end;
  return text.substr(begin, end - begin);
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
      response->headers().put(trim(line.substr(0, colon)), trim(line.substr(colon + 1)), false);
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
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return HTTP_TRANSPORT_DROPPED;
    case CURLE_OPERATION_TIMEDOUT:
      return HTTP_TRANSPORT_TIMEOUT;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
      return HTTP_TRANSPORT_TLS;
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
  if (curl_ == nullptr)
  {
    error_ = "HTTP client could not be initialised";
    transport_error_ = HTTP_TRANSPORT_OTHER;
    return false;
  }

  curl_easy_reset(curl_);
  const std::string url = base_url_ + request.target();
  curl_easy_setopt(curl_, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl_, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl_, CURLOPT_CONNECTTIMEOUT, settings_.connect_timeout);
  curl_easy_setopt(curl_, CURLOPT_TIMEOUT, request.timeout > 0 ? request.timeout : settings_.transfer_timeout);
  curl_easy_setopt(curl_, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(curl_, CURLOPT_SSL_VERIFYHOST, 2L);
  if (!settings_.ca_file.empty())
    curl_easy_setopt(curl_, CURLOPT_CAINFO, settings_.ca_file.c_str());
  curl_easy_setopt(curl_, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl_, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, write_body);
  Body_Target target{&request, &response};
  curl_easy_setopt(curl_, CURLOPT_WRITEDATA, &target);
  curl_easy_setopt(curl_, CURLOPT_HEADERFUNCTION, write_header);
  curl_easy_setopt(curl_, CURLOPT_HEADERDATA, &response);
  curl_easy_setopt(curl_, CURLOPT_CUSTOMREQUEST, method_name(request.method()));
  if (request.method() == HTTP_METHOD_GET)
    curl_easy_setopt(curl_, CURLOPT_HTTPGET, 1L);
  else
  {
    curl_easy_setopt(curl_, CURLOPT_POSTFIELDS, request.body().data());
    curl_easy_setopt(curl_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body().size()));
  }

  curl_slist* header_list = nullptr;
  for (const HTTP_Headers::Field& f : request.headers().fields())
    header_list = curl_slist_append(header_list, (f.first + ": " + f.second).c_str());
  // libcurl would add "Expect: 100-continue" to large bodies; EWS does not need it.
  header_list = curl_slist_append(header_list, "Expect:");
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
  if (code != CURLE_OK)
  {
    set_error(code);
    return false;
  }
  long status = 0;
  curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &status);
  response.status(status);
  return true;
}
