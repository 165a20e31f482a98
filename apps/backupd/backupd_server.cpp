#include "apps/backupd/backupd_server.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <unistd.h>

#include "host/catalog/exchange_backup_set.h"
#include "host/base/log.h"
#include "host/storage/http_head.h"
#include "host/storage/object_writer.h"
#include "host/storage/s3_credentials.h"
#include "host/storage/storage_name.h"

static const char SETS_RESOURCE[] = "/d2/r/v2/sets/restore/sets";

static void answer_error(httplib::Response& res, int status, const std::string& text)
{
  res.status = status;
  nlohmann::ordered_json body;
  body["error"] = text;
  res.set_content(body.dump(), "application/json");
}

// A catalog call that failed: 503 with Retry-After when the failure may pass
// (the catalog database is unreachable for a moment), 500 otherwise.
static void answer_catalog_failure(httplib::Response& res, const std::string& error, const std::string& text)
{
  if (!Catalog_DB::is_transient(error))
    return answer_error(res, 500, text);
  answer_error(res, 503, text + ": the catalog database is unavailable, try again");
  res.set_header("Retry-After", "1");
}

// True when a JSON value holds a NUL character in a string or a key: catalog
// values are compared and stored as text, where a NUL would cut them short.
static bool holds_nul(const nlohmann::ordered_json& value)
{
  if (value.is_string())
    return value.get_ref<const std::string&>().find('\0') != std::string::npos;
  if (value.is_object())
  {
    for (auto it = value.begin(); it != value.end(); ++it)
      if (it.key().find('\0') != std::string::npos || holds_nul(it.value()))
        return true;
  }
  else if (value.is_array())
  {
    for (const auto& item : value)
      if (holds_nul(item))
        return true;
  }
  return false;
}

// "application/json", with or without parameters, in any case.
static bool is_json_type(const std::string& content_type)
{
  std::string type = content_type.substr(0, content_type.find(';'));
  while (!type.empty() && (type.back() == ' ' || type.back() == '\t'))
    type.pop_back();
  for (char& c : type)
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return type == "application/json";
}

// The text of an error the server library answers by itself.
static const char* library_error_text(int status)
{
  switch (status)
  {
  case 400:
    return "the request could not be read";
  case 404:
    return "no such resource";
  case 405:
    return "method not allowed";
  case 413:
    return "the request is too large";
  case 414:
    return "the request target is too long";
  case 416:
    return "invalid range";
  default:
    return "the request was refused";
  }
}

