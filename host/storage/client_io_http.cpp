#include "host/storage/client_io_http.h"

#include <algorithm>
#include <cstring>
#include <curl/curl.h>
#include <nlohmann/json.hpp>

#include "host/http/http_encoding.h"
#include "host/storage/host_manager.h"
#include "host/storage/retry_policy.h"

// Transfers go through the limiter in pieces of at most this size.
static const size_t PIECE = 64 * 1024;
// Bytes queued between the caller and a streamed transfer's worker.
static const size_t PIPE_CAPACITY = 4 * 1024 * 1024;

struct Client_IO_Http::Request
{
  Client_IO_Http* owner = nullptr;
  std::string method = "GET";
  std::string url;
  const std::string* upload = nullptr;  // whole body in memory
  size_t upload_offset = 0;
  std::string* download = nullptr;  // body wanted in memory
  bool stream_upload = false;
  bool stream_download = false;
  bool no_overwrite = false;
  uint64_t range_from = 0;
  Response* response = nullptr;
  void* handle = nullptr;  // the transfer's CURL handle
};

static bool is_success(long status)
{
  return status >= 200 && status < 300;
}

static bool is_transient(const Client_IO_Http::Response& r)
{
  if (r.curl_code != CURLE_OK)
    return r.curl_code == CURLE_COULDNT_CONNECT || r.curl_code == CURLE_OPERATION_TIMEDOUT ||
           r.curl_code == CURLE_SEND_ERROR || r.curl_code == CURLE_RECV_ERROR || r.curl_code == CURLE_GOT_NOTHING ||
           r.curl_code == CURLE_PARTIAL_FILE || r.curl_code == CURLE_COULDNT_RESOLVE_HOST;
  return r.status == 408 || r.status == 429 || r.status == 500 || r.status == 502 || r.status == 503 ||
         r.status == 504;
}

static bool is_loopback_host(const std::string& url)
{
  size_t start = url.find("://");
  if (start == std::string::npos)
    return false;
  std::string rest = url.substr(start + 3);
  return rest.compare(0, 4, "127.") == 0 || rest.compare(0, 10, "localhost:") == 0 || rest == "localhost" ||
         rest.compare(0, 10, "localhost/") == 0 || rest.compare(0, 5, "[::1]") == 0;
}

// Header names are tokens; values must not break the header block.
static bool is_header_safe(const std::string& name, const std::string& value)
{
  if (name.empty())
    return false;
  for (char c : name)
    if (!(isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_'))
      return false;
  return value.find_first_of(std::string("\r\n\0", 3)) == std::string::npos;
}

Client_IO_Http::~Client_IO_Http()
{
  abort_write();
  close_read();
}

bool Client_IO_Http::open(const std::string& location, const Options& options)
{
  abort_write();
  close_read();
  bool https = location.compare(0, 8, "https://") == 0;
  bool http = location.compare(0, 7, "http://") == 0;
  if (!http && !https)
    return fail("not an http(s) location: " + location);
  if (http && !is_loopback_host(location) && !Host_Manager::instance().allow_plain_http())
    return fail("plain http is allowed for loopback addresses only: " + location);
  for (const auto& option : options.extra_options)
    if (!is_header_safe(option.first, option.second))
      return fail("extra option '" + option.first + "' cannot be sent as a header");
  options_ = options;
  limiter_.set_entries(options.rate_control_entries);
  base_url_ = location;
  while (!base_url_.empty() && base_url_.back() == '/')
    base_url_.pop_back();
  return true;
}

std::string Client_IO_Http::object_url(const std::string& name) const
{
  std::string encoded;
  http_encode_string(name, 0, encoded);
  return base_url_ + "/" + encoded;
}

void* Client_IO_Http::make_headers(bool no_overwrite, uint64_t range_from) const
{
  curl_slist* list = nullptr;
  for (const auto& option : options_.extra_options)
    list = curl_slist_append(list, (option.first + ": " + option.second).c_str());
  if (options_.d2t_access_mode != 0)
    list = curl_slist_append(list, ("X-Backupd-Access-Mode: " + std::to_string(options_.d2t_access_mode)).c_str());
  if (no_overwrite)
    list = curl_slist_append(list, "If-None-Match: *");
  if (range_from > 0)
    list = curl_slist_append(list, ("Range: bytes=" + std::to_string(range_from) + "-").c_str());
  // No "100 Continue" round trip before each upload.
  list = curl_slist_append(list, "Expect:");
  return list;
}

void Client_IO_Http::perform(Request& request, Response& response)
{
  response = Response();
  request.response = &response;
  request.upload_offset = 0;
  CURL* curl = curl_easy_init();
  if (curl == nullptr)
  {
    response.curl_code = CURLE_FAILED_INIT;
    response.curl_error = "cannot create an HTTP handle";
    return;
  }
  request.handle = curl;
  char error_buffer[CURL_ERROR_SIZE] = "";
  curl_slist* headers = static_cast<curl_slist*>(make_headers(request.no_overwrite, request.range_from));
  curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 10L);
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error_buffer);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Client_IO_Http::download_write);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &request);
  if (request.method == "PUT")
  {
    curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, &Client_IO_Http::upload_read);
    curl_easy_setopt(curl, CURLOPT_READDATA, &request);
    if (request.upload != nullptr)
      curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(request.upload->size()));
  }
  else if (request.method == "HEAD")
    curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
  else if (request.method != "GET")
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  if (!request.stream_upload && !request.stream_download)
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 600L);

  response.curl_code = curl_easy_perform(curl);
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &response.status);
  curl_off_t length = -1;
  curl_easy_getinfo(curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
  response.content_length = length > 0 ? static_cast<uint64_t>(length) : 0;
  if (response.curl_code != CURLE_OK)
    response.curl_error = error_buffer[0] ? error_buffer : curl_easy_strerror(static_cast<CURLcode>(response.curl_code));
  curl_slist_free_all(headers);
  curl_easy_cleanup(curl);
}

