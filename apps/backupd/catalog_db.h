#ifndef APPS_BACKUPD_CATALOG_DB_H
#define APPS_BACKUPD_CATALOG_DB_H

#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "apps/backupd/catalog_query.h"

struct sqlite3;

// backupd's catalog: one SQLite file (created mode 0600) (WAL journal, synchronous FULL, so that
// whatever was acknowledged survives a crash) holding the pools and the
// backup-set records. The schema is versioned with SQLite's user_version and
// migrated forward when the file is opened. One object per process; every call
// is serialised on one connection, so it is safe from any thread.
class Catalog_DB
{
public:
  // Outcomes of commit_set.
  enum Commit_Result
  {
    COMMIT_CREATED,
    COMMIT_EXISTS,    // the same record was committed before
    COMMIT_CONFLICT,  // another record holds that uuid
    COMMIT_FAILED,
  };

  // Outcomes of remove_pool.
  enum Remove_Result
  {
    REMOVED,
    REMOVE_NOT_FOUND,
    REMOVE_IN_USE,  // catalog records are on the pool
    REMOVE_FAILED,
  };

  struct Pool
  {
    std::string uuid;
    std::string name;
    std::string host_uuid;
    std::string url;  // empty: served by this backupd under /d2/storage/<uuid>
    nlohmann::ordered_json settings = nlohmann::ordered_json::object();
  };

  Catalog_DB() = default;
  ~Catalog_DB();
  Catalog_DB(const Catalog_DB&) = delete;
  Catalog_DB& operator=(const Catalog_DB&) = delete;

  // Opens (creating when missing) and migrates the catalog file.
  bool open(const std::string& path, std::string& error);
  int schema_version();

  // `record` must already be checked as a backup-set record.
  Commit_Result commit_set(const nlohmann::ordered_json& record, std::string& error);
  bool query_sets(const Catalog_Query& query, nlohmann::ordered_json& answer, std::string& error);

  // True when it was deleted; false with an empty `error` when there was none.
  bool delete_set(const std::string& uuid, std::string& error);

  // Pool uuids and names are 1 to 64 letters, digits, ".", "_" or "-", starting
  // with a letter or digit: they go unencoded into directory names and URLs.
  static bool is_valid_pool_id(const std::string& text);
  // Refuses an invalid or already used uuid or name, leaving the catalog as it was.
  bool add_pool(const Pool& pool, std::string& error);
  // Removes the pool named `name` (returned in `pool`) from the catalog, unless
  // catalog records are on it; its directory is the caller's to remove.
  Remove_Result remove_pool(const std::string& name, Pool& pool, std::string& error);
  // False with an empty `error` when there is no such pool.
  bool get_pool(const std::string& uuid, Pool& pool, std::string& error);
  bool list_pools(std::vector<Pool>& pools, std::string& error);

private:
  bool exec(const char* sql, std::string& error);
  bool migrate(std::string& error);

  std::mutex lock_;
  sqlite3* db_ = nullptr;
};

#endif
