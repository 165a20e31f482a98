// Backup and restore end to end with backupd on other storage than its default
// (the catalog in SQLite, pools in its data directory), once per storage set-up:
// a backup of several mailboxes by the real agent is found by the agent's catalog
// queries and restored byte for byte; a new backupd process on the same storage
// still lists the set, and a second backup joins it.

#include "apps/backup-agent/agent_run_fixture.h"
#include "support/postgres_cluster.h"
#include "host/storage/client_io_ex.h"
#include "support/s3_server_process.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <set>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace
{
// Where backupd keeps its catalog and what kind of pool pool-1 is, for one
// instance of the tests.
struct Storage_Setup
{
  enum Catalog
  {
    SQLITE,
    POSTGRESQL
  };
  enum Pool
  {
    DIRECTORY,
    S3_BUCKET
  };
  const char* name;  // the instance's name, in the tests' names
  Catalog catalog;
  Pool pool;
};

void PrintTo(const Storage_Setup& setup, std::ostream* out) { *out << setup.name; }

class Storage_Run : public Agent_Run_Fixture, public ::testing::WithParamInterface<Storage_Setup>
{
protected:
  // Gives backupd its catalog and pool-1's arguments, then starts it. A pool of
  // another kind starts its server here and sets pool_args_.
  void SetUp() override
  {
    if (GetParam().catalog == Storage_Setup::POSTGRESQL)
      use_postgres_catalog();
    switch (GetParam().pool)
    {
    case Storage_Setup::DIRECTORY:
      break;  // "pool add" makes it in backupd's data directory
    case Storage_Setup::S3_BUCKET:
      use_s3_pool();
      break;
    }
    if (IsSkipped() || HasFatalFailure())
      return;
    Agent_Run_Fixture::SetUp();
  }

  // A new database of the program's PostgreSQL cluster as backupd's catalog.
  void use_postgres_catalog()
  {
    std::string why, error;
    bool absent = false;
    Postgres_Cluster* cluster = Postgres_Cluster::shared(why, absent);
    if (cluster == nullptr && absent)
      GTEST_SKIP() << why;
    ASSERT_NE(cluster, nullptr) << why;
    const std::string database = cluster->create_database(error);
    ASSERT_FALSE(database.empty()) << error;
    const std::string password_file = backupd_.root() + "/catalog-password";
    std::ofstream(password_file) << cluster->password() << "\n";
    ASSERT_EQ(chmod(password_file.c_str(), 0600), 0);
    backupd_.set_catalog_args({"--catalog", cluster->url(database), "--catalog-password-file", password_file});
  }

  // pool-1 in a bucket of the program's S3 test server, under a prefix of its
  // own: the agent writes the set's files there itself.
  void use_s3_pool()
  {
    if (!S3_Server_Process::node_available())
      GTEST_SKIP() << "Node.js is not installed: no S3 test server";
    S3_Server_Process& s3 = S3_Server_Process::shared();
    const std::string key_file = backupd_.root() + "/s3-key";
    std::ofstream(key_file) << S3_Server_Process::access_key_id << "\n" << S3_Server_Process::secret_access_key << "\n";
    ASSERT_EQ(chmod(key_file.c_str(), 0600), 0);
    s3_prefix_ = "e2e-" + std::to_string(getpid()) + "-" + GetParam().name;
    pool_args_ = {"--s3-endpoint",
                  s3.endpoint(),
                  "--bucket",
                  S3_Server_Process::bucket,
                  "--prefix",
                  s3_prefix_,
                  "--region",
                  S3_Server_Process::region,
                  "--s3-credentials-file",
                  key_file};
  }

  // The sets the agent's `sets` command lists for `mailbox`; each must hold
  // exactly `mailboxes`.
  std::set<std::string> listed(const std::string& mailbox, const std::set<std::string>& mailboxes)
  {
    const Agent_Outcome run = agent({"sets", "--mailbox", mailbox, "--json"}, "sets");
    std::set<std::string> uuids;
    if (run.status != 0)
    {
      ADD_FAILURE() << run.out << run.err;
      return uuids;
    }
    for (const auto& entry : nlohmann::json::parse(run.out))
    {
      EXPECT_EQ(entry["mailboxes"].get<std::set<std::string>>(), mailboxes) << entry.dump();
      uuids.insert(entry["set_uuid"].get<std::string>());
    }
    return uuids;
  }

  // The names the pool's bucket holds under the set's folder (empty for a pool
  // that is not in a bucket).
  std::vector<std::string> bucket_names(const Exchange_Backup_Set& set)
  {
    std::vector<std::string> names;
    if (GetParam().pool != Storage_Setup::S3_BUCKET)
      return names;
    S3_Server_Process& s3 = S3_Server_Process::shared();
    Client_IO_Base::Options options;
    options.s3_region = S3_Server_Process::region;
    options.s3_credentials.access_key_id = S3_Server_Process::access_key_id;
    options.s3_credentials.secret_access_key = S3_Server_Process::secret_access_key;
    Client_IO_Ex io;
    const std::string location = "s3+http://127.0.0.1:" + std::to_string(s3.port()) + "/" + S3_Server_Process::bucket +
                                 "/" + s3_prefix_ + "/" + set.uri;
    EXPECT_TRUE(io.open(location, options)) << io.last_error();
    EXPECT_TRUE(io.list("", names)) << io.last_error();
    return names;
  }

  // The uuids of job "e2e"'s sets, newest first, read one set a page; every page
  // must count `total` sets.
  static std::vector<std::string> paged(size_t total)
  {
    std::vector<std::string> uuids;
    for (size_t offset = 0; offset <= total; ++offset)
    {
      nlohmann::ordered_json page;
      const std::string query =
        std::string(catalog_sets_query) + "module=exchange&minor_resource_id=e2e&sort=rev&order=desc&limit=1&offset=";
      EXPECT_TRUE(read_catalogs((query + std::to_string(offset)).c_str(), page, -1, 0));
      EXPECT_EQ(page.value("total", 0u), total) << page.dump();
      EXPECT_EQ(page["rows"].size(), offset < total ? 1u : 0u) << page.dump();
      for (const auto& row : page["rows"])
        uuids.push_back(row["uuid"].get<std::string>());
    }
    return uuids;
  }

  std::string s3_prefix_;
};
}  // namespace

