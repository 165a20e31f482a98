#ifndef TESTS_APPS_BACKUP_AGENT_AGENT_RUN_FIXTURE_H
#define TESTS_APPS_BACKUP_AGENT_AGENT_RUN_FIXTURE_H

// The set-up the end-to-end agent tests share: a real backupd (pool "pool-1")
// in a fresh data directory, the host libraries of the test process configured
// for it, and for an exo-sim the tenant registry and agent configuration the
// real agent runs with. Also the jobs they run and the EWS client and listing
// helpers they check mailboxes with. backupd keeps its catalog in SQLite in its
// data directory and pool-1 in a directory there, unless a derived fixture gives
// it other catalog arguments (backupd_.set_catalog_args) or pool arguments
// (pool_args_) before SetUp.

#include <sys/stat.h>  // backupd_process.h uses chmod

#include "apps/backup-agent/agent_process.h"
#include "apps/backupd/backupd_process.h"
#include "backup/exchange/core/ews/ews_mtf_utils.h"
#include "backup/exchange/core/ews/ews_utils.h"
#include "host/catalog/exchange_backup_set.h"
#include "host/catalog/read_catalogs.h"
#include "host/office365/office365_tenant_registry.h"
#include "support/exo_sim_process.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

// Folder path (display names joined by "/", from below the start) -> the
// exported bytes of its items.
typedef std::multiset<std::pair<std::string, std::string>> Tree_Contents;

class Agent_Run_Fixture : public ::testing::Test
{
protected:
  static constexpr const char* tenant_uuid = "4c1d2e3f-5a6b-4c7d-8e9f-0a1b2c3d4e5f";

  void SetUp() override
  {
    ASSERT_TRUE(backupd_.add_pool("pool-1", "main", "{}", pool_args_));
    ASSERT_TRUE(backupd_.start());
    backupd_.configure_host();
    dir_ = backupd_.root();
  }

  // Ends backupd and starts a new process on the same data directory, catalog
  // and port, so that the host libraries and the agent's configuration still
  // point at it.
  void restart_backupd()
  {
    backupd_.stop();
    ASSERT_TRUE(backupd_.start(backupd_.port()));
  }

  std::string write(const std::string& name, const std::string& text)
  {
    const std::string path = dir_ + "/" + name;
    std::ofstream(path) << text;
    return path;
  }

  // The tenant registry (holding `sim`'s tenant, registered with transport_)
  // and the agent configuration ("agent.json", host "host-1", `settings`) the
  // agent runs with; its path.
  std::string configure(const Exo_Sim_Process& sim, const std::string& settings = "{}")
  {
    Office365_Tenant_Registry tenants(Office365_Tenant_Registry::file_in(dir_ + "/state"));
    std::string error;
    ::mkdir((dir_ + "/state").c_str(), 0700);
    Office365_Auth_Entry entry = sim.entry();
    entry.transport = transport_;
    tenants.add(tenant_uuid, entry);
    EXPECT_TRUE(tenants.save(error)) << error;
    config_ =
      write("agent.json", "{\"state_dir\": \"" + dir_ +
                            "/state\", \"host_id\": \"host-1\", \"backup_server\": {\"url\": \"" + backupd_.url() +
                            "\", \"access_key\": \"" + Backupd_Process::key() + "\"}, \"settings\": " + settings + "}");
    return config_;
  }

  // Runs the agent with the real module and the configuration of the last
  // configure(); `name` names its output files.
  Agent_Outcome agent(const std::vector<std::string>& args, const std::string& name)
  {
    std::vector<std::string> all = {"--module", EXCHANGE_MODULE_PATH, "--config", config_};
    all.insert(all.end(), args.begin(), args.end());
    Agent_Process process(all, dir_, name);
    return process.wait();
  }

  // A backup job "e2e" (unless `id` says otherwise) of `mailboxes` to pool-1.
  static nlohmann::ordered_json backup_job(const std::vector<std::string>& mailboxes,
                                           const std::string& compression = "zstd", const std::string& id = "e2e")
  {
    nlohmann::ordered_json job = {
      {"type", "backup"},
      {"uid", "2b6f0c8e-9d1a-4e3b-8f7c-5a4d3e2f1b0c"},
      {"id", id},
      {"host_id", "host-1"},
      {"target", {{"id", "pool-1"}}},
      {"max_seconds_retry", 30},
      {"options", {{"method", "ews"}, {"is_office365", true}, {"channels", 2}, {"compression", compression}}},
      {"source", {{"id", tenant_uuid}, {"entries", nlohmann::ordered_json::array()}}}};
    for (const std::string& m : mailboxes)
      job["source"]["entries"].push_back(std::string("exchange://") + tenant_uuid + "/" + m);
    return job;
  }

  // A restore job `id` of set `set`: the selection entries `storages` of mailbox
  // `from` into `to`, under `relocation`, on `channels` workers.
  static nlohmann::ordered_json restore_job(const std::string& id, const std::string& set, const std::string& from,
                                            const std::string& to, const std::string& relocation,
                                            const std::vector<std::string>& storages, int channels = 2)
  {
    return {{"type", "restore"},
            {"uid", "7a1b2c3d-4e5f-4a6b-8c7d-9e0f1a2b3c4d"},
            {"id", id},
            {"host_id", "host-1"},
            {"max_seconds_retry", 30},
            {"options", {{"relocation", relocation}, {"is_office365", true}, {"channels", channels}}},
            {"source",
             {{"id", tenant_uuid},
              {"catalog_id", set},
              {"original", std::string("exchange://") + tenant_uuid + "/" + from},
              {"restore_as", std::string("exchange://") + tenant_uuid + "/" + to},
              {"storages", storages}}}};
  }

