// Restores under faults, end to end: backupd, exo-sim and the real agent with
// the real module on loopback. A mailbox is backed up, then restored whole
// while exo-sim drops connections after acting on the request (so an upload or
// a folder creation took effect and its answer was lost), answers
// ErrorServerBusy and 503. Every item must be in the restored folders exactly
// once, byte for byte, or be named as failed.

#include <sys/stat.h>  // backupd_process.h uses chmod

#include "apps/backup-agent/agent_process.h"
#include "apps/backupd/backupd_process.h"
#include "backup/exchange/core/ews/ews_mtf_utils.h"
#include "backup/exchange/core/ews/ews_utils.h"
#include "host/catalog/read_catalogs.h"
#include "host/office365/office365_tenant_registry.h"
#include "support/exo_sim_process.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace
{
const char* const tenant_uuid = "4c1d2e3f-5a6b-4c7d-8e9f-0a1b2c3d4e5f";

// Folder path (display names joined by "/") -> the exported bytes of its items.
typedef std::multiset<std::pair<std::string, std::string>> Tree_Contents;

class Restore_Faults : public ::testing::Test
{
protected:
  void SetUp() override
  {
    ASSERT_TRUE(backupd_.add_pool("pool-1", "main"));
    ASSERT_TRUE(backupd_.start());
    backupd_.configure_host();
    dir_ = backupd_.root();
  }

  std::string write(const std::string& name, const std::string& text)
  {
    const std::string path = dir_ + "/" + name;
    std::ofstream(path) << text;
    return path;
  }

  EWS_Client_Ptr client(const Exo_Sim_Process& sim, const std::string& mailbox)
  {
    EWS_Client_Ptr ews;
    EXPECT_TRUE(create_ews_client(
      "", Secure_String(), std::make_shared<Office365_Auth>(sim.entry(), ews_default_scope(sim.entry().ews_endpoint)),
      ews, mailbox.c_str()));
    return ews;
  }

  // Runs a job with the agent; dropped connections are retried after 20 ms.
  Agent_Outcome run_job(const Exo_Sim_Process& sim, const nlohmann::ordered_json& job)
  {
    Office365_Tenant_Registry tenants(Office365_Tenant_Registry::file_in(dir_ + "/state"));
    std::string error;
    ::mkdir((dir_ + "/state").c_str(), 0700);
    tenants.add(tenant_uuid, sim.entry());
    EXPECT_TRUE(tenants.save(error)) << error;
    const std::string config = write(
      "agent.json", "{\"state_dir\": \"" + dir_ + "/state\", \"host_id\": \"host-1\", \"backup_server\": {\"url\": \"" +
                      backupd_.url() + "\", \"access_key\": \"" + Backupd_Process::key() +
                      "\"}, \"settings\": {\"ews\": {\"retry_base_delay_ms\": 20}}}");
    const std::string job_file = write(job["id"].get<std::string>() + ".json", job.dump());
    Agent_Process agent({"--module", EXCHANGE_MODULE_PATH, "--config", config, "run-job", job_file}, dir_,
                        job["id"].get<std::string>());
    return agent.wait();
  }

  nlohmann::ordered_json backup_job(const std::string& mailbox)
  {
    return {{"type", "backup"},
            {"uid", "2b6f0c8e-9d1a-4e3b-8f7c-5a4d3e2f1b0c"},
            {"id", "faults"},
            {"host_id", "host-1"},
            {"target", {{"id", "pool-1"}}},
            {"max_seconds_retry", 30},
            {"options", {{"method", "ews"}, {"is_office365", true}, {"channels", 2}, {"compression", "zstd"}}},
            {"source", {{"id", tenant_uuid}, {"entries", {std::string("exchange://") + tenant_uuid + "/" + mailbox}}}}};
  }

  nlohmann::ordered_json restore_job(const std::string& id, const std::string& set, const std::string& from,
                                     const std::string& to, const std::string& relocation,
                                     const std::vector<std::string>& storages)
  {
    return {{"type", "restore"},
            {"uid", "7a1b2c3d-4e5f-4a6b-8c7d-9e0f1a2b3c4d"},
            {"id", id},
            {"host_id", "host-1"},
            {"max_seconds_retry", 30},
            {"options", {{"relocation", relocation}, {"is_office365", true}, {"channels", 3}}},
            {"source",
             {{"id", tenant_uuid},
              {"catalog_id", set},
              {"original", std::string("exchange://") + tenant_uuid + "/" + from},
              {"restore_as", std::string("exchange://") + tenant_uuid + "/" + to},
              {"storages", storages}}}};
  }

  // Every item below `folder_id`, exported, by folder path.
  void contents(EWS_Client& ews, const std::string& folder_id, const std::string& path, Tree_Contents& out)
  {
    EWS_Folders children;
    ASSERT_TRUE(ews.list_folders(folder_id, children, true));
    for (const EWS_Folder& child : children)
      contents(ews, child.id, path.empty() ? child.display_name : path + "/" + child.display_name, out);
    if (folder_id.empty())
      return;
    EWS_Items items;
    ASSERT_TRUE(ews.list_items(folder_id, make_ews_item_appender(items), 0, 100000));
    EWS_Export_Requests requests(items.size());
    for (size_t i = 0; i < items.size(); ++i)
      requests[i].id = items[i].id;
    ASSERT_TRUE(ews.export_items(requests));
    for (const EWS_Export_Request& r : requests)
    {
      ASSERT_TRUE(r.data.ptr) << r.id;
      out.emplace(path, std::string(reinterpret_cast<const char*>(r.data.ptr.get()), r.data.size));
    }
  }

  // Checks the restored tree against the original: nothing twice, nothing
  // foreign, and each missing item one of the run's named failures.
  void expect_once_or_named(const Tree_Contents& got, const Tree_Contents& original, const Agent_Outcome& run)
  {
    size_t missing = 0;
    for (auto it = original.begin(); it != original.end(); it = original.upper_bound(*it))
    {
      const size_t want = original.count(*it), have = got.count(*it);
      EXPECT_LE(have, want) << "restored " << have << " times, backed up " << want << ": " << it->first;
      if (have < want)
        missing += want - have;
    }
    for (const auto& entry : got)
      EXPECT_GT(original.count(entry), 0u) << "restored an item that was not backed up, in " << entry.first;
    if (missing == 0)
    {
      EXPECT_EQ(run.status, 0) << run.out << run.err;
      return;
    }
    // A run with failed items says how many, and names each.
    EXPECT_TRUE(
      run.says(std::to_string(missing) + " of " + std::to_string(original.size()) + " items failed to restore"))
      << run.out << run.err;
    size_t named = 0;
    for (size_t at = run.err.find("Failed to restore '"); at != std::string::npos;
         at = run.err.find("Failed to restore '", at + 1))
      ++named;
    EXPECT_EQ(named, missing) << run.err;
  }

  Backupd_Process backupd_;
  std::string dir_;
};
}  // namespace

