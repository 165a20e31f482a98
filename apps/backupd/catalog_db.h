#ifndef APPS_BACKUPD_CATALOG_DB_H
#define APPS_BACKUPD_CATALOG_DB_H

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "apps/backupd/catalog_query.h"

// backupd's catalog: the pools and the backup-set records. Two engines keep it
// behind this interface: an SQLite file (Catalog_Sqlite, the default, one
// backupd per file) and a PostgreSQL database (Catalog_Postgres, which several
// backupd processes may serve at once). Both hold one schema, versioned and
// migrated forward when opened, and answer every call alike. Every call is safe
// from any thread.
class Catalog_DB
{
public:
  // The schema version this backupd writes; opening a newer catalog fails.
  static constexpr int SCHEMA_VERSION = 2;
  // Errors that start with this text are failures that may pass (the database
  // is unreachable, a connection dropped, a transaction was chosen to fail):
  // the request is worth trying again.
  static const char UNAVAILABLE[];

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

  // Where the catalog is and how to log in to it.
  struct Location
  {
    // "sqlite:PATH", or a PostgreSQL URL "postgresql://[user@]host[:port]/dbname[?param=value...]"
    // ("postgres://" too) that must not carry a password.
    std::string url;
    // The PostgreSQL password; empty: libpq finds one itself (PGPASSWORD, PGPASSFILE, ~/.pgpass).
    std::string password;
    // Connections a PostgreSQL catalog keeps open at most.
    int connections = 4;
  };

  virtual ~Catalog_DB() = default;
  Catalog_DB(const Catalog_DB&) = delete;
  Catalog_DB& operator=(const Catalog_DB&) = delete;

  // Opens (creating when missing) and migrates the catalog at `location`; null
  // with `error` when it cannot. `error` never holds the password.
  static std::unique_ptr<Catalog_DB> open(const Location& location, std::string& error);
  // True when the URL names a PostgreSQL catalog.
  static bool is_postgres_url(const std::string& url);
  // True when `error` tells of a failure that may pass (see UNAVAILABLE).
  static bool is_transient(const std::string& error);

  // -1 when it cannot be read.
  virtual int schema_version() = 0;

  // `record` must already be checked as a backup-set record. Committing is
  // atomic and idempotent by the record's uuid, also between processes.
  virtual Commit_Result commit_set(const nlohmann::ordered_json& record, std::string& error) = 0;
  // Answers {"total": matching records, "rows": [records of the page]}.
  virtual bool query_sets(const Catalog_Query& query, nlohmann::ordered_json& answer, std::string& error) = 0;

  // True when it was deleted; false with an empty `error` when there was none.
  virtual bool delete_set(const std::string& uuid, std::string& error) = 0;

  // Pool uuids and names are 1 to 64 letters, digits, ".", "_" or "-", starting
  // with a letter or digit: they go unencoded into directory names and URLs.
  static bool is_valid_pool_id(const std::string& text);
  // Refuses an invalid or already used uuid or name, leaving the catalog as it was.
  virtual bool add_pool(const Pool& pool, std::string& error) = 0;
  // Removes the pool named `name` (returned in `pool`) from the catalog, unless
  // catalog records are on it; its directory is the caller's to remove.
  virtual Remove_Result remove_pool(const std::string& name, Pool& pool, std::string& error) = 0;
  // False with an empty `error` when there is no such pool.
  virtual bool get_pool(const std::string& uuid, Pool& pool, std::string& error) = 0;
  virtual bool list_pools(std::vector<Pool>& pools, std::string& error) = 0;

protected:
  Catalog_DB() = default;

  // Shared by the engines.
  static const char INVALID_POOL_ID[];
  static std::string member(const nlohmann::ordered_json& record, const char* key);
  // The record's columns kept beside it, in this order.
  static const char* const SET_TEXT_COLUMNS[8];
  static Pool pool_from(std::string uuid, std::string name, std::string host_uuid, std::string url,
                        const std::string& settings);
};

#endif