  // Configures the agent for `sim` and runs `job` through `run-job`.
  Agent_Outcome run_job(const Exo_Sim_Process& sim, const nlohmann::ordered_json& job,
                        const std::string& settings = "{}")
  {
    configure(sim, settings);
    const std::string id = job["id"].get<std::string>();
    return agent({"run-job", write(id + ".json", job.dump())}, id);
  }

  // The newest record of job `id`.
  Exchange_Backup_Set newest_record(const std::string& id = "e2e")
  {
    nlohmann::ordered_json result;
    Exchange_Backup_Set record;
    std::string error;
    EXPECT_TRUE(read_catalogs(
      ("/d2/r/v2/sets/restore/sets?module=exchange&minor_resource_id=" + id + "&sort=rev&order=desc").c_str(), result,
      -1, 0));
    EXPECT_FALSE(result["rows"].empty());
    if (!result["rows"].empty())
    {
      EXPECT_TRUE(record.from_json(result["rows"][0], error)) << error;
    }
    return record;
  }

  // A client of `sim` over transport_, acting for `mailbox`.
  EWS_Client_Ptr client(const Exo_Sim_Process& sim, const std::string& mailbox) const
  {
    Office365_Auth_Entry entry = sim.entry();
    entry.transport = transport_;
    const std::string scope =
      transport_ == "graph" ? EWS_Client::graph_token_scope(entry) : ews_default_scope(entry.ews_endpoint);
    EWS_Client_Ptr ews;
    EXPECT_TRUE(
      create_ews_client("", Secure_String(), std::make_shared<Office365_Auth>(entry, scope), ews, mailbox.c_str()));
    return ews;
  }

  // Calls of operation `op` (an EWS operation or a Graph action) the simulator
  // has answered so far.
  static long calls(const Exo_Sim_Process& sim, const std::string& op)
  {
    const nlohmann::json status = sim.status();
    return status["calls"].contains(op) ? status["calls"][op].get<long>() : 0;
  }

  // Every item below `folder_id` (the mailbox root when empty), exported, by
  // folder path.
  static void contents(EWS_Client& ews, const std::string& folder_id, const std::string& path, Tree_Contents& out)
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

  // The selection entries of a whole mailbox for a restore job: every top-level
  // folder of `ews`'s mailbox, by its id.
  static std::vector<std::string> whole_mailbox(EWS_Client& ews)
  {
    EWS_Folders top;
    EXPECT_TRUE(ews.list_folders("", top, true));
    std::vector<std::string> entries;
    for (const EWS_Folder& f : top)
      entries.push_back(encode_name(f.id));
    return entries;
  }

  // Every item below the restore's relocation folder `relocation` ("A/B": folder
  // B below A in the mailbox's root), exported, by folder path from below it.
  static void relocated(EWS_Client& ews, const std::string& relocation, Tree_Contents& out)
  {
    std::string id;
    for (size_t start = 0; start <= relocation.size();)
    {
      size_t end = relocation.find('/', start);
      if (end == std::string::npos)
        end = relocation.size();
      EWS_Folders children;
      ASSERT_TRUE(ews.list_folders(id, children, true));
      const EWS_Folder* folder = find(children, relocation.substr(start, end - start));
      ASSERT_NE(folder, nullptr) << "no folder " << relocation.substr(0, end);
      id = folder->id;
      start = end + 1;
    }
    contents(ews, id, "", out);
  }

  // The items only one side has: folder, size and a hash of the bytes, one a line.
  static std::string difference(const Tree_Contents& got, const Tree_Contents& want)
  {
    auto lines = [](const Tree_Contents& tree)
    {
      std::multiset<std::string> out;
      for (const auto& entry : tree)
        out.insert(entry.first + " " + std::to_string(entry.second.size()) + " " +
                   std::to_string(std::hash<std::string>()(entry.second) % 100000));
      return out;
    };
    const std::multiset<std::string> a = lines(got), b = lines(want);
    std::string out;
    for (const std::string& l : a)
      if (b.count(l) < a.count(l))
        out += "restored only: " + l + "\n";
    for (const std::string& l : b)
      if (a.count(l) < b.count(l))
        out += "missing: " + l + "\n";
    return out;
  }

  // The first folder of `folders` named `name`, or null.
  static const EWS_Folder* find(const EWS_Folders& folders, const std::string& name)
  {
    for (const EWS_Folder& f : folders)
      if (f.display_name == name)
        return &f;
    return nullptr;
  }

  Backupd_Process backupd_;
  // Arguments of "backupd pool add" for pool-1 beyond its uuid and name.
  std::vector<std::string> pool_args_;
  std::string dir_;
  std::string config_;
  // The transport the tenant is registered with and clients use: "ews" or "graph".
  std::string transport_ = "ews";
};

// Fixture `Base_` (an Agent_Run_Fixture) run once per transport, the test
// parameter naming it: INSTANTIATE_TEST_SUITE_P(..., transport_names()).
template <typename Base_>
class Over_Transport_T : public Base_, public ::testing::WithParamInterface<std::string>
{
protected:
  void SetUp() override
  {
    this->transport_ = this->GetParam();
    Base_::SetUp();
  }

public:
  static auto transport_names() { return ::testing::Values(std::string("ews"), std::string("graph")); }
};

#endif
