#include "host/storage/client_io_http.h"

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>

#include "host/http/http_encoding.h"
#include "host/http/http_session_factory.h"
#include "host/http/http_status.h"
#include "host/http/retry_policy.h"
#include "host/http/uri_parser.h"
#include "host/storage/backupd_client.h"
#include "host/storage/host_manager.h"

// Transfers go through the limiter in pieces of at most this size.
static const size_t HTTP_PIECE = 64 * 1024;
// Bytes queued between the caller and a streamed transfer's worker.
static const size_t PIPE_CAPACITY = 4 * 1024 * 1024;
// Seconds to connect, and for one whole request that is not a stream.
static const int CONNECT_TIMEOUT = 10;
static const int REQUEST_TIMEOUT = 600;

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
  session_.reset();
  URI uri;
  if (!URI_Parser::parse(location.c_str(), uri))
    return fail("not an http(s) location: " + location);
  for (const auto& option : options.extra_options)
    if (!is_header_safe(option.first, option.second))
      return fail("extra option '" + option.first + "' cannot be sent as a header");
  HTTP_Session_Factory::Session_Options session_options;
  session_options.connect_timeout = CONNECT_TIMEOUT;
  session_options.transfer_timeout = REQUEST_TIMEOUT;
  session_options.allow_plain_http = Host_Manager::instance().allow_plain_http();
  std::string error;
  HTTP_Session_Ptr sessions[3];
  for (HTTP_Session_Ptr& session : sessions)
    if (!(session = HTTP_Session_Factory::create(uri, session_options, error)))
      return fail(error);
  session_ = sessions[0];
  write_session_ = sessions[1];
  read_session_ = sessions[2];
  options_ = options;
  limiter_.set_entries(options.rate_control_entries);
  base_path_ = uri.path();
  while (!base_path_.empty() && base_path_.back() == '/')
    base_path_.pop_back();
  return true;
}

bool Client_IO_Http::ready(const std::string& name)
{
  if (!session_)
    return fail("storage client is not open");
  return check_name(name);
}

std::string Client_IO_Http::object_path(const std::string& name) const
{
  std::string encoded;
  http_encode_string(name, 0, encoded);
  return base_path_ + "/" + encoded;
}

void Client_IO_Http::add_headers(HTTP_Request& request, bool no_overwrite, uint64_t range_from) const
{
  for (const auto& option : options_.extra_options)
    request.headers().put(option.first, option.second, false);
  if (options_.d2t_access_mode != 0)
    request.headers().put("X-Backupd-Access-Mode", std::to_string(options_.d2t_access_mode));
  if (no_overwrite)
    request.headers().put("If-None-Match", "*");
  if (range_from > 0)
    request.headers().put("Range", "bytes=" + std::to_string(range_from) + "-");
}

Host_Status Client_IO_Http::attempt(HTTP_Session& session, HTTP_Request& request, HTTP_Response& response) const
{
  if (!session.perform(request, response))
    return http_transport_status(session);
  return http_answer_status(response, backupd_error_of(response.body()));
}

bool Client_IO_Http::exchange(int method, const std::string& path, const std::string& query, HTTP_Response& response,
                              const std::string& context)
{
  HTTP_Request request(method, path.c_str());
  request.query_string_buffer() = query;
  add_headers(request, false, 0);
  Retry_Policy retry(options_.max_seconds_retry);
  const Host_Status status = run_with_retry_T(retry, [&] { return attempt(*session_, request, response); });
  return status.ok() || fail(status, context);
}

bool Client_IO_Http::put_contents(const std::string& name, const std::string& text, bool overwrite)
{
  if (!ready(name))
    return false;
  HTTP_Request request(HTTP_METHOD_PUT, object_path(name).c_str());
  add_headers(request, !overwrite, 0);
  // The body goes through the limiter like any other transfer; every attempt
  // sends it from its first byte.
  size_t offset = 0;
  request.set_body_source(
    [&](char* buffer, size_t room)
    {
      const size_t take = std::min({room, HTTP_PIECE, text.size() - offset});
      limiter_.throttle(take);
      memcpy(buffer, text.data() + offset, take);
      offset += take;
      return take;
    },
    static_cast<int64_t>(text.size()));
  HTTP_Response response;
  Retry_Policy retry(options_.max_seconds_retry);
  const Host_Status status = run_with_retry_T(retry,
                                              [&]
                                              {
                                                offset = 0;
                                                return attempt(*session_, request, response);
                                              });
  if (!status.ok())
    return fail(status, "cannot put '" + name + "'");
  storage_size_ = text.size();
  return true;
}