INSTANTIATE_TEST_SUITE_P(
  Storage, Storage_Run,
  ::testing::Values(Storage_Setup{"postgresql_catalog_directory_pool", Storage_Setup::POSTGRESQL,
                                  Storage_Setup::DIRECTORY},
                    Storage_Setup{"sqlite_catalog_s3_pool", Storage_Setup::SQLITE, Storage_Setup::S3_BUCKET},
                    Storage_Setup{"postgresql_catalog_s3_pool", Storage_Setup::POSTGRESQL, Storage_Setup::S3_BUCKET}),
  [](const ::testing::TestParamInfo<Storage_Setup>& info) { return info.param.name; });

TEST_P(Storage_Run, SetsAreListedRestoredAndKeptByANewBackupdProcess)
{
  Exo_Sim_Process sim({"--profile", "tiny"});
  const std::string alice = sim.mailbox("alice.archer");
  const std::string admin = sim.mailbox("admin");
  Agent_Outcome run = run_job(sim, backup_job({admin, alice}));
  ASSERT_EQ(run.status, 0) << run.out << run.err;
  const Exchange_Backup_Set first = newest_record();
  EXPECT_EQ(first.rev, 1);
  EXPECT_EQ(first.index_files.size(), 2u);
  EXPECT_TRUE(first.failed_mailboxes.empty());
  EXPECT_EQ(listed(alice, {admin, alice}), std::set<std::string>{first.uuid});
  if (GetParam().pool == Storage_Setup::S3_BUCKET)
  {
    // The agent wrote the set's files into the bucket itself.
    const std::vector<std::string> names = bucket_names(first);
    for (const std::string& index : first.index_files)
      EXPECT_NE(std::find(names.begin(), names.end(), index), names.end()) << index;
  }

  // alice's whole mailbox, restored into admin's from the set.
  EWS_Client_Ptr ews = client(sim, alice);
  Tree_Contents original;
  ASSERT_NO_FATAL_FAILURE(contents(*ews, "", "", original));
  ASSERT_FALSE(original.empty());
  run = run_job(sim, restore_job("r-all", first.uuid, alice, admin, "Restored/All", whole_mailbox(*ews)));
  ASSERT_EQ(run.status, 0) << run.out << run.err;
  Tree_Contents got;
  ASSERT_NO_FATAL_FAILURE(relocated(*client(sim, admin), "Restored/All", got));
  EXPECT_TRUE(got == original) << difference(got, original);

  // A new process finds the set, and numbers the next one after it.
  ASSERT_NO_FATAL_FAILURE(restart_backupd());
  EXPECT_EQ(listed(alice, {admin, alice}), std::set<std::string>{first.uuid});
  run = run_job(sim, backup_job({admin, alice}));
  ASSERT_EQ(run.status, 0) << run.out << run.err;
  const Exchange_Backup_Set second = newest_record();
  EXPECT_EQ(second.rev, 2);
  EXPECT_EQ(listed(alice, {admin, alice}), (std::set<std::string>{first.uuid, second.uuid}));
  EXPECT_EQ(paged(2), (std::vector<std::string>{second.uuid, first.uuid}));
  if (GetParam().catalog != Storage_Setup::SQLITE)
  {
    EXPECT_FALSE(std::filesystem::exists(backupd_.data_dir() + "/catalog.db")) << "backupd kept a catalog in SQLite";
  }
}
