#include "apps/backupd/catalog_postgres.h"

#include <cstring>
#include <ctime>
#include <libpq-fe.h>

// Schema migrations, applied in order; migration i brings the database to version
// i+1. The same schema as the SQLite catalog's: text columns compare bytewise
// (COLLATE "C", as SQLite's BINARY), so that both engines sort alike.
static const char* const PG_MIGRATIONS[] = {
  // 1: pools and backup-set records. The record is kept as committed (JSON
  // text); the columns beside it are copies for filtering and sorting.
  "CREATE TABLE pools ("
  "  uuid TEXT COLLATE \"C\" PRIMARY KEY,"
  "  name TEXT COLLATE \"C\" NOT NULL UNIQUE,"
  "  host_uuid TEXT COLLATE \"C\" NOT NULL,"
  "  url TEXT COLLATE \"C\" NOT NULL,"
  "  settings TEXT NOT NULL,"
  "  created BIGINT NOT NULL);"
  "CREATE TABLE sets ("
  "  uuid TEXT COLLATE \"C\" PRIMARY KEY,"
  "  module TEXT COLLATE \"C\" NOT NULL,"
  "  resource_uuid TEXT COLLATE \"C\" NOT NULL,"
  "  minor_resource_id TEXT COLLATE \"C\" NOT NULL,"
  "  host_uuid TEXT COLLATE \"C\" NOT NULL,"
  "  instance TEXT COLLATE \"C\" NOT NULL,"
  "  \"database\" TEXT COLLATE \"C\" NOT NULL,"
  "  pool_uuid TEXT COLLATE \"C\" NOT NULL,"
  "  rev BIGINT NOT NULL,"
  "  backup_start_time BIGINT NOT NULL,"
  "  committed BIGINT NOT NULL,"
  "  record TEXT NOT NULL);"
  "CREATE INDEX sets_by_resource ON sets(module, resource_uuid, minor_resource_id, backup_start_time);",
  // 2: finding the records on a pool (removing a pool) reads an index, not every record.
  "CREATE INDEX sets_by_pool ON sets(pool_uuid);",
};
static_assert(sizeof PG_MIGRATIONS / sizeof PG_MIGRATIONS[0] == Catalog_DB::SCHEMA_VERSION,
              "one migration per schema version");

// Every backupd migrating one database takes this lock first ("backupd1").
static const char MIGRATION_LOCK[] = "SELECT pg_advisory_xact_lock(7089066286858577969)";

namespace
{
// A statement's result, cleared when it goes.
class Pg_Result
{
public:
  // Runs `sql` with text parameters (none of them holds a NUL).
  Pg_Result(PGconn* conn, const char* sql, const std::vector<std::string>& params = {}) : conn_(conn)
  {
    std::vector<const char*> values;
    for (const auto& p : params)
      values.push_back(p.c_str());
    result_ = params.empty()
                ? PQexec(conn, sql)
                : PQexecParams(conn, sql, static_cast<int>(values.size()), nullptr, values.data(), nullptr, nullptr, 0);
  }
  ~Pg_Result() { PQclear(result_); }
  Pg_Result(const Pg_Result&) = delete;
  Pg_Result& operator=(const Pg_Result&) = delete;

  bool ok() const
  {
    ExecStatusType status = PQresultStatus(result_);
    return result_ != nullptr && (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK);
  }
  int rows() const { return PQntuples(result_); }
  std::string text(int row, int col) const
  {
    return std::string(PQgetvalue(result_, row, col), static_cast<size_t>(PQgetlength(result_, row, col)));
  }
  int64_t integer(int row, int col) const { return strtoll(PQgetvalue(result_, row, col), nullptr, 10); }
  int64_t changed() const { return strtoll(PQcmdTuples(result_), nullptr, 10); }
  std::string sqlstate() const
  {
    const char* state = result_ ? PQresultErrorField(result_, PG_DIAG_SQLSTATE) : nullptr;
    return state ? state : "";
  }

