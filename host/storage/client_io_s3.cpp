#include "host/storage/client_io_s3.h"

#include <algorithm>
#include <cstring>
#include <openssl/sha.h>

#include "host/http/http_encoding.h"
#include "host/http/http_session_factory.h"
#include "host/http/http_status.h"
#include "host/http/retry_policy.h"
#include "host/storage/host_manager.h"
#include "host/storage/s3_answer.h"

namespace
{
// Seconds to connect, and for one request (a part of part_size bytes at the
// slowest links still takes well under this).
const int S3_CONNECT_TIMEOUT = 10;
const int S3_REQUEST_TIMEOUT = 600;
// The first ranged GET of a streamed read asks for at least this much.
const size_t S3_FIRST_WINDOW = 64 * 1024;
// Bytes announced to the rate limiter at a time.
const size_t S3_PIECE = 64 * 1024;

// x-amz-content-sha256 of a request without a body (the SHA-256 of nothing), and
// of a streamed body, which is not hashed (TLS protects it on the way; the
// store checks each part's MD5 against its ETag).
const char S3_EMPTY_PAYLOAD[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
const char S3_UNSIGNED_PAYLOAD[] = "UNSIGNED-PAYLOAD";

std::string sha256_hex(const std::string& data)
{
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(data.data()), data.size(), digest);
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char b : digest)
  {
    out += digits[b >> 4];
    out += digits[b & 15];
  }
  return out;
}

// A query component as Signature V4 signs it.
std::string query_value(const std::string& text)
{
  std::string out;
  http_encode_string(text, HTTP_ENCODE_SLASH | HTTP_ENCODE_UPPER_HEX, out);
  return out;
}

// Sends [data, data + len) as the request's body, from its first byte on every attempt.
void set_memory_body(HTTP_Request& request, const char* data, size_t len, size_t& offset)
{
  request.set_body_source(
    [data, len, &offset](char* buffer, size_t room)
    {
      const size_t take = std::min(room, len - offset);
      memcpy(buffer, data + offset, take);
      offset += take;
      return take;
    },
    static_cast<int64_t>(len));
}
}  // namespace

size_t Client_IO_S3::part_size_of(size_t part_number)
{
  size_t size = part_size;
  for (size_t tier = (part_number - 1) / 1000; tier > 0 && size < max_part_size; --tier)
    size *= 2;
  return size;
}

Client_IO_S3::~Client_IO_S3()
{
  abort_write();
  close_read();
}

bool Client_IO_S3::open(const std::string& location, const Options& options)
{
  abort_write();
  close_read();
  session_.reset();
  std::string error;
  S3_Location parsed;
  if (!parsed.parse(location, error))
    return fail(error);
  if (options.s3_credentials.empty())
    return fail("no access key for the object store pool " + location);
  if (!options.s3_region.empty() && !S3_Location::is_region(options.s3_region))
    return fail("not a region name: " + options.s3_region);
  HTTP_Session_Factory::Session_Options session_options;
  session_options.connect_timeout = S3_CONNECT_TIMEOUT;
  session_options.transfer_timeout = S3_REQUEST_TIMEOUT;
  session_options.allow_plain_http = Host_Manager::instance().allow_plain_http();
  HTTP_Session_Ptr sessions[3];
  for (HTTP_Session_Ptr& session : sessions)
    if (!(session = HTTP_Session_Factory::create(parsed.endpoint(), session_options, error)))
      return fail(error);
  session_ = sessions[0];
  write_session_ = sessions[1];
  read_session_ = sessions[2];
  location_ = parsed;
  options_ = options;
  provider_ = "aws:amz:" + (options.s3_region.empty() ? std::string("us-east-1") : options.s3_region) + ":s3";
  limiter_.set_entries(options.rate_control_entries);
  return true;
}

bool Client_IO_S3::ready(const std::string& name)
{
  if (!session_)
    return fail("storage client is not open");
  return check_name(name);
}

HTTP_Request Client_IO_S3::make_request(int method, const std::string& path, const std::string& query,
                                        const std::string& body) const
{
  HTTP_Request request(method, path.c_str());
  request.query_string_buffer() = query;
  // Signature V4 for S3 signs this field; libcurl takes its value as the payload hash.
  const bool streamed = method == HTTP_METHOD_PUT;
  request.headers().put("x-amz-content-sha256", streamed       ? S3_UNSIGNED_PAYLOAD
                                                : body.empty() ? S3_EMPTY_PAYLOAD
                                                               : sha256_hex(body));
  request.body() = body;
  request.sign_aws_sigv4(provider_, options_.s3_credentials.access_key_id, options_.s3_credentials.secret_access_key);
  return request;
}

