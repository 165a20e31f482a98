#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <sqlite3.h>

#include "apps/backupd/catalog_db.h"
#include "support/postgres_cluster.h"

using json = nlohmann::ordered_json;

namespace
{
// One fresh catalog per test, on the engine the test runs for: a new SQLite file,
// or a new database in the program's PostgreSQL cluster.
class Catalog_Engine_Test : public ::testing::TestWithParam<std::string>
{
protected:
  void SetUp() override
  {
    if (GetParam() == "sqlite")
    {
      char tmpl[] = "/tmp/catalog_engine_XXXXXX";
      dir_ = mkdtemp(tmpl);
      location_.url = "sqlite:" + dir_ + "/catalog.db";
      return;
    }
    std::string why, error;
    bool absent = false;
    cluster_ = Postgres_Cluster::shared(why, absent);
    if (cluster_ == nullptr && absent)
      GTEST_SKIP() << why;
    ASSERT_NE(cluster_, nullptr) << why;
    database_ = cluster_->create_database(error);
    ASSERT_FALSE(database_.empty()) << error;
    location_.url = cluster_->url(database_);
    location_.password = cluster_->password();
  }

  void TearDown() override
  {
    catalog_.reset();
    if (!dir_.empty())
    {
      ASSERT_EQ(system(("rm -rf '" + dir_ + "'").c_str()), 0);
    }
  }

  Catalog_DB& open()
  {
    std::string error;
    catalog_ = Catalog_DB::open(location_, error);
    EXPECT_TRUE(catalog_) << error;
    if (!catalog_)
      throw std::runtime_error(error);
    return *catalog_;
  }

  // SQL on the catalog's database behind the catalog's back.
  bool run_sql(const std::string& sql)
  {
    std::string error;
    if (cluster_ != nullptr)
      return cluster_->run_sql(database_, sql, error);
    sqlite3* db = nullptr;
    bool ok = sqlite3_open((dir_ + "/catalog.db").c_str(), &db) == SQLITE_OK &&
              sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_close(db);
    return ok;
  }

  static json record(const std::string& uuid, const std::string& resource, int rev, int64_t start,
                     const std::string& module = "exchange")
  {
    json r;
    r["uuid"] = uuid;
    r["module"] = module;
    r["resource_uuid"] = resource;
    r["minor_resource_id"] = "def-1";
    r["host_uuid"] = "host-1";
    r["pool_uuid"] = "pool-a";
    r["rev"] = rev;
    r["backup_start_time"] = start;
    return r;
  }

  // The uuids of a query's page, after its total.
  static std::vector<std::string> ask(Catalog_DB& catalog, const std::multimap<std::string, std::string>& params)
  {
    Catalog_Query query;
    std::string error;
    json answer;
    EXPECT_TRUE(query.parse(params, error)) << error;
    EXPECT_TRUE(catalog.query_sets(query, answer, error)) << error;
    std::vector<std::string> out = {std::to_string(answer.value("total", -1))};
    for (const auto& row : answer["rows"])
      out.push_back(row["uuid"]);
    return out;
  }

  Catalog_DB::Location location_;
  std::unique_ptr<Catalog_DB> catalog_;
  std::string dir_;
  Postgres_Cluster* cluster_ = nullptr;
  std::string database_;
};

using V = std::vector<std::string>;
}  // namespace

INSTANTIATE_TEST_SUITE_P(Engines, Catalog_Engine_Test, ::testing::Values("sqlite", "postgres"));

// Both engines give the same answers: text sorts bytewise ("R" < "r" < "ä"), ties
// go by uuid, and a filter value that is not UTF-8 matches nothing.
TEST_P(Catalog_Engine_Test, FiltersSortsAndPagesAlike)
{
  Catalog_DB& catalog = open();
  std::string error;
  for (const json& r : {record("s1", "r", 1, 100), record("s2", "r", 2, 300), record("s3", "R", 3, 200),
                        record("s4", "\xc3\xa4", 4, 200), record("s5", "r", 5, 50, "other")})
    ASSERT_EQ(catalog.commit_set(r, error), Catalog_DB::COMMIT_CREATED) << error;

  EXPECT_EQ(ask(catalog, {}), V({"5", "s5", "s1", "s3", "s4", "s2"}));
  EXPECT_EQ(ask(catalog, {{"order", "desc"}}), V({"5", "s2", "s4", "s3", "s1", "s5"}));
  EXPECT_EQ(ask(catalog, {{"sort", "resource_uuid"}}), V({"5", "s3", "s1", "s2", "s5", "s4"}));
  EXPECT_EQ(ask(catalog, {{"resource_uuid", "r"}, {"sort", "rev"}, {"order", "desc"}, {"offset", "1"}, {"limit", "1"}}),
            V({"3", "s2"}));
  EXPECT_EQ(ask(catalog, {{"module", "exchange"}, {"resource_uuid", "r"}}), V({"2", "s1", "s2"}));
  EXPECT_EQ(ask(catalog, {{"offset", "10"}}), V({"5"}));
  EXPECT_EQ(ask(catalog, {{"limit", "0"}}), V({"5"}));
  EXPECT_EQ(ask(catalog, {{"resource_uuid", "\xff"}}), V({"0"}));
  EXPECT_EQ(ask(catalog, {{"resource_uuid", "\xc0\x80"}}), V({"0"}));  // an overlong NUL
  EXPECT_EQ(ask(catalog, {{"resource_uuid", "r' OR '1'='1"}}), V({"0"}));

  Catalog_Query by_uuid;
  json answer;
  ASSERT_TRUE(by_uuid.parse({{"uuid", "s4"}}, error));
  ASSERT_TRUE(catalog.query_sets(by_uuid, answer, error)) << error;
  EXPECT_EQ(answer["rows"][0], record("s4", "\xc3\xa4", 4, 200));  // kept as committed
}

