#ifndef APPS_BACKUPD_BACKUPD_SERVER_H
#define APPS_BACKUPD_BACKUPD_SERVER_H

#include <httplib.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "apps/backupd/access_keys.h"
#include "apps/backupd/backupd_http_server.h"
#include "apps/backupd/catalog_db.h"
#include "host/storage/object_directory.h"

// backupd's HTTP front: the catalog resource, pool information and pool storage
// (see docs/backupd.md for the API). Every request must carry an accepted
// access key in "X-Backupd-Access-Key", or gets 401 before anything is read or
// written. Requests run on a pool of worker threads; connections are kept alive
// for many requests, and a connection whose request body is refused unread is
// closed (see Backupd_Http_Server). Request bodies other than object uploads are
// limited (MAX_RECORD_BYTES, answered 413); uploads are streamed, of any size.
// Every error answer is a JSON object {"error": text}.
class Backupd_Server
{
public:
  // The largest catalog record accepted.
  static const size_t MAX_RECORD_BYTES = 1024 * 1024;
  // Requests one connection may carry, and how long it may stay idle between them.
  static const size_t KEEP_ALIVE_REQUESTS = 100000;
  static const time_t KEEP_ALIVE_IDLE_SECONDS = 30;

  Backupd_Server(const std::string& data_dir, Catalog_DB& catalog, const Access_Keys& keys, int threads);

  // The directory of a pool's objects under the data directory.
  static std::string pool_root(const std::string& data_dir, const std::string& pool_uuid);

  // Binds to host:port (port 0: any free port); false when it cannot.
  bool bind(const std::string& host, int port, int& bound_port);
  // Serves until stop(); false when the server could not run.
  bool run();
  void stop();

private:
  void install_routes();
  bool authorised(const httplib::Request& req, httplib::Response& res) const;
  // Checks how a request's body is framed and whether its route takes one; false
  // with the answer set when it is refused.
  bool body_allowed(const httplib::Request& req, httplib::Response& res) const;
  // The pool's object directory; null (and the answer set) when there is no pool.
  std::shared_ptr<Object_Directory> pool_directory(const std::string& uuid, httplib::Response& res,
                                                   Catalog_DB::Pool* pool = nullptr);
  // As pool_directory, for a change: null with 403 when the pool is read-only.
  std::shared_ptr<Object_Directory> writable_pool_directory(const std::string& uuid, httplib::Response& res);

  void get_sets(const httplib::Request& req, httplib::Response& res);
  void post_set(const httplib::Request& req, httplib::Response& res, const httplib::ContentReader& reader);
  void delete_set(const httplib::Request& req, httplib::Response& res);
  void get_pool(const httplib::Request& req, httplib::Response& res);
  void list_pools(const httplib::Request& req, httplib::Response& res);
  void put_object(const httplib::Request& req, httplib::Response& res, const httplib::ContentReader& reader);
  void get_object(const httplib::Request& req, httplib::Response& res);
  void list_objects(const httplib::Request& req, httplib::Response& res);
  void delete_object(const httplib::Request& req, httplib::Response& res);

  std::string data_dir_;
  Catalog_DB& catalog_;
  const Access_Keys& keys_;
  int threads_;
  Backupd_Http_Server server_;
  std::atomic<bool> finished_{false};
  std::mutex pools_lock_;
  std::map<std::string, std::shared_ptr<Object_Directory>> pools_;
};

#endif
