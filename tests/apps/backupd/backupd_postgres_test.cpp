#include <atomic>
#include <fstream>
#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>
#include <set>
#include <sys/stat.h>
#include <thread>

#include "apps/backupd/backupd_process.h"
#include "apps/backupd/catalog_db.h"
#include "support/postgres_cluster.h"

using json = nlohmann::ordered_json;

namespace
{
// A fresh database in the program's PostgreSQL cluster, and a password file for it.
class Postgres_Catalog_Test : public ::testing::Test
{
protected:
  void SetUp() override
  {
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
    password_file_ = scratch_.root() + "/catalog-password";
    std::ofstream(password_file_) << cluster_->password() << "\n";
    chmod(password_file_.c_str(), 0600);
  }

  std::vector<std::string> catalog_args() const
  {
    return {"--catalog", location_.url, "--catalog-password-file", password_file_};
  }

  // Runs backupd with `args`; its exit code, and its output (both streams) in `output`.
  int run_backupd(const std::string& args, std::string& output)
  {
    FILE* p = popen((std::string(BACKUPD_PATH) + " " + args + " 2>&1").c_str(), "r");
    char buffer[4096];
    output.clear();
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, p)) > 0;)
      output.append(buffer, n);
    int status = pclose(p);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  static json record(const std::string& uuid)
  {
    return {{"uuid", uuid},
            {"module", "exchange"},
            {"resource_uuid", "res-" + uuid.substr(0, 2)},
            {"host_uuid", "h-1"},
            {"pool_uuid", "pool-a"},
            {"rev", 1},
            {"backup_start_time", 1700000000}};
  }

  Postgres_Cluster* cluster_ = nullptr;
  std::string database_;
  Catalog_DB::Location location_;
  Backupd_Process scratch_;  // only its temporary directory
  std::string password_file_;
};
}  // namespace

TEST_F(Postgres_Catalog_Test, RefusesPasswordsOnTheCommandLineAndKeepsThemOutOfErrors)
{
  std::string error, output;
  Catalog_DB::Location in_url = location_;
  in_url.url = "postgresql://" + std::string(Postgres_Cluster::user()) +
               ":hunter2-secret@127.0.0.1:" + std::to_string(cluster_->port()) + "/" + database_;
  EXPECT_FALSE(Catalog_DB::open(in_url, error));
  EXPECT_NE(error.find("must not carry a password"), std::string::npos) << error;
  in_url.url = location_.url + "?password=hunter2-secret";
  EXPECT_FALSE(Catalog_DB::open(in_url, error));
  EXPECT_EQ(error.find("hunter2"), std::string::npos) << error;

  Catalog_DB::Location wrong = location_;
  wrong.password = "wrong-hunter2-secret";
  EXPECT_FALSE(Catalog_DB::open(wrong, error));
  EXPECT_NE(error.find("password authentication failed"), std::string::npos) << error;
  EXPECT_EQ(error.find("hunter2"), std::string::npos) << error;

  std::string base = "pool list --data '" + scratch_.data_dir() + "' --catalog '" + location_.url + "'";
  EXPECT_EQ(run_backupd(base + " --catalog-password-file '" + password_file_ + "'", output), 0) << output;
  std::ofstream(password_file_) << "wrong-hunter2-secret\n";
  EXPECT_EQ(run_backupd(base + " --catalog-password-file '" + password_file_ + "'", output), 1);
  EXPECT_EQ(output.find("hunter2"), std::string::npos) << output;
  chmod(password_file_.c_str(), 0644);
  EXPECT_EQ(run_backupd(base + " --catalog-password-file '" + password_file_ + "'", output), 1);
  EXPECT_NE(output.find("chmod 600"), std::string::npos) << output;
  EXPECT_EQ(run_backupd("pool list --data '" + scratch_.data_dir() + "' --catalog '" + in_url.url + "'", output), 1);
  EXPECT_NE(output.find("must not carry a password"), std::string::npos) << output;
}

TEST_F(Postgres_Catalog_Test, ReconnectsAfterItsConnectionsWereCut)
{
  std::string error;
  std::unique_ptr<Catalog_DB> catalog = Catalog_DB::open(location_, error);
  ASSERT_TRUE(catalog) << error;
  ASSERT_EQ(catalog->commit_set(record("before"), error), Catalog_DB::COMMIT_CREATED) << error;
  ASSERT_TRUE(cluster_->run_sql(database_,
                                "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = '" + database_ +
                                  "' AND pid <> pg_backend_pid()",
                                error))
    << error;
  EXPECT_EQ(catalog->commit_set(record("after"), error), Catalog_DB::COMMIT_CREATED) << error;
  EXPECT_EQ(catalog->commit_set(record("before"), error), Catalog_DB::COMMIT_EXISTS) << error;
}

