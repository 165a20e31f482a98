#include "apps/backupd/catalog_sqlite.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

// Schema migrations, applied in order; migration i brings the file to version i+1.
static const char* const MIGRATIONS[] = {
  // 1: pools and backup-set records. The record is kept as committed (JSON
  // text); the columns beside it are copies for filtering and sorting.
  "CREATE TABLE pools ("
  "  uuid TEXT PRIMARY KEY,"
  "  name TEXT NOT NULL UNIQUE,"
  "  host_uuid TEXT NOT NULL,"
  "  url TEXT NOT NULL,"
  "  settings TEXT NOT NULL,"
  "  created INTEGER NOT NULL);"
  "CREATE TABLE sets ("
  "  uuid TEXT PRIMARY KEY,"
  "  module TEXT NOT NULL,"
  "  resource_uuid TEXT NOT NULL,"
  "  minor_resource_id TEXT NOT NULL,"
  "  host_uuid TEXT NOT NULL,"
  "  instance TEXT NOT NULL,"
  "  \"database\" TEXT NOT NULL,"
  "  pool_uuid TEXT NOT NULL,"
  "  rev INTEGER NOT NULL,"
  "  backup_start_time INTEGER NOT NULL,"
  "  committed INTEGER NOT NULL,"
  "  record TEXT NOT NULL);"
  "CREATE INDEX sets_by_resource ON sets(module, resource_uuid, minor_resource_id, backup_start_time);",
  // 2: finding the records on a pool (removing a pool) reads an index, not every record.
  "CREATE INDEX sets_by_pool ON sets(pool_uuid);",
};
static_assert(sizeof MIGRATIONS / sizeof MIGRATIONS[0] == Catalog_DB::SCHEMA_VERSION,
              "one migration per schema version");

namespace
{
// A prepared statement that finalises itself.
class Sqlite_Statement
{
public:
  Sqlite_Statement(sqlite3* db, const std::string& sql) { sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt_, nullptr); }
  ~Sqlite_Statement() { sqlite3_finalize(stmt_); }
  bool ok() const { return stmt_ != nullptr; }
  sqlite3_stmt* get() { return stmt_; }
  // With its real length: a value is never cut short at an embedded NUL.
  void bind(int i, const std::string& v)
  {
    sqlite3_bind_text(stmt_, i, v.data(), static_cast<int>(std::min<size_t>(v.size(), INT_MAX)), SQLITE_TRANSIENT);
  }
  void bind(int i, int64_t v) { sqlite3_bind_int64(stmt_, i, v); }
  int step() { return sqlite3_step(stmt_); }
  std::string text(int col)
  {
    const unsigned char* t = sqlite3_column_text(stmt_, col);
    return t ? std::string(reinterpret_cast<const char*>(t), static_cast<size_t>(sqlite3_column_bytes(stmt_, col)))
             : std::string();
  }
  int64_t integer(int col) { return sqlite3_column_int64(stmt_, col); }

private:
  sqlite3_stmt* stmt_ = nullptr;
};
}  // namespace

Catalog_Sqlite::~Catalog_Sqlite()
{
  if (db_ != nullptr)
    sqlite3_close(db_);
}

bool Catalog_Sqlite::exec(const char* sql, std::string& error)
{
  char* message = nullptr;
  if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) == SQLITE_OK)
    return true;
  error = message ? message : sqlite3_errmsg(db_);
  sqlite3_free(message);
  return false;
}

// The catalog holds every customer's backup records: it is created readable by
// its owner only (SQLite gives its -wal and -shm files the same mode), and a file
// left readable by others is narrowed.
static bool make_private(const std::string& path, std::string& error)
{
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 || fchmod(fd, 0600) != 0)
  {
    error = "cannot create " + path + ": " + strerror(errno);
    if (fd >= 0)
      ::close(fd);
    return false;
  }
  ::close(fd);
  for (const char* suffix : {"-wal", "-shm"})
    chmod((path + suffix).c_str(), 0600);
  return true;
}

bool Catalog_Sqlite::open(const std::string& path, std::string& error)
{
  std::lock_guard<std::mutex> guard(lock_);
  if (!make_private(path, error))
    return false;
  if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                      nullptr) != SQLITE_OK)
  {
    error = db_ ? sqlite3_errmsg(db_) : "cannot open the catalog";
    return false;
  }
  sqlite3_busy_timeout(db_, 10000);
  return exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA foreign_keys=ON;", error) && migrate(error);
}

int Catalog_Sqlite::schema_version()
{
  std::lock_guard<std::mutex> guard(lock_);
  Sqlite_Statement s(db_, "PRAGMA user_version");
  return s.ok() && s.step() == SQLITE_ROW ? static_cast<int>(s.integer(0)) : -1;
}