size_t Client_IO_Http::upload_read(char* buf, size_t size, size_t n, void* p)
{
  Request& request = *static_cast<Request*>(p);
  Client_IO_Http& self = *request.owner;
  size_t want = std::min(size * n, PIECE);
  if (request.upload != nullptr)
  {
    size_t left = request.upload->size() - request.upload_offset;
    size_t take = std::min(want, left);
    self.limiter_.throttle(take);
    memcpy(buf, request.upload->data() + request.upload_offset, take);
    request.upload_offset += take;
    return take;
  }
  // Streamed: serve the current piece, then take the next one from the pipe.
  if (self.current_offset_ == self.current_.size())
  {
    std::string piece(PIECE, '\0');
    size_t got = self.write_pipe_->pop(&piece[0], piece.size());
    if (got == 0)
      return self.write_pipe_->cancelled() ? CURL_READFUNC_ABORT : 0;
    piece.resize(got);
    if (self.keep_replay_ && self.replay_.size() + got <= self.options_.resumption_buffer_size)
      self.replay_ += piece;
    else if (self.keep_replay_)
    {
      self.keep_replay_ = false;
      std::string().swap(self.replay_);
    }
    self.current_.swap(piece);
    self.current_offset_ = 0;
  }
  size_t take = std::min(want, self.current_.size() - self.current_offset_);
  memcpy(buf, self.current_.data() + self.current_offset_, take);
  self.current_offset_ += take;
  return take;
}

size_t Client_IO_Http::download_write(char* buf, size_t size, size_t n, void* p)
{
  Request& request = *static_cast<Request*>(p);
  Client_IO_Http& self = *request.owner;
  size_t len = size * n;
  if (!request.stream_download || !request.response->body.empty())
  {
    request.response->body.append(buf, len);
    return len;
  }
  // A streamed read: only a successful answer's body is data. The status line
  // is in by the time the first body bytes arrive.
  long status = 0;
  curl_easy_getinfo(static_cast<CURL*>(request.handle), CURLINFO_RESPONSE_CODE, &status);
  if (!is_success(status))
  {
    request.response->body.append(buf, len);
    return len;
  }
  if (request.range_from > 0 && status != 206)
    return 0;  // the server ignored the range: these bytes are not the ones asked for
  for (size_t done = 0; done < len;)
  {
    size_t piece = std::min(len - done, PIECE);
    if (!self.read_pipe_->push(buf + done, piece))
      return 0;  // the reader closed: stop the transfer
    done += piece;
  }
  self.read_position_ += len;
  return len;
}