  // The failure's text, marked as passing (Catalog_DB::UNAVAILABLE) when the
  // connection is gone or the server refused for a while: connection errors
  // (class 08), a transaction chosen to fail (40), too few resources (53), the
  // server shutting down or starting (57P).
  std::string error() const
  {
    std::string state = sqlstate();
    std::string message =
      result_ && PQresultErrorMessage(result_)[0] ? PQresultErrorMessage(result_) : PQerrorMessage(conn_);
    bool transient = PQstatus(conn_) == CONNECTION_BAD || state.compare(0, 2, "08") == 0 ||
                     state.compare(0, 2, "40") == 0 || state.compare(0, 2, "53") == 0 ||
                     state.compare(0, 3, "57P") == 0;
    return transient ? std::string(Catalog_DB::UNAVAILABLE) + ": " + message : message;
  }

private:
  PGconn* conn_;
  PGresult* result_;
};
}  // namespace

Catalog_Postgres::~Catalog_Postgres()
{
  for (PGconn* conn : idle_)
    PQfinish(conn);
}

std::string Catalog_Postgres::scrub(std::string message) const
{
  for (const std::string* secret : {&url_, &password_})
  {
    if (secret->empty())
      continue;
    for (size_t at; (at = message.find(*secret)) != std::string::npos;)
      message.replace(at, secret->size(), "[hidden]");
  }
  while (!message.empty() && isspace(static_cast<unsigned char>(message.back())))
    message.pop_back();
  for (char& c : message)
    if (c == '\n')
      c = ' ';
  return message;
}

bool Catalog_Postgres::open(const Location& location, std::string& error)
{
  char* parse_error = nullptr;
  PQconninfoOption* options = PQconninfoParse(location.url.c_str(), &parse_error);
  if (options == nullptr)
  {
    url_ = location.url;
    error = "invalid catalog URL: " + scrub(parse_error ? parse_error : "out of memory");
    PQfreemem(parse_error);
    return false;
  }
  bool has_password = false;
  for (PQconninfoOption* o = options; o->keyword != nullptr; ++o)
    has_password = has_password || (strcmp(o->keyword, "password") == 0 && o->val != nullptr && o->val[0] != '\0');
  PQconninfoFree(options);
  if (has_password)
  {
    error =
      "the catalog URL must not carry a password: give it with --catalog-password-file, or let libpq "
      "find it (PGPASSFILE, ~/.pgpass)";
    return false;
  }
  url_ = location.url;
  password_ = location.password;
  max_connections_ = static_cast<size_t>(std::max(1, location.connections));
  return with_connection([this](PGconn* conn, std::string& e) { return migrate(conn, e); }, error);
}

PGconn* Catalog_Postgres::connect(std::string& error)
{
  // Later parameters override earlier ones: the URL may set its own name and
  // timeout, never the encoding or the password.
  std::vector<const char*> keys = {"application_name", "connect_timeout", "dbname", "client_encoding"};
  std::vector<const char*> values = {"backupd", "10", url_.c_str(), "UTF8"};
  if (!password_.empty())
  {
    keys.push_back("password");
    values.push_back(password_.c_str());
  }
  keys.push_back(nullptr);
  values.push_back(nullptr);
  PGconn* conn = PQconnectdbParams(keys.data(), values.data(), 1);
  if (conn != nullptr && PQstatus(conn) == CONNECTION_OK)
  {
    // The server's notices ("relation exists, skipping") are of no use in backupd's log.
    PQsetNoticeProcessor(
      conn, [](void*, const char*) {}, nullptr);
    return conn;
  }
  error = std::string(UNAVAILABLE) + ": " + scrub(conn ? PQerrorMessage(conn) : "out of memory");
  PQfinish(conn);
  return nullptr;
}

PGconn* Catalog_Postgres::acquire(std::string& error)
{
  std::unique_lock<std::mutex> guard(lock_);
  released_.wait(guard, [this] { return !idle_.empty() || open_ < max_connections_; });
  if (!idle_.empty())
  {
    PGconn* conn = idle_.back();
    idle_.pop_back();
    return conn;
  }
  ++open_;
  guard.unlock();
  PGconn* conn = connect(error);
  if (conn == nullptr)
  {
    guard.lock();
    --open_;
    released_.notify_one();
  }
  return conn;
}