// Many backupd processes starting at once migrate the schema once; many commits of
// one uuid at once make one record.
TEST_F(Postgres_Catalog_Test, ConcurrentMigrationsAndCommitsOfOneUuid)
{
  std::atomic<int> opened{0}, created{0}, exists{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i)
    threads.emplace_back(
      [&]
      {
        std::string error;
        std::unique_ptr<Catalog_DB> catalog = Catalog_DB::open(location_, error);
        if (!catalog)
          return;
        ++opened;
        Catalog_DB::Commit_Result result = catalog->commit_set(record("same"), error);
        (result == Catalog_DB::COMMIT_CREATED ? created : result == Catalog_DB::COMMIT_EXISTS ? exists : opened) += 1;
      });
  for (auto& t : threads)
    t.join();
  EXPECT_EQ(opened, 8);
  EXPECT_EQ(created, 1);
  EXPECT_EQ(exists, 7);
}

// Two backupd processes commit 500 records into one catalog at once, each record
// sent to one of them and a fifth of them to both: paging through the catalog
// gives every uuid once.
TEST_F(Postgres_Catalog_Test, TwoBackupdProcessesShareOneCatalog)
{
  Backupd_Process first, second;
  for (Backupd_Process* b : {&first, &second})
  {
    b->set_catalog_args(catalog_args());
    b->set_error_log(b->root() + "/stderr");
  }
  ASSERT_TRUE(first.add_pool("pool-a", "main"));
  ASSERT_TRUE(first.start());
  ASSERT_TRUE(second.start());

  const int records = 500, senders = 4;
  std::atomic<int> created{0}, existed{0}, failed{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < senders; ++t)
    threads.emplace_back(
      [&, t]
      {
        httplib::Client a("127.0.0.1", first.port()), b("127.0.0.1", second.port());
        for (httplib::Client* c : {&a, &b})
          c->set_default_headers({{"X-Backupd-Access-Key", Backupd_Process::key()}});
        for (int i = t; i < records; i += senders)
        {
          char uuid[16];
          snprintf(uuid, sizeof uuid, "%02d-%05d", i % 7, i);
          std::vector<httplib::Client*> to = {i % 2 ? &a : &b};
          if (i % 5 == 0)
            to.push_back(i % 2 ? &b : &a);
          for (httplib::Client* c : to)
          {
            auto res = c->Post("/d2/r/v2/sets/restore/sets", record(uuid).dump(), "application/json");
            int status = res ? res->status : -1;
            (status == 201 ? created : status == 200 ? existed : failed) += 1;
          }
        }
      });
  for (auto& t : threads)
    t.join();
  EXPECT_EQ(created, records);
  EXPECT_EQ(existed, records / 5);
  EXPECT_EQ(failed, 0);

  httplib::Client c("127.0.0.1", second.port());
  c.set_default_headers({{"X-Backupd-Access-Key", Backupd_Process::key()}});
  std::vector<std::string> seen;
  for (int offset = 0; offset < records + 100; offset += 100)
  {
    auto res = c.Get("/d2/r/v2/sets/restore/sets?sort=uuid&limit=100&offset=" + std::to_string(offset));
    ASSERT_TRUE(res && res->status == 200);
    json page = json::parse(res->body);
    EXPECT_EQ(page["total"], records);
    for (const auto& row : page["rows"])
      seen.push_back(row["uuid"]);
  }
  EXPECT_EQ(seen.size(), static_cast<size_t>(records));
  EXPECT_EQ(std::set<std::string>(seen.begin(), seen.end()).size(), static_cast<size_t>(records));
  EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));

  first.stop();
  second.stop();
  for (Backupd_Process* b : {&first, &second})
  {
    std::ifstream log(b->root() + "/stderr");
    std::string text((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text.find(cluster_->password()), std::string::npos);
  }
}

// While the catalog database takes no connections, requests get 503 with
// Retry-After; once it does again, backupd serves on without a restart.
TEST_F(Postgres_Catalog_Test, AnUnreachableCatalogIsAnsweredAsPassing)
{
  Backupd_Process backupd;
  backupd.set_catalog_args(catalog_args());
  ASSERT_TRUE(backupd.start());
  httplib::Client c("127.0.0.1", backupd.port());
  c.set_default_headers({{"X-Backupd-Access-Key", Backupd_Process::key()}});
  ASSERT_EQ(c.Post("/d2/r/v2/sets/restore/sets", record("kept").dump(), "application/json")->status, 201);

  std::string error;
  ASSERT_TRUE(cluster_->run_sql("postgres",
                                "ALTER DATABASE " + database_ +
                                  " ALLOW_CONNECTIONS false; SELECT pg_terminate_backend(pid) FROM pg_stat_activity"
                                  " WHERE datname = '" +
                                  database_ + "'",
                                error))
    << error;
  auto down = c.Get("/d2/r/v2/sets/restore/sets");
  ASSERT_TRUE(down);
  EXPECT_EQ(down->status, 503) << down->body;
  EXPECT_EQ(down->get_header_value("Retry-After"), "1");
  EXPECT_EQ(c.Post("/d2/r/v2/sets/restore/sets", record("later").dump(), "application/json")->status, 503);

  ASSERT_TRUE(cluster_->run_sql("postgres", "ALTER DATABASE " + database_ + " ALLOW_CONNECTIONS true", error));
  auto up = c.Get("/d2/r/v2/sets/restore/sets");
  ASSERT_TRUE(up);
  EXPECT_EQ(up->status, 200);
  EXPECT_EQ(json::parse(up->body)["total"], 1);
}