TEST_F(Restore_Faults, DroppedConnectionsBusyAnd503NeitherDuplicateNorLoseAnItem)
{
  Exo_Sim_Process sim({"--profile", "tiny", "--busy-backoff-ms", "20"});
  const std::string alice = sim.mailbox("alice.archer");
  const std::string admin = sim.mailbox("admin");
  Agent_Outcome run = run_job(sim, backup_job(alice));
  ASSERT_EQ(run.status, 0) << run.out << run.err;
  nlohmann::ordered_json result;
  ASSERT_TRUE(read_catalogs("/d2/r/v2/sets/restore/sets?module=exchange&minor_resource_id=faults", result, -1, 0));
  ASSERT_EQ(result["rows"].size(), 1u);
  const std::string set = result["rows"][0]["uuid"].get<std::string>();

  EWS_Client_Ptr ews = client(sim, alice);
  Tree_Contents original;
  ASSERT_NO_FATAL_FAILURE(contents(*ews, "", "", original));
  ASSERT_GT(original.size(), 20u);
  std::vector<std::string> all;
  EWS_Folders top;
  ASSERT_TRUE(ews->list_folders("", top, true));
  for (const EWS_Folder& f : top)
    all.push_back(encode_name(f.id));
  EWS_Client_Ptr target = client(sim, admin);

  // Dropped connections alone, then with throttling and 503s. The simulator
  // drops after acting: every upload and folder creation whose answer is lost
  // took effect, so it uploads each item exactly once.
  const struct
  {
    const char* relocation;
    nlohmann::json faults;
  } rounds[] = {
    {"Under Drops", {{"drop_rate", 0.25}}},
    {"Under Drops And Busy", {{"drop_rate", 0.15}, {"busy_rate", 0.15}, {"ews_503_rate", 0.1}}},
  };
  int round = 0;
  for (const auto& r : rounds)
  {
    SCOPED_TRACE(r.relocation);
    sim.reset_counters();
    sim.set_faults(r.faults);
    run = run_job(sim, restore_job("r-faults-" + std::to_string(round++), set, alice, admin, r.relocation, all));
    const nlohmann::json status = sim.status();
    sim.set_faults({{"drop_rate", 0}, {"busy_rate", 0}, {"ews_503_rate", 0}});
    ASSERT_GE(run.status, 0) << run.out << run.err;
    EXPECT_GT(status["faults"]["drop"].get<int>(), 0) << status.dump();
    // Lost upload answers were settled by listing their folders (the restore
    // lists nothing otherwise), and in the first round a lost CreateFolder
    // answer was settled by looking the folder up.
    EXPECT_GT(status["calls"].value("FindItem", 0), 0) << status.dump();
    if (round == 1)
    {
      EXPECT_GT(status["calls"].value("FindFolder", 0), 0) << status.dump();
    }
    EXPECT_EQ(status["items_uploaded"].get<size_t>(), original.size()) << status.dump();

    EWS_Folders roots;
    ASSERT_TRUE(target->list_folders("", roots, true));
    std::vector<const EWS_Folder*> restored;
    for (const EWS_Folder& f : roots)
      if (f.display_name == r.relocation)
        restored.push_back(&f);
    ASSERT_EQ(restored.size(), 1u);
    Tree_Contents got;
    ASSERT_NO_FATAL_FAILURE(contents(*target, restored[0]->id, "", got));
    expect_once_or_named(got, original, run);
  }
}