bool Catalog_Sqlite::migrate(std::string& error)
{
  const int latest = static_cast<int>(sizeof MIGRATIONS / sizeof MIGRATIONS[0]);
  if (!exec("BEGIN IMMEDIATE", error))
    return false;
  Sqlite_Statement version(db_, "PRAGMA user_version");
  int current = version.ok() && version.step() == SQLITE_ROW ? static_cast<int>(version.integer(0)) : 0;
  if (current > latest)
  {
    exec("ROLLBACK", error);
    error = "the catalog's schema version " + std::to_string(current) + " is newer than this backupd's";
    return false;
  }
  for (int v = current; v < latest; ++v)
  {
    std::string set_version = "PRAGMA user_version = " + std::to_string(v + 1);
    if (!exec(MIGRATIONS[v], error) || !exec(set_version.c_str(), error))
    {
      std::string ignored;
      exec("ROLLBACK", ignored);
      return false;
    }
  }
  return exec("COMMIT", error);
}

Catalog_DB::Commit_Result Catalog_Sqlite::commit_set(const nlohmann::ordered_json& record, std::string& error)
{
  std::lock_guard<std::mutex> guard(lock_);
  std::string uuid = member(record, "uuid");
  if (!exec("BEGIN IMMEDIATE", error))
    return COMMIT_FAILED;
  Sqlite_Statement find(db_, "SELECT record FROM sets WHERE uuid = ?");
  find.bind(1, uuid);
  int rc = find.step();
  if (rc == SQLITE_ROW)
  {
    nlohmann::ordered_json existing = nlohmann::ordered_json::parse(find.text(0), nullptr, false);
    exec("ROLLBACK", error);
    return existing == record ? COMMIT_EXISTS : COMMIT_CONFLICT;
  }
  Sqlite_Statement insert(
    db_,
    "INSERT INTO sets (uuid, module, resource_uuid, minor_resource_id, host_uuid, instance, \"database\","
    " pool_uuid, rev, backup_start_time, committed, record)"
    " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
  int i = 1;
  for (const char* column : SET_TEXT_COLUMNS)
    insert.bind(i++, member(record, column));
  insert.bind(i++, record.value("rev", int64_t(0)));
  insert.bind(i++, record.value("backup_start_time", int64_t(0)));
  insert.bind(i++, static_cast<int64_t>(time(nullptr)));
  insert.bind(i++, record.dump());
  if (rc != SQLITE_DONE || !insert.ok() || insert.step() != SQLITE_DONE)
  {
    error = sqlite3_errmsg(db_);
    std::string ignored;
    exec("ROLLBACK", ignored);
    return COMMIT_FAILED;
  }
  return exec("COMMIT", error) ? COMMIT_CREATED : COMMIT_FAILED;
}

bool Catalog_Sqlite::query_sets(const Catalog_Query& query, nlohmann::ordered_json& answer, std::string& error)
{
  std::lock_guard<std::mutex> guard(lock_);
  // Column names come from Catalog_Query's fixed lists, never from the request.
  std::string where;
  for (const auto& filter : query.filters)
    where += (where.empty() ? " WHERE \"" : " AND \"") + filter.first + "\" = ?";
  Sqlite_Statement count(db_, "SELECT COUNT(*) FROM sets" + where);
  std::string order = query.descending ? " DESC" : " ASC";
  Sqlite_Statement rows(db_, "SELECT record FROM sets" + where + " ORDER BY \"" + query.sort + "\"" + order + ", uuid" +
                               order + " LIMIT ? OFFSET ?");
  if (!count.ok() || !rows.ok())
  {
    error = sqlite3_errmsg(db_);
    return false;
  }
  int i = 1;
  for (const auto& filter : query.filters)
  {
    count.bind(i, filter.second);
    rows.bind(i++, filter.second);
  }
  rows.bind(i++, query.limit);
  rows.bind(i++, query.offset);
  if (count.step() != SQLITE_ROW)
  {
    error = sqlite3_errmsg(db_);
    return false;
  }
  answer = nlohmann::ordered_json::object();
  answer["total"] = count.integer(0);
  answer["rows"] = nlohmann::ordered_json::array();
  int rc;
  while ((rc = rows.step()) == SQLITE_ROW)
    answer["rows"].push_back(nlohmann::ordered_json::parse(rows.text(0), nullptr, false));
  if (rc != SQLITE_DONE)
  {
    error = sqlite3_errmsg(db_);
    return false;
  }
  return true;
}

bool Catalog_Sqlite::delete_set(const std::string& uuid, std::string& error)
{
  std::lock_guard<std::mutex> guard(lock_);
  error.clear();
  Sqlite_Statement s(db_, "DELETE FROM sets WHERE uuid = ?");
  s.bind(1, uuid);
  if (!s.ok() || s.step() != SQLITE_DONE)
  {
    error = sqlite3_errmsg(db_);
    return false;
  }
  return sqlite3_changes(db_) > 0;
}

bool Catalog_Sqlite::add_pool(const Pool& pool, std::string& error)
{
  std::lock_guard<std::mutex> guard(lock_);
  if (!is_valid_pool_id(pool.uuid) || !is_valid_pool_id(pool.name))
  {
    error = INVALID_POOL_ID;
    return false;
  }
  Sqlite_Statement find(db_, "SELECT uuid, name FROM pools WHERE uuid = ? OR name = ?");
  find.bind(1, pool.uuid);
  find.bind(2, pool.name);
  if (find.ok() && find.step() == SQLITE_ROW)
  {
    error =
      find.text(0) == pool.uuid ? "a pool with uuid " + pool.uuid + " exists" : "a pool named " + pool.name + " exists";
    return false;
  }
  Sqlite_Statement insert(
    db_, "INSERT INTO pools (uuid, name, host_uuid, url, settings, created) VALUES (?, ?, ?, ?, ?, ?)");
  insert.bind(1, pool.uuid);
  insert.bind(2, pool.name);
  insert.bind(3, pool.host_uuid);
  insert.bind(4, pool.url);
  insert.bind(5, pool.settings.dump());
  insert.bind(6, static_cast<int64_t>(time(nullptr)));
  if (!insert.ok() || insert.step() != SQLITE_DONE)
  {
    error = sqlite3_errmsg(db_);
    return false;
  }
  return true;
}

bool Catalog_Sqlite::get_pool(const std::string& uuid, Pool& pool, std::string& error)
{
  std::lock_guard<std::mutex> guard(lock_);
  error.clear();
  Sqlite_Statement s(db_, "SELECT uuid, name, host_uuid, url, settings FROM pools WHERE uuid = ?");
  s.bind(1, uuid);
  int rc = s.step();
  if (rc == SQLITE_ROW)
  {
    pool = pool_from(s.text(0), s.text(1), s.text(2), s.text(3), s.text(4));
    return true;
  }
  if (rc != SQLITE_DONE)
    error = sqlite3_errmsg(db_);
  return false;
}

Catalog_DB::Remove_Result Catalog_Sqlite::remove_pool(const std::string& name, Pool& pool, std::string& error)
{
  std::lock_guard<std::mutex> guard(lock_);
  if (!exec("BEGIN IMMEDIATE", error))
    return REMOVE_FAILED;
  Remove_Result result = REMOVE_FAILED;
  Sqlite_Statement find(db_, "SELECT uuid, name, host_uuid, url, settings FROM pools WHERE name = ?");
  find.bind(1, name);
  int rc = find.step();
  if (rc == SQLITE_DONE)
    result = REMOVE_NOT_FOUND;
  else if (rc == SQLITE_ROW)
  {
    pool = pool_from(find.text(0), find.text(1), find.text(2), find.text(3), find.text(4));
    // Records on the pool describe backups whose files are in it: removing the
    // pool under them would leave the catalog pointing at nothing.
    Sqlite_Statement used(db_, "SELECT COUNT(*) FROM sets WHERE pool_uuid = ?");
    used.bind(1, pool.uuid);
    Sqlite_Statement remove(db_, "DELETE FROM pools WHERE uuid = ?");
    remove.bind(1, pool.uuid);
    if (used.ok() && used.step() == SQLITE_ROW && used.integer(0) > 0)
    {
      error = std::to_string(used.integer(0)) + " catalog records are on the pool";
      result = REMOVE_IN_USE;
    }
    else if (used.ok() && remove.ok() && remove.step() == SQLITE_DONE)
      result = REMOVED;
  }
  if (result == REMOVE_FAILED && error.empty())
    error = sqlite3_errmsg(db_);
  std::string ignored;
  if (result != REMOVED)
    exec("ROLLBACK", ignored);
  else if (!exec("COMMIT", error))
    result = REMOVE_FAILED;
  return result;
}

bool Catalog_Sqlite::list_pools(std::vector<Pool>& pools, std::string& error)
{
  std::lock_guard<std::mutex> guard(lock_);
  pools.clear();
  Sqlite_Statement s(db_, "SELECT uuid, name, host_uuid, url, settings FROM pools ORDER BY name");
  int rc;
  while ((rc = s.step()) == SQLITE_ROW)
    pools.push_back(pool_from(s.text(0), s.text(1), s.text(2), s.text(3), s.text(4)));
  if (rc != SQLITE_DONE)
  {
    error = sqlite3_errmsg(db_);
    return false;
  }
  return true;
}