static bool is_digits(const std::string& text)
{
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

static void answer_json(httplib::Response& res, int status, const nlohmann::ordered_json& body)
{
  res.status = status;
  res.set_content(body.dump(), "application/json");
}

// HTTP status for an Object_Directory result.
static int status_of(int err)
{
  switch (err)
  {
  case EINVAL:
    return 400;
  case ENOENT:
  case ENOTDIR:
    return 404;
  case EEXIST:
    return 412;
  case ENOSPC:
  case EDQUOT:
    return 507;
  default:
    return 500;
  }
}

Backupd_Server::Backupd_Server(const std::string& data_dir, Catalog_DB& catalog, const Access_Keys& keys, int threads)
  : data_dir_(data_dir), catalog_(catalog), keys_(keys), threads_(threads)
{
  install_routes();
}

std::string Backupd_Server::pool_root(const std::string& data_dir, const std::string& pool_uuid)
{
  return data_dir + "/pools/" + pool_uuid;
}

bool Backupd_Server::bind(const std::string& host, int port, int& bound_port)
{
  if (port == 0)
    bound_port = server_.bind_to_any_port(host.c_str());
  else
    bound_port = server_.bind_to_port(host.c_str(), port) ? port : -1;
  return bound_port > 0;
}

bool Backupd_Server::run()
{
  bool ok = server_.listen_after_bind();
  finished_ = true;
  return ok;
}

void Backupd_Server::stop()
{
  // A stop that comes before the accept loop runs would be lost and leave the server
  // serving for ever, so it waits for the loop to start (or to have ended already).
  while (!server_.is_running() && !finished_)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  server_.stop();
}

bool Backupd_Server::authorised(const httplib::Request& req, httplib::Response& res) const
{
  const char* header = http_head_string(HTTP_HEAD_ACCESS_KEY, 0, "");
  if (req.has_header(header) && keys_.accepts(req.get_header_value(header)))
    return true;
  // A body sent with a refused request is never read; Backupd_Http_Server closes
  // the connection so that its bytes are not taken for a next request.
  answer_error(res, 401, "missing or wrong access key");
  return false;
}

bool Backupd_Server::body_allowed(const httplib::Request& req, httplib::Response& res) const
{
  bool has_length = req.has_header("Content-Length");
  bool chunked = req.has_header("Transfer-Encoding");
  // One framing only, and one the server reads exactly the way the client meant
  // it: anything else could let the client and the server disagree on where the
  // body ends.
  if (req.get_header_value_count("Content-Length") > 1 || req.get_header_value_count("Transfer-Encoding") > 1 ||
      (has_length && chunked) || (has_length && !is_digits(req.get_header_value("Content-Length"))))
  {
    answer_error(res, 400, "invalid Content-Length or Transfer-Encoding");
    return false;
  }
  if (chunked && req.get_header_value("Transfer-Encoding") != "chunked")
  {
    answer_error(res, 501, "only the chunked transfer encoding is accepted");
    return false;
  }
  bool upload = req.method == "PUT" && req.path.compare(0, 12, "/d2/storage/") == 0;
  bool commit = req.method == "POST" && req.path == SETS_RESOURCE;
  if (!upload && !commit)
  {
    if (!Backupd_Http_Server::request_has_body())
      return true;
    answer_error(res, 400, "this request takes no body");
    return false;
  }
  if (!has_length && !chunked)
  {
    // The client may well be sending a body it did not announce.
    Backupd_Http_Server::close_after_reply();
    answer_error(res, 411, "Content-Length or chunked Transfer-Encoding required");
    return false;
  }
  if (commit && !is_json_type(req.get_header_value("Content-Type")))
  {
    answer_error(res, 415, "a catalog record must be sent as Content-Type: application/json");
    return false;
  }
  if (commit && has_length &&
      (req.get_header_value("Content-Length").size() > 18 ||
       std::stoull(req.get_header_value("Content-Length")) > MAX_RECORD_BYTES))
  {
    answer_error(res, 413, "a catalog record is limited to " + std::to_string(MAX_RECORD_BYTES) + " bytes");
    return false;
  }
  return true;
}

void Backupd_Server::install_routes()
{
  int threads = threads_;
  server_.new_task_queue = [threads] { return new httplib::ThreadPool(static_cast<size_t>(threads)); };
  // A backup stream may pause between blocks while it waits for its source.
  server_.set_read_timeout(300, 0);
  server_.set_write_timeout(300, 0);
  // Agents send many small requests in a row (catalog pages, object heads):
  // one connection serves them all.
  server_.set_keep_alive_max_count(KEEP_ALIVE_REQUESTS);
  server_.set_keep_alive_timeout(KEEP_ALIVE_IDLE_SECONDS);
  server_.set_pre_routing_handler(
    [this](const httplib::Request& req, httplib::Response& res)
    {
      return body_allowed(req, res) && authorised(req, res) ? httplib::Server::HandlerResponse::Unhandled
                                                            : httplib::Server::HandlerResponse::Handled;
    });
  // Every error answer is JSON: the ones the server library makes itself
  // (unknown route, unreadable request) come without a body and get one here.
  // An error answer is never cut to a requested range; the request object is the
  // library's own, not const, so the ranges can be dropped. "Handled" has the
  // library frame the body (Content-Length).
  server_.set_error_handler(httplib::Server::HandlerWithResponse(
    [](const httplib::Request& req, httplib::Response& res)
    {
      const_cast<httplib::Request&>(req).ranges.clear();
      if (res.body.empty() && !res.has_header("Content-Type"))
        answer_error(res, res.status, library_error_text(res.status));
      return httplib::Server::HandlerResponse::Handled;
    }));
  // A client that waits for "100 Continue" before sending a body hears at once
  // when the request is refused, and sends nothing.
  server_.set_expect_100_continue_handler(
    [this](const httplib::Request& req, httplib::Response& res)
    { return body_allowed(req, res) && authorised(req, res) ? 100 : res.status; });
  server_.Get(SETS_RESOURCE, [this](const httplib::Request& req, httplib::Response& res) { get_sets(req, res); });
  server_.Post(SETS_RESOURCE, [this](const httplib::Request& req, httplib::Response& res,
                                     const httplib::ContentReader& reader) { post_set(req, res, reader); });
  server_.Delete(std::string(SETS_RESOURCE) + "/([^/]+)",
                 [this](const httplib::Request& req, httplib::Response& res) { delete_set(req, res); });
  server_.Get("/d2/r/v2/pools", [this](const httplib::Request& req, httplib::Response& res) { list_pools(req, res); });
  server_.Get("/d2/r/v2/pools/([^/]+)",
              [this](const httplib::Request& req, httplib::Response& res) { get_pool(req, res); });
  server_.Get("/d2/storage/([^/]+)/?",
              [this](const httplib::Request& req, httplib::Response& res) { list_objects(req, res); });
  server_.Get("/d2/storage/([^/]+)/(.+)",
              [this](const httplib::Request& req, httplib::Response& res) { get_object(req, res); });
  server_.Put("/d2/storage/([^/]+)/(.+)",
              [this](const httplib::Request& req, httplib::Response& res, const httplib::ContentReader& reader)
              { put_object(req, res, reader); });
  server_.Delete("/d2/storage/([^/]+)/(.+)",
                 [this](const httplib::Request& req, httplib::Response& res) { delete_object(req, res); });
}

void Backupd_Server::get_sets(const httplib::Request& req, httplib::Response& res)
{
  Catalog_Query query;
  std::string error;
  std::multimap<std::string, std::string> params(req.params.begin(), req.params.end());
  if (!query.parse(params, error))
    return answer_error(res, 400, error);
  nlohmann::ordered_json answer;
  if (!catalog_.query_sets(query, answer, error))
  {
    LOG_MSG(LM_ERROR, "Failed to query the catalog: %s\n", error.c_str());
    return answer_catalog_failure(res, error, "catalog query failed");
  }
  answer_json(res, 200, answer);
}

void Backupd_Server::post_set(const httplib::Request&, httplib::Response& res, const httplib::ContentReader& reader)
{
  // A chunked record has no length up front: the limit is checked as it arrives.
  std::string body;
  bool too_large = false;
  bool complete = Backupd_Http_Server::read_body(reader,
                                                 [&](const char* data, size_t len)
                                                 {
                                                   too_large = body.size() + len > MAX_RECORD_BYTES;
                                                   if (!too_large)
                                                     body.append(data, len);
                                                   return !too_large;
                                                 });
  if (too_large)
    return answer_error(res, 413, "a catalog record is limited to " + std::to_string(MAX_RECORD_BYTES) + " bytes");
  if (!complete)
    return answer_error(res, 400, "the record ended early");
  nlohmann::ordered_json record = nlohmann::ordered_json::parse(body, nullptr, false);
  Exchange_Backup_Set set;
  std::string error;
  if (record.is_discarded())
    return answer_error(res, 400, "the record is not JSON");
  if (holds_nul(record))
    return answer_error(res, 400, "invalid record: a catalog value holds a NUL character");
  if (!set.from_json(record, error))
    return answer_error(res, 400, "invalid record: " + error);
  if (set.uuid.empty() || set.module.empty())
    return answer_error(res, 400, "invalid record: \"uuid\" and \"module\" must not be empty");
  nlohmann::ordered_json answer;
  answer["uuid"] = set.uuid;
  switch (catalog_.commit_set(record, error))
  {
  case Catalog_DB::COMMIT_CREATED:
    answer["created"] = true;
    return answer_json(res, 201, answer);
  case Catalog_DB::COMMIT_EXISTS:
    answer["created"] = false;
    return answer_json(res, 200, answer);
  case Catalog_DB::COMMIT_CONFLICT:
    return answer_error(res, 409, "another record was committed under uuid " + set.uuid);
  case Catalog_DB::COMMIT_FAILED:
    break;
  }
  LOG_MSG(LM_ERROR, "Failed to commit catalog record %s: %s\n", set.uuid.c_str(), error.c_str());
  answer_catalog_failure(res, error, "catalog commit failed");
}

void Backupd_Server::delete_set(const httplib::Request& req, httplib::Response& res)
{
  std::string uuid = req.matches[1];
  if (uuid.find('\0') != std::string::npos)
    return answer_error(res, 400, "a catalog value holds a NUL character");
  std::string error;
  if (catalog_.delete_set(uuid, error))
  {
    LOG_MSG(LM_INFO, "Deleted catalog record %s\n", uuid.c_str());
    res.status = 204;
    return;
  }
  if (error.empty())
    return answer_error(res, 404, "no such record");
  LOG_MSG(LM_ERROR, "Failed to delete catalog record %s: %s\n", uuid.c_str(), error.c_str());
  answer_catalog_failure(res, error, "catalog delete failed");
}

// A pool's answer; a pool without a URL of its own is served here. A pool on an
// S3-compatible store keeps its location in settings "s3" and the path of its
// credentials file there; with `credentials`, the key is read from that file and
// handed to the agent, which signs its own requests to the store. Otherwise (the
// pool listing) neither the key nor its file is shown. False, with `error`, when
// the key cannot be read.
static bool pool_json(const Catalog_DB::Pool& pool, const httplib::Request& req, bool credentials,
                      nlohmann::ordered_json& value, std::string& error)
{
  value["uuid"] = pool.uuid;
  value["name"] = pool.name;
  value["host_uuid"] = pool.host_uuid;
  value["url"] = pool.url.empty() ? "http://" + req.get_header_value("Host") + "/d2/storage/" + pool.uuid : pool.url;
  value["settings"] = pool.settings;
  auto s3 = value["settings"].find("s3");
  if (s3 == value["settings"].end() || !s3->is_object())
    return true;
  const std::string file = s3->value("credentials_file", std::string());
  s3->erase("credentials_file");
  if (!credentials)
    return true;
  S3_Credentials key;
  if (!key.read_file(file, error))
    return false;
  (*s3)["access_key_id"] = key.access_key_id;
  (*s3)["secret_access_key"] = key.secret_access_key;
  return true;
}

void Backupd_Server::get_pool(const httplib::Request& req, httplib::Response& res)
{
  Catalog_DB::Pool pool;
  std::string error;
  if (!catalog_.get_pool(req.matches[1], pool, error))
    return error.empty() ? answer_error(res, 404, "no such pool")
                         : answer_catalog_failure(res, error, "catalog read failed");
  std::string access = req.has_param("access") ? req.get_param_value("access") : "read";
  if (access != "read" && access != "write")
    return answer_error(res, 400, "access must be read or write");
  if (access == "write" && pool.settings.value("read_only", false))
    return answer_error(res, 403, "the pool is read-only");
  std::string device = req.get_param_value("device_uuid");
  std::string pool_device = pool.settings.value("device_uuid", std::string());
  if (!device.empty() && !pool_device.empty() && device != pool_device)
    return answer_error(res, 404, "the pool has no such device");
  nlohmann::ordered_json value;
  if (!pool_json(pool, req, true, value, error))
  {
    LOG_MSG(LM_ERROR, "Cannot hand out pool %s: %s\n", pool.name.c_str(), error.c_str());
    return answer_error(res, 500, "the pool's object store credentials cannot be read");
  }
  answer_json(res, 200, value);
}

void Backupd_Server::list_pools(const httplib::Request& req, httplib::Response& res)
{
  std::vector<Catalog_DB::Pool> pools;
  std::string error;
  if (!catalog_.list_pools(pools, error))
    return answer_catalog_failure(res, error, "catalog read failed");
  nlohmann::ordered_json answer;
  answer["pools"] = nlohmann::ordered_json::array();
  for (const auto& pool : pools)
  {
    nlohmann::ordered_json value;
    pool_json(pool, req, false, value, error);
    answer["pools"].push_back(value);
  }
  answer_json(res, 200, answer);
}

std::shared_ptr<Object_Directory> Backupd_Server::pool_directory(const std::string& uuid, httplib::Response& res,
                                                                 Catalog_DB::Pool* pool_out)
{
  Catalog_DB::Pool pool;
  std::string error;
  // Pools may be added by "backupd pool add" while the server runs: ask the
  // catalog every time, which also sees a pool's current settings.
  if (!catalog_.get_pool(uuid, pool, error))
  {
    error.empty() ? answer_error(res, 404, "no such pool") : answer_catalog_failure(res, error, "catalog read failed");
    return nullptr;
  }
  if (pool_out != nullptr)
    *pool_out = pool;
  std::lock_guard<std::mutex> guard(pools_lock_);
  auto& dir = pools_[uuid];
  if (!dir)
    dir = std::make_shared<Object_Directory>(pool_root(data_dir_, uuid));
  return dir;
}

std::shared_ptr<Object_Directory> Backupd_Server::writable_pool_directory(const std::string& uuid,
                                                                          httplib::Response& res)
{
  Catalog_DB::Pool pool;
  std::shared_ptr<Object_Directory> dir = pool_directory(uuid, res, &pool);
  if (dir && pool.settings.value("read_only", false))
  {
    answer_error(res, 403, "the pool is read-only");
    return nullptr;
  }
  return dir;
}

void Backupd_Server::put_object(const httplib::Request& req, httplib::Response& res,
                                const httplib::ContentReader& reader)
{
  std::shared_ptr<Object_Directory> dir = writable_pool_directory(req.matches[1], res);
  if (!dir)
    return;
  std::string name = req.matches[2];
  if (!is_valid_storage_name(name))
    return answer_error(res, 400, "invalid object name");
  bool overwrite = req.get_header_value("If-None-Match") != "*";
  Object_Writer writer;
  int rc = dir->begin_write(name, writer);
  if (rc != 0)
    return answer_error(res, status_of(rc), std::string("cannot write: ") + strerror(rc));
  int write_error = 0;
  bool complete = Backupd_Http_Server::read_body(reader,
                                                 [&](const char* data, size_t len)
                                                 {
                                                   write_error = writer.write(data, len);
                                                   return write_error == 0;
                                                 });
  if (write_error != 0)
    return answer_error(res, status_of(write_error), std::string("cannot write: ") + strerror(write_error));
  if (!complete)
    return answer_error(res, 400, "the upload ended early");  // the writer drops the temporary
  uint64_t size = writer.bytes_written();
  rc = writer.commit(overwrite);
  if (rc != 0)
    return answer_error(res, status_of(rc),
                        rc == EEXIST ? "the object exists" : std::string("cannot store: ") + strerror(rc));
  nlohmann::ordered_json answer;
  answer["name"] = name;
  answer["size"] = size;
  answer_json(res, 201, answer);
}

void Backupd_Server::get_object(const httplib::Request& req, httplib::Response& res)
{
  std::shared_ptr<Object_Directory> dir = pool_directory(req.matches[1], res);
  if (!dir)
    return;
  std::string name = req.matches[2];
  int fd = -1;
  uint64_t size = 0;
  int rc = dir->open_read(name, fd, size);
  if (rc != 0)
    return answer_error(res, status_of(rc),
                        rc == ENOENT ? "no such object" : std::string("cannot read: ") + strerror(rc));
  if (size == 0)
  {
    ::close(fd);
    res.set_content("", "application/octet-stream");
    return;
  }
  // The descriptor is shared by the provider calls and closed by the releaser.
  auto file = std::shared_ptr<int>(new int(fd),
                                   [](int* p)
                                   {
                                     ::close(*p);
                                     delete p;
                                   });
  res.set_content_provider(
    static_cast<size_t>(size), "application/octet-stream",
    [file](size_t offset, size_t length, httplib::DataSink& sink)
    {
      char buf[64 * 1024];
      ssize_t n = ::pread(*file, buf, std::min(length, sizeof buf), static_cast<off_t>(offset));
      if (n <= 0)
        return false;
      return sink.write(buf, static_cast<size_t>(n));
    },
    [file](bool) {});
}

void Backupd_Server::list_objects(const httplib::Request& req, httplib::Response& res)
{
  std::shared_ptr<Object_Directory> dir = pool_directory(req.matches[1], res);
  if (!dir)
    return;
  std::vector<std::pair<std::string, uint64_t>> objects;
  int rc = dir->list(req.get_param_value("prefix"), objects);
  if (rc == ENOENT)
    rc = 0;  // a pool nothing was written to yet
  if (rc != 0)
    return answer_error(res, status_of(rc), std::string("cannot list: ") + strerror(rc));
  nlohmann::ordered_json answer;
  answer["objects"] = nlohmann::ordered_json::array();
  for (const auto& object : objects)
    answer["objects"].push_back({{"name", object.first}, {"size", object.second}});
  answer_json(res, 200, answer);
}

void Backupd_Server::delete_object(const httplib::Request& req, httplib::Response& res)
{
  std::shared_ptr<Object_Directory> dir = writable_pool_directory(req.matches[1], res);
  if (!dir)
    return;
  int rc = dir->remove(req.matches[2]);
  if (rc != 0)
    return answer_error(res, status_of(rc),
                        rc == ENOENT ? "no such object" : std::string("cannot remove: ") + strerror(rc));
  res.status = 204;
}
