#ifndef APPS_BACKUPD_CATALOG_SQLITE_H
#define APPS_BACKUPD_CATALOG_SQLITE_H

#include <mutex>

#include "apps/backupd/catalog_db.h"

struct sqlite3;

// The catalog in one SQLite file (created mode 0600) (WAL journal, synchronous
// FULL, so that whatever was acknowledged survives a crash). The schema version
// is SQLite's user_version. Every call is serialised on one connection.
class Catalog_Sqlite : public Catalog_DB
{
public:
  Catalog_Sqlite() = default;
  ~Catalog_Sqlite() override;

  // Opens (creating when missing) and migrates the catalog file.
  bool open(const std::string& path, std::string& error);

  int schema_version() override;
  Commit_Result commit_set(const nlohmann::ordered_json& record, std::string& error) override;
  bool query_sets(const Catalog_Query& query, nlohmann::ordered_json& answer, std::string& error) override;
  bool delete_set(const std::string& uuid, std::string& error) override;
  bool add_pool(const Pool& pool, std::string& error) override;
  Remove_Result remove_pool(const std::string& name, Pool& pool, std::string& error) override;
  bool get_pool(const std::string& uuid, Pool& pool, std::string& error) override;
  bool list_pools(std::vector<Pool>& pools, std::string& error) override;

private:
  bool exec(const char* sql, std::string& error);
  bool migrate(std::string& error);

  std::mutex lock_;
  sqlite3* db_ = nullptr;
};

#endif