Host_Status Client_IO_S3::attempt(HTTP_Session& session, HTTP_Request& request, HTTP_Response& response) const
{
  if (!session.perform(request, response))
    return http_transport_status(session);
  return S3_Answer::status(response);
}

bool Client_IO_S3::exchange(HTTP_Session& session, HTTP_Request& request, HTTP_Response& response,
                            const std::string& context)
{
  Retry_Policy retry(options_.max_seconds_retry);
  const Host_Status status = run_with_retry_T(retry, [&] { return attempt(session, request, response); });
  return status.ok() || fail(status, context);
}

bool Client_IO_S3::head(HTTP_Session& session, const std::string& key, bool& found, uint64_t& size,
                        const std::string& context)
{
  HTTP_Request request = make_request(HTTP_METHOD_HEAD, location_.object_path(key), "");
  HTTP_Response response;
  Retry_Policy retry(options_.max_seconds_retry);
  const Host_Status status = run_with_retry_T(retry,
                                              [&]
                                              {
                                                Host_Status s = attempt(session, request, response);
                                                return response.status() == 404 ? Host_Status::success() : s;
                                              });
  if (!status.ok())
    return fail(status, context);
  found = response.status() != 404;
  const std::string* length = response.headers().get("Content-Length");
  size = found && length ? std::strtoull(length->c_str(), nullptr, 10) : 0;
  return true;
}

bool Client_IO_S3::check_absent(HTTP_Session& session, const std::string& key, bool overwrite, const std::string& name)
{
  if (overwrite)
    return true;
  bool found = false;
  uint64_t size = 0;
  if (!head(session, key, found, size, "cannot put '" + name + "'"))
    return false;
  return !found || fail("cannot put '" + name + "': the object exists");
}

bool Client_IO_S3::put_object(HTTP_Session& session, const std::string& key, const char* data, size_t len,
                              bool overwrite, const std::string& context)
{
  HTTP_Request request = make_request(HTTP_METHOD_PUT, location_.object_path(key), "");
  request.headers().put("Content-Type", "application/octet-stream");
  if (!overwrite)
    request.headers().put("If-None-Match", "*");
  size_t offset = 0;
  set_memory_body(request, data, len, offset);
  HTTP_Response response;
  Retry_Policy retry(options_.max_seconds_retry);
  const Host_Status status = run_with_retry_T(retry,
                                              [&]
                                              {
                                                offset = 0;
                                                return attempt(session, request, response);
                                              });
  return status.ok() || fail(status, context);
}

bool Client_IO_S3::put_contents(const std::string& name, const std::string& text, bool overwrite)
{
  if (!ready(name))
    return false;
  const std::string key = location_.key(name);
  if (!check_absent(*session_, key, overwrite, name))
    return false;
  for (size_t done = 0; done < text.size(); done += S3_PIECE)
    limiter_.throttle(std::min(S3_PIECE, text.size() - done));
  if (!put_object(*session_, key, text.data(), text.size(), overwrite, "cannot put '" + name + "'"))
    return false;
  storage_size_ = text.size();
  return true;
}

bool Client_IO_S3::open_write(const std::string& name, bool overwrite)
{
  if (!ready(name))
    return false;
  abort_write();
  const std::string key = location_.key(name);
  if (!check_absent(*write_session_, key, overwrite, name))
    return false;
  writing_ = true;
  write_name_ = name;
  write_key_ = key;
  write_overwrite_ = overwrite;
  part_.clear();
  upload_id_.clear();
  etags_.clear();
  write_total_ = 0;
  return true;
}

bool Client_IO_S3::start_upload()
{
  HTTP_Request request = make_request(HTTP_METHOD_POST, location_.object_path(write_key_), "uploads=");
  request.headers().put("Content-Type", "application/octet-stream");
  HTTP_Response response;
  if (!exchange(*write_session_, request, response, "cannot start the upload of '" + write_name_ + "'"))
    return false;
  if (!S3_Answer::upload_id(response.body(), upload_id_))
    return fail("cannot start the upload of '" + write_name_ + "': no UploadId in the answer");
  return true;
}