std::string Client_IO_Http::describe(const Response& response) const
{
  if (response.curl_code != CURLE_OK)
    return response.curl_error;
  std::string text = "HTTP " + std::to_string(response.status);
  nlohmann::json body = nlohmann::json::parse(response.body, nullptr, false);
  if (body.is_object() && body.contains("error") && body["error"].is_string())
    text += ": " + body["error"].get<std::string>();
  return text;
}

bool Client_IO_Http::request_with_retry(Request& request, Response& response)
{
  request.owner = this;
  Retry_Policy retry(options_.max_seconds_retry);
  for (;;)
  {
    if (request.download != nullptr)
      request.download->clear();
    perform(request, response);
    if (response.curl_code == CURLE_OK && is_success(response.status))
      return true;
    if (!is_transient(response) || !retry.wait_before_retry())
      return false;
  }
}

bool Client_IO_Http::put_contents(const std::string& name, const std::string& text, bool overwrite)
{
  if (base_url_.empty())
    return fail("storage client is not open");
  if (!check_name(name))
    return false;
  Request request;
  request.method = "PUT";
  request.url = object_url(name);
  request.upload = &text;
  request.no_overwrite = !overwrite;
  Response response;
  if (!request_with_retry(request, response))
    return fail("cannot put '" + name + "': " + describe(response));
  storage_size_ = text.size();
  return true;
}

bool Client_IO_Http::open_write(const std::string& name, bool overwrite)
{
  if (base_url_.empty())
    return fail("storage client is not open");
  if (!check_name(name))
    return false;
  abort_write();
  write_url_ = object_url(name);
  write_overwrite_ = overwrite;
  write_ok_ = false;
  write_error_.clear();
  write_total_ = 0;
  replay_.clear();
  keep_replay_ = options_.resumption_buffer_size > 0;
  current_.clear();
  current_offset_ = 0;
  write_pipe_.reset(new Byte_Pipe(PIPE_CAPACITY));
  write_thread_ = std::thread(&Client_IO_Http::run_upload, this);
  return true;
}

void Client_IO_Http::run_upload()
{
  Request request;
  request.owner = this;
  request.method = "PUT";
  request.url = write_url_;
  request.stream_upload = true;
  request.no_overwrite = !write_overwrite_;
  Retry_Policy retry(options_.max_seconds_retry);
  Response response;
  for (;;)
  {
    perform(request, response);
    if (response.curl_code == CURLE_OK && is_success(response.status))
      break;
    // A retry sends the stream again from its first byte, which only the replay
    // buffer still holds.
    if (is_transient(response) && keep_replay_ && !write_pipe_->cancelled() && retry.wait_before_retry())
    {
      current_ = replay_;
      current_offset_ = 0;
      continue;
    }
    std::lock_guard<std::mutex> guard(write_lock_);
    write_error_ = describe(response);
    write_pipe_->cancel();
    return;
  }
  std::lock_guard<std::mutex> guard(write_lock_);
  write_ok_ = true;
}

bool Client_IO_Http::write(const void* data, size_t len)
{
  if (!write_pipe_)
    return fail("no object is open for writing");
  const char* p = static_cast<const char*>(data);
  while (len > 0)
  {
    size_t piece = std::min(len, PIECE);
    limiter_.throttle(piece);
    if (!write_pipe_->push(p, piece))
    {
      if (write_thread_.joinable())
        write_thread_.join();
      std::lock_guard<std::mutex> guard(write_lock_);
      return fail("write failed: " + (write_error_.empty() ? std::string("aborted") : write_error_));
    }
    p += piece;
    len -= piece;
    write_total_ += piece;
  }
  return true;
}

bool Client_IO_Http::close_write()
{
  if (!write_pipe_)
    return fail("no object is open for writing");
  write_pipe_->close();
  if (write_thread_.joinable())
    write_thread_.join();
  write_pipe_.reset();
  std::string().swap(replay_);
  if (!write_ok_)
    return fail("cannot put object: " + write_error_);
  storage_size_ = write_total_;
  return true;
}