bool Client_IO_Http::open_write(const std::string& name, bool overwrite)
{
  if (!ready(name))
    return false;
  abort_write();
  write_path_ = object_path(name);
  write_overwrite_ = overwrite;
  write_status_ = Host_Status::success();
  write_total_ = 0;
  replay_.clear();
  keep_replay_ = options_.resumption_buffer_size > 0;
  current_.clear();
  current_offset_ = 0;
  write_pipe_.reset(new Byte_Pipe(PIPE_CAPACITY));
  write_thread_ = std::thread(&Client_IO_Http::run_upload, this);
  return true;
}

// Serves the current piece, then takes the next one from the pipe, keeping what
// fits the resumption buffer.
size_t Client_IO_Http::upload_next(char* buffer, size_t size)
{
  if (current_offset_ == current_.size())
  {
    std::string piece(HTTP_PIECE, '\0');
    const size_t got = write_pipe_->pop(&piece[0], piece.size());
    if (got == 0)
      return write_pipe_->cancelled() ? HTTP_Request::abort_body : 0;
    piece.resize(got);
    if (keep_replay_ && replay_.size() + got <= options_.resumption_buffer_size)
      replay_ += piece;
    else if (keep_replay_)
    {
      keep_replay_ = false;
      std::string().swap(replay_);
    }
    current_.swap(piece);
    current_offset_ = 0;
  }
  const size_t take = std::min(size, current_.size() - current_offset_);
  memcpy(buffer, current_.data() + current_offset_, take);
  current_offset_ += take;
  return take;
}

Host_Status Client_IO_Http::upload_attempt(HTTP_Request& request, HTTP_Response& response, int attempt_number)
{
  // A retry sends the stream again from its first byte, which only the replay
  // buffer still holds.
  if (attempt_number > 1)
  {
    current_ = replay_;
    current_offset_ = 0;
  }
  Host_Status status = attempt(*write_session_, request, response);
  if (status.retryable() && (!keep_replay_ || write_pipe_->cancelled()))
  {
    // This stream cannot be sent again: for this object the failure is final.
    status.kind = HOST_STATUS_PERMANENT;
    status.message += status.message.empty() ? "" : "; ";
    status.message += "the stream does not fit the resumption buffer to be sent again";
  }
  return status;
}

void Client_IO_Http::run_upload()
{
  HTTP_Request request(HTTP_METHOD_PUT, write_path_.c_str());
  add_headers(request, !write_overwrite_, 0);
  request.transfer_timeout(0);
  request.set_body_source([this](char* buffer, size_t size) { return upload_next(buffer, size); });
  HTTP_Response response;
  Retry_Policy retry(options_.max_seconds_retry);
  int attempts = 0;
  const Host_Status status = run_with_retry_T(retry, [&] { return upload_attempt(request, response, ++attempts); });
  std::lock_guard<std::mutex> guard(write_lock_);
  write_status_ = status;
  if (!status.ok())
    write_pipe_->cancel();
}

