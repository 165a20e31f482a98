#ifndef APPS_BACKUPD_CATALOG_POSTGRES_H
#define APPS_BACKUPD_CATALOG_POSTGRES_H

#include <condition_variable>
#include <functional>
#include <mutex>

#include "apps/backupd/catalog_db.h"

struct pg_conn;

// The catalog in a PostgreSQL database, through libpq. Several backupd processes
// may serve one database at once: commits are single statements (insert unless
// the uuid is there, then compare), migrations run under a transaction-scoped
// advisory lock, and the schema version is kept in the table schema_version.
//
// Connections are pooled (at most Location::connections, made as needed, shared
// by the worker threads). A call whose connection turns out to have dropped runs
// once more on a new connection; every call may be repeated safely. Failures
// that may pass are reported with Catalog_DB::UNAVAILABLE in front. The password
// and the URL are never part of an error text.
class Catalog_Postgres : public Catalog_DB
{
public:
  Catalog_Postgres() = default;
  ~Catalog_Postgres() override;

  // Refuses a URL that carries a password; connects and migrates the schema.
  bool open(const Location& location, std::string& error);

  int schema_version() override;
  Commit_Result commit_set(const nlohmann::ordered_json& record, std::string& error) override;
  bool query_sets(const Catalog_Query& query, nlohmann::ordered_json& answer, std::string& error) override;
  bool delete_set(const std::string& uuid, std::string& error) override;
  bool add_pool(const Pool& pool, std::string& error) override;
  Remove_Result remove_pool(const std::string& name, Pool& pool, std::string& error) override;
  bool get_pool(const std::string& uuid, Pool& pool, std::string& error) override;
  bool list_pools(std::vector<Pool>& pools, std::string& error) override;

private:
  // Work on one connection: false with `error` when it failed.
  using Work = std::function<bool(pg_conn* conn, std::string& error)>;
  bool with_connection(const Work& work, std::string& error);
  pg_conn* acquire(std::string& error);
  void release(pg_conn* conn);
  pg_conn* connect(std::string& error);
  bool migrate(pg_conn* conn, std::string& error);
  // The error text of a failed call, without the URL or the password.
  std::string scrub(std::string message) const;

  std::string url_;
  std::string password_;
  size_t max_connections_ = 4;
  std::mutex lock_;
  std::condition_variable released_;
  std::vector<pg_conn*> idle_;
  size_t open_ = 0;  // connections made and not closed, idle or in use
};

#endif