void Client_IO_Http::abort_write()
{
  if (write_pipe_)
    write_pipe_->cancel();
  if (write_thread_.joinable())
    write_thread_.join();
  write_pipe_.reset();
  std::string().swap(replay_);
}

bool Client_IO_Http::open_read(const std::string& name, uint64_t offset)
{
  close_read();
  if (base_url_.empty())
    return fail("storage client is not open");
  if (!check_name(name))
    return false;
  read_url_ = object_url(name);
  read_position_ = offset;
  read_error_.clear();
  read_pipe_.reset(new Byte_Pipe(PIPE_CAPACITY));
  read_thread_ = std::thread(&Client_IO_Http::run_download, this);
  return true;
}

void Client_IO_Http::run_download()
{
  Request request;
  request.owner = this;
  request.url = read_url_;
  request.stream_download = true;
  Retry_Policy retry(options_.max_seconds_retry);
  Response response;
  for (;;)
  {
    request.range_from = read_position_;
    perform(request, response);
    if (response.curl_code == CURLE_OK && is_success(response.status))
    {
      read_pipe_->close();
      return;
    }
    if (read_pipe_->cancelled())
      return;
    if (is_transient(response) && retry.wait_before_retry())
      continue;
    std::lock_guard<std::mutex> guard(read_lock_);
    read_error_ = describe(response);
    read_pipe_->cancel();
    return;
  }
}

long long Client_IO_Http::read(void* data, size_t len)
{
  if (!read_pipe_)
  {
    fail("no object is open for reading");
    return -1;
  }
  size_t n = read_pipe_->pop(static_cast<char*>(data), std::min(len, PIECE));
  if (n > 0)
  {
    limiter_.throttle(n);
    return static_cast<long long>(n);
  }
  if (read_thread_.joinable())
    read_thread_.join();
  if (read_pipe_->cancelled())
  {
    std::lock_guard<std::mutex> guard(read_lock_);
    fail("cannot read object: " + (read_error_.empty() ? std::string("closed") : read_error_));
    return -1;
  }
  return 0;
}

void Client_IO_Http::close_read()
{
  if (read_pipe_)
    read_pipe_->cancel();
  if (read_thread_.joinable())
    read_thread_.join();
  read_pipe_.reset();
}

bool Client_IO_Http::size(const std::string& name, uint64_t& size)
{
  if (base_url_.empty())
    return fail("storage client is not open");
  if (!check_name(name))
    return false;
  Request request;
  request.method = "HEAD";
  request.url = object_url(name);
  Response response;
  if (!request_with_retry(request, response))
    return fail("cannot stat '" + name + "': " + describe(response));
  size = response.content_length;
  return true;
}

bool Client_IO_Http::list(const std::string& prefix, std::vector<std::string>& names)
{
  names.clear();
  if (base_url_.empty())
    return fail("storage client is not open");
  std::string encoded;
  http_encode_string(prefix, HTTP_ENCODE_SLASH, encoded);
  Request request;
  request.url = base_url_ + "/?list=1&prefix=" + encoded;
  std::string body;
  request.download = &body;
  Response response;
  if (!request_with_retry(request, response))
    return fail("cannot list '" + prefix + "': " + describe(response));
  nlohmann::json answer = nlohmann::json::parse(response.body, nullptr, false);
  if (!answer.is_object() || !answer.contains("objects") || !answer["objects"].is_array())
    return fail("unrecognized list answer");
  for (const auto& object : answer["objects"])
  {
    if (!object.is_object() || !object.contains("name") || !object["name"].is_string())
      return fail("unrecognized list answer");
    names.push_back(object["name"].get<std::string>());
  }
  return true;
}

bool Client_IO_Http::remove(const std::string& name)
{
  if (base_url_.empty())
    return fail("storage client is not open");
  if (!check_name(name))
    return false;
  Request request;
  request.method = "DELETE";
  request.url = object_url(name);
  Response response;
  if (!request_with_retry(request, response))
    return fail("cannot remove '" + name + "': " + describe(response));
  return true;
}