void Catalog_Postgres::release(PGconn* conn)
{
  // A connection left inside a transaction (a call failed half-way) is rolled back first.
  if (PQstatus(conn) == CONNECTION_OK && PQtransactionStatus(conn) != PQTRANS_IDLE)
    PQclear(PQexec(conn, "ROLLBACK"));
  std::lock_guard<std::mutex> guard(lock_);
  if (PQstatus(conn) == CONNECTION_OK && PQtransactionStatus(conn) == PQTRANS_IDLE)
    idle_.push_back(conn);
  else
  {
    PQfinish(conn);
    --open_;
  }
  released_.notify_one();
}

bool Catalog_Postgres::with_connection(const Work& work, std::string& error)
{
  // A pooled connection may have dropped while idle (the server restarted, a
  // network cut): the call runs once more on a new connection.
  for (int attempt = 0; attempt < 2; ++attempt)
  {
    error.clear();
    PGconn* conn = acquire(error);
    if (conn == nullptr)
      return false;
    bool ok = work(conn, error);
    bool dropped = PQstatus(conn) == CONNECTION_BAD;
    release(conn);
    error = scrub(error);
    if (ok || !dropped)
      return ok;
  }
  return false;
}

bool Catalog_Postgres::migrate(PGconn* conn, std::string& error)
{
  Pg_Result begin(conn, "BEGIN");
  Pg_Result lock(conn, MIGRATION_LOCK);
  Pg_Result table(conn, "CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL)");
  Pg_Result version(conn, "SELECT version FROM schema_version");
  if (!begin.ok() || !lock.ok() || !table.ok() || !version.ok())
  {
    error = !begin.ok() ? begin.error() : !lock.ok() ? lock.error() : !table.ok() ? table.error() : version.error();
    return false;
  }
  int current = version.rows() > 0 ? static_cast<int>(version.integer(0, 0)) : 0;
  if (current > SCHEMA_VERSION)
  {
    error = "the catalog's schema version " + std::to_string(current) + " is newer than this backupd's";
    return false;
  }
  if (version.rows() == 0)
  {
    Pg_Result first(conn, "INSERT INTO schema_version (version) VALUES (0)");
    if (!first.ok())
    {
      error = first.error();
      return false;
    }
  }
  for (int v = current; v < SCHEMA_VERSION; ++v)
  {
    Pg_Result step(conn, PG_MIGRATIONS[v]);
    Pg_Result mark(conn, "UPDATE schema_version SET version = $1", {std::to_string(v + 1)});
    if (!step.ok() || !mark.ok())
    {
      error =
        "migrating the catalog to version " + std::to_string(v + 1) + ": " + (!step.ok() ? step.error() : mark.error());
      return false;
    }
  }
  Pg_Result commit(conn, "COMMIT");
  if (!commit.ok())
    error = commit.error();
  return commit.ok();
}

int Catalog_Postgres::schema_version()
{
  int version = -1;
  std::string error;
  with_connection(
    [&version](PGconn* conn, std::string& e)
    {
      Pg_Result r(conn, "SELECT version FROM schema_version");
      if (!r.ok() || r.rows() != 1)
      {
        e = r.error();
        return false;
      }
      version = static_cast<int>(r.integer(0, 0));
      return true;
    },
    error);
  return version;
}