bool Client_IO_Http::write(const void* data, size_t len)
{
  if (!write_pipe_)
    return fail("no object is open for writing");
  const char* p = static_cast<const char*>(data);
  while (len > 0)
  {
    size_t piece = std::min(len, HTTP_PIECE);
    limiter_.throttle(piece);
    if (!write_pipe_->push(p, piece))
    {
      if (write_thread_.joinable())
        write_thread_.join();
      std::lock_guard<std::mutex> guard(write_lock_);
      if (write_status_.ok())
        return fail(Host_Status::make(HOST_STATUS_CANCELLED, "", "aborted"), "write failed");
      return fail(write_status_, "write failed");
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
  if (!write_status_.ok())
    return fail(write_status_, "cannot put object");
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
  if (!ready(name))
    return false;
  read_path_ = object_path(name);
  read_position_ = offset;
  read_status_ = Host_Status::success();
  read_pipe_.reset(new Byte_Pipe(PIPE_CAPACITY));
  read_thread_ = std::thread(&Client_IO_Http::run_download, this);
  return true;
}

bool Client_IO_Http::download_sink(const char* data, size_t len, long status, uint64_t range_from)
{
  if (range_from > 0 && status != 206)
  {
    range_ignored_ = true;  // these bytes are not the ones asked for
    return false;
  }
  for (size_t done = 0; done < len;)
  {
    const size_t piece = std::min(len - done, HTTP_PIECE);
    if (!read_pipe_->push(data + done, piece))
      return false;  // the reader closed: stop the transfer
    done += piece;
  }
  read_position_ += len;
  return true;
}

void Client_IO_Http::run_download()
{
  Retry_Policy retry(options_.max_seconds_retry);
  const Host_Status status =
    run_with_retry_T(retry,
                     [&]
                     {
                       // Each attempt asks for the bytes not read yet.
                       const uint64_t range_from = read_position_;
                       HTTP_Request request(HTTP_METHOD_GET, read_path_.c_str());
                       add_headers(request, false, range_from);
                       request.transfer_timeout(0);
                       HTTP_Response response;
                       response.set_body_sink([this, range_from](const char* data, size_t len, long code)
                                              { return download_sink(data, len, code, range_from); });
                       range_ignored_ = false;
                       Host_Status result = attempt(*read_session_, request, response);
                       if (range_ignored_)
                         result = Host_Status::make(HOST_STATUS_PERMANENT, "", "the server ignored the range request");
                       // A reader that closed wants no retry, and no back-off to wait for.
                       if (!result.ok() && read_pipe_->cancelled())
                         result = Host_Status::make(HOST_STATUS_CANCELLED, "", "the read was closed");
                       return result;
                     });
  if (status.ok())
  {
    read_pipe_->close();
    return;
  }
  std::lock_guard<std::mutex> guard(read_lock_);
  read_status_ = status;
  read_pipe_->cancel();
}

long long Client_IO_Http::read(void* data, size_t len)
{
  if (!read_pipe_)
  {
    fail("no object is open for reading");
    return -1;
  }
  size_t n = read_pipe_->pop(static_cast<char*>(data), std::min(len, HTTP_PIECE));
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
    if (read_status_.ok())
      fail(Host_Status::make(HOST_STATUS_CANCELLED, "", "closed"), "cannot read object");
    else
      fail(read_status_, "cannot read object");
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
  if (!ready(name))
    return false;
  HTTP_Response response;
  if (!exchange(HTTP_METHOD_HEAD, object_path(name), "", response, "cannot stat '" + name + "'"))
    return false;
  const std::string* length = response.headers().get("Content-Length");
  size = length ? std::strtoull(length->c_str(), nullptr, 10) : 0;
  return true;
}

bool Client_IO_Http::list(const std::string& prefix, std::vector<std::string>& names)
{
  names.clear();
  if (!session_)
    return fail("storage client is not open");
  // backupd lists a whole pool: a location below the pool root ("/d2/storage/<pool>/host/job")
  // lists from the root with the sub-path put in front of the prefix, and the names
  // come back relative to the location again.
  const std::string sub_path = pool_sub_path();
  std::string encoded;
  http_encode_string(sub_path + prefix, HTTP_ENCODE_SLASH, encoded);
  HTTP_Response response;
  if (!exchange(HTTP_METHOD_GET, pool_root_path() + "/", "list=1&prefix=" + encoded, response,
                "cannot list '" + prefix + "'"))
    return false;
  nlohmann::json answer = nlohmann::json::parse(response.body(), nullptr, false);
  if (!answer.is_object() || !answer.contains("objects") || !answer["objects"].is_array())
    return fail("unrecognized list answer");
  for (const auto& object : answer["objects"])
  {
    if (!object.is_object() || !object.contains("name") || !object["name"].is_string())
      return fail("unrecognized list answer");
    const std::string name = object["name"].get<std::string>();
    if (name.compare(0, sub_path.size(), sub_path) != 0)
      return fail("unrecognized list answer");
    names.push_back(name.substr(sub_path.size()));
  }
  return true;
}

std::string Client_IO_Http::pool_root_path() const
{
  // "/d2/storage/<pool>" and whatever the location adds below it.
  static const std::string storage = "/d2/storage/";
  if (base_path_.compare(0, storage.size(), storage) != 0)
    return base_path_;
  const size_t end = base_path_.find('/', storage.size());
  return end == std::string::npos ? base_path_ : base_path_.substr(0, end);
}

std::string Client_IO_Http::pool_sub_path() const
{
  const std::string root = pool_root_path();
  std::string sub;
  if (base_path_.size() <= root.size() || !http_decode_string(base_path_.substr(root.size() + 1), 0, sub))
    return std::string();
  return sub + "/";
}

bool Client_IO_Http::remove(const std::string& name)
{
  if (!ready(name))
    return false;
  HTTP_Response response;
  return exchange(HTTP_METHOD_DELETE, object_path(name), "", response, "cannot remove '" + name + "'");
}