bool Client_IO_S3::upload_part()
{
  const std::string number = std::to_string(etags_.size() + 1);
  HTTP_Request request = make_request(HTTP_METHOD_PUT, location_.object_path(write_key_),
                                      "partNumber=" + number + "&uploadId=" + query_value(upload_id_));
  size_t offset = 0;
  set_memory_body(request, part_.data(), part_.size(), offset);
  HTTP_Response response;
  Retry_Policy retry(options_.max_seconds_retry);
  // Only this part is sent again after a failure: the parts before it are stored.
  const Host_Status status = run_with_retry_T(retry,
                                              [&]
                                              {
                                                offset = 0;
                                                return attempt(*write_session_, request, response);
                                              });
  if (!status.ok())
    return fail(status, "cannot upload part number " + number + " of '" + write_name_ + "'");
  const std::string* etag = response.headers().get("ETag");
  if (etag == nullptr || etag->empty())
    return fail("cannot upload part number " + number + " of '" + write_name_ + "': no ETag in the answer");
  etags_.push_back(*etag);
  part_.clear();
  return true;
}

bool Client_IO_S3::complete_upload()
{
  HTTP_Request request = make_request(HTTP_METHOD_POST, location_.object_path(write_key_),
                                      "uploadId=" + query_value(upload_id_), S3_Answer::complete_body(etags_));
  request.headers().put("Content-Type", "application/xml");
  if (!write_overwrite_)
    request.headers().put("If-None-Match", "*");
  HTTP_Response response;
  Retry_Policy retry(options_.max_seconds_retry);
  int attempts = 0;
  const Host_Status status = run_with_retry_T(
    retry,
    [&]
    {
      Host_Status s = attempt(*write_session_, request, response);
      // A completion whose answer was lost may have been applied: the upload is
      // then gone and the object there, whole.
      bool found = false;
      uint64_t size = 0;
      if (++attempts > 1 && S3_Answer::error_code(response) == "NoSuchUpload" &&
          head(*write_session_, write_key_, found, size, "") && found && size == write_total_)
        return Host_Status::success();
      if (s.ok() && response.body().find("CompleteMultipartUploadResult") == std::string::npos)
        return Host_Status::make(HOST_STATUS_TRANSIENT, "", "no CompleteMultipartUploadResult in the answer");
      return s;
    });
  if (!status.ok())
    return fail(status, "cannot complete the upload of '" + write_name_ + "'");
  upload_id_.clear();
  return true;
}

void Client_IO_S3::abort_upload()
{
  if (upload_id_.empty())
    return;
  HTTP_Request request =
    make_request(HTTP_METHOD_DELETE, location_.object_path(write_key_), "uploadId=" + query_value(upload_id_));
  HTTP_Response response;
  // Best effort: the caller's failure stays the one reported, and a store's
  // lifecycle rule removes uploads that were never aborted.
  Retry_Policy retry(std::min(options_.max_seconds_retry, 10));
  const Host_Status ignored = run_with_retry_T(retry, [&] { return attempt(*write_session_, request, response); });
  (void)ignored;
  upload_id_.clear();
}

bool Client_IO_S3::abandon_write()
{
  const Host_Status failure = status_;
  const std::string text = last_error_;
  abort_write();
  status_ = failure;
  last_error_ = text;
  return false;
}

bool Client_IO_S3::write(const void* data, size_t len)
{
  if (!writing_)
    return fail("no object is open for writing");
  const char* p = static_cast<const char*>(data);
  while (len > 0)
  {
    const size_t whole = part_size_of(etags_.size() + 1);
    const size_t take = std::min({len, whole - part_.size(), S3_PIECE});
    limiter_.throttle(take);
    part_.append(p, take);
    p += take;
    len -= take;
    write_total_ += take;
    if (part_.size() == whole && ((upload_id_.empty() && !start_upload()) || !upload_part()))
      return abandon_write();
  }
  return true;
}

bool Client_IO_S3::close_write()
{
  if (!writing_)
    return fail("no object is open for writing");
  bool ok;
  if (upload_id_.empty())
    ok = put_object(*write_session_, write_key_, part_.data(), part_.size(), write_overwrite_,
                    "cannot put '" + write_name_ + "'");
  else
    ok = (part_.empty() || upload_part()) && complete_upload();
  if (!ok)
    return abandon_write();
  storage_size_ = write_total_;
  writing_ = false;
  std::string().swap(part_);
  return true;
}

void Client_IO_S3::abort_write()
{
  if (!writing_)
    return;
  abort_upload();
  writing_ = false;
  std::string().swap(part_);
  etags_.clear();
}

bool Client_IO_S3::open_read(const std::string& name, uint64_t offset)
{
  close_read();
  if (!ready(name))
    return false;
  const std::string key = location_.key(name);
  bool found = false;
  uint64_t size = 0;
  if (!head(*read_session_, key, found, size, "cannot read '" + name + "'"))
    return false;
  if (!found)
    return fail(Host_Status::make(HOST_STATUS_PERMANENT, "HTTP 404", "no such object"), "cannot read '" + name + "'");
  if (offset > size)
    return fail("cannot read '" + name + "' from " + std::to_string(offset) + ": the object is shorter");
  reading_ = true;
  read_name_ = name;
  read_key_ = key;
  read_size_ = size;
  read_position_ = offset;
  window_.clear();
  window_offset_ = 0;
  window_size_ = 0;
  return true;
}