Catalog_DB::Commit_Result Catalog_Postgres::commit_set(const nlohmann::ordered_json& record, std::string& error)
{
  std::vector<std::string> params;
  for (const char* column : SET_TEXT_COLUMNS)
    params.push_back(member(record, column));
  params.push_back(std::to_string(record.value("rev", int64_t(0))));
  params.push_back(std::to_string(record.value("backup_start_time", int64_t(0))));
  params.push_back(std::to_string(static_cast<int64_t>(time(nullptr))));
  params.push_back(record.dump());
  Commit_Result result = COMMIT_FAILED;
  // One statement, atomic on its own: of several backupd processes committing
  // one uuid at once, one inserts and the others wait for it, then compare.
  with_connection(
    [&](PGconn* conn, std::string& e)
    {
      Pg_Result insert(conn,
                       "INSERT INTO sets (uuid, module, resource_uuid, minor_resource_id, host_uuid, instance,"
                       " \"database\", pool_uuid, rev, backup_start_time, committed, record)"
                       " VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9, $10, $11, $12) ON CONFLICT (uuid) DO NOTHING",
                       params);
      if (!insert.ok())
      {
        e = insert.error();
        return false;
      }
      if (insert.changed() == 1)
      {
        result = COMMIT_CREATED;
        return true;
      }
      Pg_Result find(conn, "SELECT record FROM sets WHERE uuid = $1", {params[0]});
      if (!find.ok() || find.rows() != 1)
      {
        e = find.ok() ? "the record under uuid " + params[0] + " went while it was compared" : find.error();
        return false;
      }
      result =
        nlohmann::ordered_json::parse(find.text(0, 0), nullptr, false) == record ? COMMIT_EXISTS : COMMIT_CONFLICT;
      return true;
    },
    error);
  return result;
}

bool Catalog_Postgres::query_sets(const Catalog_Query& query, nlohmann::ordered_json& answer, std::string& error)
{
  answer = nlohmann::ordered_json::object();
  // Column names come from Catalog_Query's fixed lists, never from the request;
  // every value is a parameter.
  std::string where;
  std::vector<std::string> params;
  for (const auto& filter : query.filters)
  {
    params.push_back(filter.second);
    where += (where.empty() ? " WHERE \"" : " AND \"") + filter.first + "\" = $" + std::to_string(params.size());
  }
  std::string count_sql = "SELECT COUNT(*) FROM sets" + where;
  std::string order = query.descending ? " DESC" : " ASC";
  std::string rows_sql = "SELECT record FROM sets" + where + " ORDER BY \"" + query.sort + "\"" + order + ", uuid" +
                         order + " LIMIT $" + std::to_string(params.size() + 1) + " OFFSET $" +
                         std::to_string(params.size() + 2);
  std::vector<std::string> row_params = params;
  row_params.push_back(std::to_string(query.limit));
  row_params.push_back(std::to_string(query.offset));
  return with_connection(
    [&](PGconn* conn, std::string& e)
    {
      // The count and the page come from one snapshot.
      Pg_Result begin(conn, "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY");
      Pg_Result count(conn, count_sql.c_str(), params);
      Pg_Result rows(conn, rows_sql.c_str(), row_params);
      Pg_Result commit(conn, "COMMIT");
      // A filter value that is not valid UTF-8 (refused as text here, SQLSTATE
      // 22021) matches no stored record, as on SQLite.
      if (count.sqlstate() == "22021")
      {
        answer["total"] = 0;
        answer["rows"] = nlohmann::ordered_json::array();
        return true;
      }
      for (const Pg_Result* r : {&begin, &count, &rows, &commit})
        if (!r->ok())
        {
          e = r->error();
          return false;
        }
      answer["total"] = count.integer(0, 0);
      answer["rows"] = nlohmann::ordered_json::array();
      for (int i = 0; i < rows.rows(); ++i)
        answer["rows"].push_back(nlohmann::ordered_json::parse(rows.text(i, 0), nullptr, false));
      return true;
    },
    error);
}

bool Catalog_Postgres::delete_set(const std::string& uuid, std::string& error)
{
  bool deleted = false;
  with_connection(
    [&](PGconn* conn, std::string& e)
    {
      Pg_Result r(conn, "DELETE FROM sets WHERE uuid = $1", {uuid});
      if (!r.ok())
        e = r.error();
      deleted = r.ok() && r.changed() > 0;
      return r.ok();
    },
    error);
  return deleted;
}