TEST_P(Catalog_Engine_Test, CommitsAreIdempotentByUuid)
{
  Catalog_DB& catalog = open();
  std::string error;
  EXPECT_EQ(catalog.commit_set(record("a", "r", 1, 10), error), Catalog_DB::COMMIT_CREATED);
  EXPECT_EQ(catalog.commit_set(record("a", "r", 1, 10), error), Catalog_DB::COMMIT_EXISTS);
  EXPECT_EQ(catalog.commit_set(record("a", "r", 2, 10), error), Catalog_DB::COMMIT_CONFLICT);
  EXPECT_EQ(ask(catalog, {{"uuid", "a"}, {"sort", "rev"}}), V({"1", "a"}));

  EXPECT_TRUE(catalog.delete_set("a", error));
  EXPECT_FALSE(catalog.delete_set("a", error));
  EXPECT_EQ(error, "");
  EXPECT_EQ(catalog.commit_set(record("a", "r", 2, 10), error), Catalog_DB::COMMIT_CREATED);
}

TEST_P(Catalog_Engine_Test, PoolsAreUniqueAndKeptWhileInUse)
{
  Catalog_DB& catalog = open();
  std::string error;
  Catalog_DB::Pool a{"pool-a", "main", "host-1", "", {{"read_only", true}}}, b{"pool-b", "archive", "", "", {}};
  ASSERT_TRUE(catalog.add_pool(a, error)) << error;
  ASSERT_TRUE(catalog.add_pool(b, error)) << error;
  EXPECT_FALSE(catalog.add_pool({"pool-a", "other", "", "", {}}, error));
  EXPECT_FALSE(catalog.add_pool({"pool-c", "main", "", "", {}}, error));
  EXPECT_FALSE(catalog.add_pool({"bad/uuid", "x", "", "", {}}, error));

  std::vector<Catalog_DB::Pool> pools;
  ASSERT_TRUE(catalog.list_pools(pools, error));
  ASSERT_EQ(pools.size(), 2u);
  EXPECT_EQ(pools[0].name, "archive");
  Catalog_DB::Pool got;
  ASSERT_TRUE(catalog.get_pool("pool-a", got, error));
  EXPECT_EQ(got.settings, a.settings);
  EXPECT_FALSE(catalog.get_pool("pool-x", got, error));
  EXPECT_EQ(error, "");

  ASSERT_EQ(catalog.commit_set(record("s", "r", 1, 1), error), Catalog_DB::COMMIT_CREATED);  // on pool-a
  EXPECT_EQ(catalog.remove_pool("main", got, error), Catalog_DB::REMOVE_IN_USE);
  EXPECT_TRUE(catalog.get_pool("pool-a", got, error));
  ASSERT_TRUE(catalog.delete_set("s", error));
  EXPECT_EQ(catalog.remove_pool("main", got, error), Catalog_DB::REMOVED);
  EXPECT_EQ(got.uuid, "pool-a");
  EXPECT_EQ(catalog.remove_pool("main", got, error), Catalog_DB::REMOVE_NOT_FOUND);
}

// A catalog left at schema version 1 by an older backupd is brought forward with
// its records; one newer than this backupd is refused.
TEST_P(Catalog_Engine_Test, MigratesAnOlderSchemaForward)
{
  ASSERT_TRUE(run_sql(
    "CREATE TABLE pools (uuid TEXT PRIMARY KEY, name TEXT NOT NULL UNIQUE, host_uuid TEXT NOT NULL,"
    " url TEXT NOT NULL, settings TEXT NOT NULL, created BIGINT NOT NULL);"
    "CREATE TABLE sets (uuid TEXT PRIMARY KEY, module TEXT NOT NULL, resource_uuid TEXT NOT NULL,"
    " minor_resource_id TEXT NOT NULL, host_uuid TEXT NOT NULL, instance TEXT NOT NULL, \"database\" TEXT NOT NULL,"
    " pool_uuid TEXT NOT NULL, rev BIGINT NOT NULL, backup_start_time BIGINT NOT NULL, committed BIGINT NOT NULL,"
    " record TEXT NOT NULL);"
    "INSERT INTO sets VALUES ('old', 'exchange', 'r', 'd', 'h', '', '', 'p', 1, 5, 5, '{\"uuid\":\"old\"}');" +
    std::string(cluster_ ? "CREATE TABLE schema_version (version INTEGER NOT NULL);"
                           "INSERT INTO schema_version VALUES (1);"
                         : "PRAGMA user_version = 1;")));
  Catalog_DB& catalog = open();
  EXPECT_EQ(catalog.schema_version(), Catalog_DB::SCHEMA_VERSION);
  EXPECT_EQ(ask(catalog, {{"pool_uuid", "p"}}), V({"1", "old"}));
  EXPECT_FALSE(run_sql("CREATE INDEX sets_by_pool ON sets(pool_uuid)")) << "version 2 made the index";
  catalog_.reset();

  ASSERT_TRUE(run_sql(cluster_ ? "UPDATE schema_version SET version = 99" : "PRAGMA user_version = 99"));
  std::string error;
  EXPECT_FALSE(Catalog_DB::open(location_, error));
  EXPECT_NE(error.find("newer"), std::string::npos) << error;
}