bool Client_IO_S3::fetch_window(size_t wanted)
{
  const uint64_t from = read_position_ + window_.size();
  const uint64_t to = std::min<uint64_t>(read_size_, from + wanted) - 1;
  HTTP_Request request = make_request(HTTP_METHOD_GET, location_.object_path(read_key_), "");
  request.headers().put("Range", "bytes=" + std::to_string(from) + "-" + std::to_string(to));
  HTTP_Response response;
  Retry_Policy retry(options_.max_seconds_retry);
  const size_t expected = static_cast<size_t>(to - from + 1);
  const Host_Status status = run_with_retry_T(
    retry,
    [&]
    {
      Host_Status s = attempt(*read_session_, request, response);
      if (s.ok() && (response.status() != 206 || response.body().size() != expected))
        s = Host_Status::make(HOST_STATUS_PERMANENT, "", "the store did not answer the range asked for");
      return s;
    });
  if (!status.ok())
    return fail(status, "cannot read '" + read_name_ + "'");
  read_position_ = from;
  window_.swap(response.body());
  window_offset_ = 0;
  return true;
}

long long Client_IO_S3::read(void* data, size_t len)
{
  if (!reading_)
  {
    fail("no object is open for reading");
    return -1;
  }
  if (window_offset_ == window_.size())
  {
    if (read_position_ + window_.size() >= read_size_ || len == 0)
      return 0;
    window_size_ = window_size_ == 0 ? std::max(len, S3_FIRST_WINDOW) : std::min(window_size_ * 2, part_size);
    if (!fetch_window(window_size_))
    {
      close_read();
      return -1;
    }
  }
  const size_t n = std::min(len, window_.size() - window_offset_);
  limiter_.throttle(n);
  memcpy(data, window_.data() + window_offset_, n);
  window_offset_ += n;
  return static_cast<long long>(n);
}

void Client_IO_S3::close_read()
{
  reading_ = false;
  std::string().swap(window_);
  window_offset_ = 0;
}

bool Client_IO_S3::size(const std::string& name, uint64_t& size)
{
  if (!ready(name))
    return false;
  bool found = false;
  if (!head(*session_, location_.key(name), found, size, "cannot stat '" + name + "'"))
    return false;
  return found ||
         fail(Host_Status::make(HOST_STATUS_PERMANENT, "HTTP 404", "no such object"), "cannot stat '" + name + "'");
}

bool Client_IO_S3::list(const std::string& prefix, std::vector<std::string>& names)
{
  names.clear();
  if (!session_)
    return fail("storage client is not open");
  const std::string base = location_.prefix().empty() ? "" : location_.prefix() + "/";
  std::string token;
  for (;;)
  {
    // Parameters in the order Signature V4 signs them.
    std::string query = token.empty() ? "" : "continuation-token=" + query_value(token) + "&";
    query += "list-type=2&prefix=" + query_value(base + prefix);
    HTTP_Request request = make_request(HTTP_METHOD_GET, location_.bucket_path(), query);
    HTTP_Response response;
    if (!exchange(*session_, request, response, "cannot list '" + prefix + "'"))
      return false;
    S3_Answer::Listing page;
    if (!S3_Answer::listing(response.body(), page))
      return fail("cannot list '" + prefix + "': unrecognized ListObjectsV2 answer");
    for (const std::string& key : page.keys)
    {
      if (key.compare(0, base.size(), base) != 0)
        return fail("cannot list '" + prefix + "': the store answered a key outside the prefix");
      names.push_back(key.substr(base.size()));
    }
    if (!page.truncated)
      break;
    token = page.next_token;
  }
  std::sort(names.begin(), names.end());
  return true;
}

bool Client_IO_S3::remove(const std::string& name)
{
  if (!ready(name))
    return false;
  // DELETE succeeds for a key that is not there; the contract says it fails.
  const std::string key = location_.key(name);
  bool found = false;
  uint64_t size = 0;
  if (!head(*session_, key, found, size, "cannot remove '" + name + "'"))
    return false;
  if (!found)
    return fail(Host_Status::make(HOST_STATUS_PERMANENT, "HTTP 404", "no such object"), "cannot remove '" + name + "'");
  HTTP_Request request = make_request(HTTP_METHOD_DELETE, location_.object_path(key), "");
  HTTP_Response response;
  return exchange(*session_, request, response, "cannot remove '" + name + "'");
}