bool Catalog_Postgres::add_pool(const Pool& pool, std::string& error)
{
  if (!is_valid_pool_id(pool.uuid) || !is_valid_pool_id(pool.name))
  {
    error = INVALID_POOL_ID;
    return false;
  }
  return with_connection(
    [&](PGconn* conn, std::string& e)
    {
      Pg_Result find(conn, "SELECT uuid FROM pools WHERE uuid = $1 OR name = $2", {pool.uuid, pool.name});
      if (find.ok() && find.rows() > 0)
      {
        e = find.text(0, 0) == pool.uuid ? "a pool with uuid " + pool.uuid + " exists"
                                         : "a pool named " + pool.name + " exists";
        return false;
      }
      Pg_Result insert(conn,
                       "INSERT INTO pools (uuid, name, host_uuid, url, settings, created)"
                       " VALUES ($1, $2, $3, $4, $5, $6)",
                       {pool.uuid, pool.name, pool.host_uuid, pool.url, pool.settings.dump(),
                        std::to_string(static_cast<int64_t>(time(nullptr)))});
      if (!insert.ok())
        // Another process added the same uuid or name in between.
        e = insert.sqlstate() == "23505" ? "a pool with uuid " + pool.uuid + " or named " + pool.name + " exists"
                                         : insert.error();
      return insert.ok();
    },
    error);
}

static const char POOL_COLUMNS[] = "SELECT uuid, name, host_uuid, url, settings FROM pools";

bool Catalog_Postgres::get_pool(const std::string& uuid, Pool& pool, std::string& error)
{
  bool found = false;
  with_connection(
    [&](PGconn* conn, std::string& e)
    {
      Pg_Result r(conn, (std::string(POOL_COLUMNS) + " WHERE uuid = $1").c_str(), {uuid});
      if (!r.ok())
      {
        e = r.error();
        return false;
      }
      found = r.rows() == 1;
      if (found)
        pool = pool_from(r.text(0, 0), r.text(0, 1), r.text(0, 2), r.text(0, 3), r.text(0, 4));
      return true;
    },
    error);
  return found;
}

Catalog_DB::Remove_Result Catalog_Postgres::remove_pool(const std::string& name, Pool& pool, std::string& error)
{
  Remove_Result result = REMOVE_FAILED;
  with_connection(
    [&](PGconn* conn, std::string& e)
    {
      // Commits wait while the pool's records are counted and the pool goes, so
      // that no record lands on a pool being removed.
      Pg_Result begin(conn, "BEGIN");
      Pg_Result lock(conn, "LOCK TABLE sets IN SHARE MODE");
      Pg_Result find(conn, (std::string(POOL_COLUMNS) + " WHERE name = $1 FOR UPDATE").c_str(), {name});
      for (const Pg_Result* r : {&begin, &lock, &find})
        if (!r->ok())
        {
          e = r->error();
          return false;
        }
      if (find.rows() == 0)
      {
        result = REMOVE_NOT_FOUND;
        return true;
      }
      pool = pool_from(find.text(0, 0), find.text(0, 1), find.text(0, 2), find.text(0, 3), find.text(0, 4));
      Pg_Result used(conn, "SELECT COUNT(*) FROM sets WHERE pool_uuid = $1", {pool.uuid});
      if (used.ok() && used.integer(0, 0) > 0)
      {
        e = std::to_string(used.integer(0, 0)) + " catalog records are on the pool";
        result = REMOVE_IN_USE;
        return true;
      }
      Pg_Result remove(conn, "DELETE FROM pools WHERE uuid = $1", {pool.uuid});
      Pg_Result commit(conn, "COMMIT");
      for (const Pg_Result* r : {&used, &remove, &commit})
        if (!r->ok())
        {
          e = r->error();
          return false;
        }
      result = REMOVED;
      return true;
    },
    error);
  return result;
}

bool Catalog_Postgres::list_pools(std::vector<Pool>& pools, std::string& error)
{
  pools.clear();
  return with_connection(
    [&](PGconn* conn, std::string& e)
    {
      Pg_Result r(conn, (std::string(POOL_COLUMNS) + " ORDER BY name").c_str());
      if (!r.ok())
      {
        e = r.error();
        return false;
      }
      for (int i = 0; i < r.rows(); ++i)
        pools.push_back(pool_from(r.text(i, 0), r.text(i, 1), r.text(i, 2), r.text(i, 3), r.text(i, 4)));
      return true;
    },
    error);
}
