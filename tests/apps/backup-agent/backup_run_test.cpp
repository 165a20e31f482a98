// Backups end to end: backupd, exo-sim and the real agent (loading the real
// module) on loopback. Every item of every backed-up mailbox must be in the set,
// byte for byte what exo-sim exports for it, or named among the failed items of
// its mailbox's index.

#include <signal.h>

#include "apps/backup-agent/agent_run_fixture.h"
#include "backup/exchange/core/ews/ews_mtf_utils.h"
#include "backup/exchange/core/ews/io_options.h"
#include "backup/exchange/set_contents.h"
#include "host/ews/ews_folders_index.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace
{
class Backup_Run : public Agent_Run_Fixture
{
protected:
  Agent_Outcome run_backup(const Exo_Sim_Process& sim, const std::vector<std::string>& mailboxes,
                           const std::string& settings = "{}")
  {
    return run_job(sim, backup_job(mailboxes), settings);
  }

  // Walks a live mailbox and compares each item with the set; returns the
  // number of items checked.
  size_t check_mailbox(EWS_Client& ews, const std::string& mailbox, const Set_Contents& set,
                       const std::set<std::string>& failed)
  {
    EXPECT_TRUE(ews.impersonate(mailbox));
    size_t checked = 0;
    std::vector<std::pair<std::string, std::string>> folders = {{mailbox_to_path(mailbox), ""}};
    while (!folders.empty())
    {
      const auto folder = folders.back();
      folders.pop_back();
      EWS_Folders children;
      EXPECT_TRUE(ews.list_folders(folder.second, children, true));
      for (const EWS_Folder& child : children)
        folders.emplace_back(join_path(folder.first, encode_name(child.display_name)), child.id);
      if (folder.second.empty())
        continue;
      EWS_Items items;
      EXPECT_TRUE(ews.list_items(folder.second, make_ews_item_appender(items), 0, 100000));
      EWS_Export_Requests requests(items.size());
      for (size_t i = 0; i < items.size(); ++i)
        requests[i].id = items[i].id;
      EXPECT_TRUE(ews.export_items(requests));
      for (size_t i = 0; i < items.size(); ++i)
      {
        ++checked;
        if (failed.count(items[i].id))
          continue;
        const std::string path = join_path(folder.first, encode_name(get_item_name(items[i])));
        auto stored = set.versions.find(path);
        if (stored == set.versions.end() || !requests[i].data.ptr)
        {
          ADD_FAILURE() << path << " is neither in the set nor failed";
          continue;
        }
        const std::string exported(reinterpret_cast<const char*>(requests[i].data.ptr.get()), requests[i].data.size);
        EXPECT_NE(std::find(stored->second.begin(), stored->second.end(), exported), stored->second.end())
          << path << ": the set holds other bytes than exo-sim exports";
      }
    }
    return checked;
  }

  // Every item of every mailbox of the record is in the set or failed; returns
  // the failed items of all mailboxes.
  size_t check_set(const Exo_Sim_Process& sim, const Exchange_Backup_Set& record, size_t& items,
                   const std::string& job_id = "e2e")
  {
    Set_Contents set;
    EXPECT_TRUE(set.read("pool-1", "host-1", job_id, record.rev));
    Client_IO_Ex io;
    EXPECT_TRUE(create_io_channel("pool-1", record.uri, 1, io, 0));
    EWS_Client_Ptr ews = client(sim, "");
    size_t failed_total = 0;
    items = 0;
    for (const std::string& index : record.index_files)
    {
      std::string text, error;
      EXPECT_TRUE(io.get_contents(index, text)) << index;
      EWS_Folders folders;
      std::vector<std::string> failed;
      EXPECT_TRUE(load_ews_folders(text, folders, failed, error)) << error;
      const std::string mailbox = index.substr(0, index.find(".idx"));
      std::string decoded = decode_path(mailbox.substr(0, mailbox.rfind('.')));
      failed_total += failed.size();
      items += check_mailbox(*ews, decoded, set, std::set<std::string>(failed.begin(), failed.end()));
    }
    return failed_total;
  }

  // The files of the sets of host "host-1" on the pool, as anyone would see
  // them.
  std::set<std::string> set_files() const
  {
    std::set<std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir_))
      if (entry.is_regular_file() && entry.path().string().find("/host-1/") != std::string::npos)
        files.insert(entry.path().string());
    return files;
  }
};

class Backup_Run_Over : public Over_Transport_T<Backup_Run>
{
};
}  // namespace

INSTANTIATE_TEST_SUITE_P(Transports, Backup_Run_Over, Backup_Run_Over::transport_names(),
                         [](const ::testing::TestParamInfo<std::string>& info) { return info.param; });

TEST_P(Backup_Run_Over, EveryItemIsInTheSetAndAMissingMailboxFailsAlone)
{
  Exo_Sim_Process sim({"--profile", "tiny"});
  const std::vector<std::string> mailboxes = {sim.mailbox("admin"), sim.mailbox("nobody"), sim.mailbox("alice.archer")};
  for (int rev = 1; rev <= 2; ++rev)
  {
    Agent_Outcome run = run_backup(sim, mailboxes);
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_TRUE(run.says("job e2e succeeded"));
    const Exchange_Backup_Set record = newest_record();
    EXPECT_EQ(record.rev, rev);
    EXPECT_EQ(record.transport, transport_);
    EXPECT_EQ(record.failed_mailboxes, std::vector<std::string>{sim.mailbox("nobody")});
    EXPECT_EQ(record.index_files.size(), 2u);
    size_t items = 0;
    EXPECT_EQ(check_set(sim, record, items), 0u);
    EXPECT_GT(items, 10u);
  }
  std::ifstream alerts(dir_ + "/state/alerts.jsonl");
  std::string line;
  ASSERT_TRUE(std::getline(alerts, line));
  EXPECT_NE(line.find("\"level\":5"), std::string::npos) << line;
  EXPECT_NE(line.find(sim.mailbox("nobody")), std::string::npos) << line;
}

// The demo tenant has folders that share their name with a sibling (two "Archive 2023"
// below one Inbox, say): each must reach the set with its own items.
TEST_F(Backup_Run, SiblingFoldersOfOneNameKeepTheirOwnItems)
{
  Exo_Sim_Process sim({"--profile", "demo", "--mailboxes", "8", "--renamed-users", "0", "--hidden-folders", "0"});
  const std::vector<std::string> mailboxes = {sim.mailbox("bruno.brandt"), sim.mailbox("dmitri.dvorak"),
                                              sim.mailbox("emma.eriksen")};
  Agent_Outcome run = run_backup(sim, mailboxes);
  ASSERT_EQ(run.status, 0) << run.out << run.err;
  const Exchange_Backup_Set record = newest_record();
  EXPECT_TRUE(record.failed_mailboxes.empty());
  EXPECT_EQ(record.index_files.size(), 3u);
  size_t items = 0;
  EXPECT_EQ(check_set(sim, record, items), 0u);
  EXPECT_GT(items, 1000u);
}

TEST_F(Backup_Run, FaultsLoseNoItem)
{
  Exo_Sim_Process sim({"--profile", "tiny", "--busy-backoff-ms", "20"});
  sim.set_faults({{"busy_rate", 0.2}, {"ews_503_rate", 0.05}, {"drop_rate", 0.02}, {"fail_item_rate", 0.03}});
  Agent_Outcome run =
    run_backup(sim, {sim.mailbox("admin"), sim.mailbox("alice.archer")}, "{\"ews\": {\"retry_base_delay_ms\": 10}}");
  ASSERT_EQ(run.status, 0) << run.out << run.err;
  const nlohmann::json status = sim.status();
  EXPECT_GT(status["faults"]["busy"].get<int>(), 0) << status.dump();
  EXPECT_GT(status["faults"]["item_export"].get<int>(), 0) << status.dump();
  sim.set_faults({{"busy_rate", 0}, {"ews_503_rate", 0}, {"drop_rate", 0}, {"fail_item_rate", 0}});
  const Exchange_Backup_Set record = newest_record();
  EXPECT_TRUE(record.failed_mailboxes.empty());
  size_t items = 0;
  EXPECT_GT(check_set(sim, record, items), 0u);
  EXPECT_GT(items, 10u);
  // The items whose export failed are named in the indexes as failed: verify
  // does not expect them in the set, and finds the others sound.
  const Agent_Outcome verified = agent({"verify", "--set", record.uuid}, "verify");
  EXPECT_EQ(verified.status, 0) << verified.out << verified.err;
}

TEST_P(Backup_Run_Over, BackupCommandRunsTheSameJobAndSummarizesTheSet)
{
  Exo_Sim_Process sim({"--profile", "tiny", "--fail-item-rate", "0.05"});
  // The registry and configuration of a first run.
  ASSERT_EQ(run_backup(sim, {sim.mailbox("admin")}).status, 0);

  const Agent_Outcome shown = agent({"backup", "--help"}, "help");
  EXPECT_EQ(shown.status, 0);
  EXPECT_TRUE(shown.says("usage: backup-agent [--config FILE] backup --tenant UUID"));
  Agent_Process top_help({"--help"}, dir_, "top-help");
  EXPECT_EQ(top_help.wait().status, 0);
  EXPECT_EQ(agent({"backup", "--tenant", tenant_uuid}, "bad").status, 64);

  const Agent_Outcome run = agent({"backup", "--tenant", tenant_uuid, "--mailbox", sim.mailbox("alice.archer"),
                                   "--mailbox", sim.mailbox("nobody"), "--pool", "pool-1", "--channels", "2", "--json"},
                                  "backup");
  // A mailbox and some items failed: done, with failures.
  ASSERT_EQ(run.status, 2) << run.out << run.err;
  const nlohmann::json summary = nlohmann::json::parse(run.out);
  EXPECT_EQ(summary["rev"], 1);
  EXPECT_EQ(summary["mailboxes"], 2);
  EXPECT_GT(summary["items"].get<int>(), 0);
  EXPECT_GT(summary["folders"].get<int>(), 0);
  EXPECT_EQ(summary["failed_mailboxes"], nlohmann::json::array({sim.mailbox("nobody")}));
  ASSERT_FALSE(summary["failed_items"].empty());
  EXPECT_EQ(summary["failed_items"][0]["mailbox"], sim.mailbox("alice.archer"));

  nlohmann::ordered_json result;
  ASSERT_TRUE(read_catalogs(
    (std::string("/d2/r/v2/sets/restore/sets?module=exchange&minor_resource_id=backup-") + tenant_uuid).c_str(), result,
    -1, 0));
  ASSERT_EQ(result["rows"].size(), 1u);
  EXPECT_EQ(result["rows"][0]["uuid"].get<std::string>(), summary["set_uuid"].get<std::string>());
}

TEST_F(Backup_Run, AllMailboxesComeFromGraphAndCtrlCLeavesNoTrace)
{
  // Users whose principal name is not their primary address are backed up by
  // the latter.
  Exo_Sim_Process sim({"--profile", "tiny", "--renamed-users", "3"});
  ASSERT_EQ(run_backup(sim, {sim.mailbox("admin")}).status, 0);
  const std::vector<std::string> all = {
    "--module",  EXCHANGE_MODULE_PATH, "--config", config_,  "backup",     "--tenant",
    tenant_uuid, "--all-mailboxes",    "--pool",   "pool-1", "--channels", "2"};
  EXPECT_EQ(
    agent({"backup", "--tenant", tenant_uuid, "--all-mailboxes", "--mailbox", "a@b", "--pool", "pool-1"}, "both")
      .status,
    64);

  const Agent_Outcome run = agent(
    {"backup", "--tenant", tenant_uuid, "--all-mailboxes", "--pool", "pool-1", "--channels", "2", "--json"}, "all");
  ASSERT_EQ(run.status, 0) << run.out << run.err;
  const nlohmann::json summary = nlohmann::json::parse(run.out);
  EXPECT_EQ(summary["mailboxes"], sim.status()["mailboxes"]);
  // Not on a terminal: one line per mailbox, with the run's figures so far.
  const size_t last = run.err.find("mailbox 5/5 ");
  ASSERT_NE(last, std::string::npos) << run.err;
  const size_t figures = run.err.find(": backed up (", last);
  ASSERT_NE(figures, std::string::npos) << run.err;
  EXPECT_GT(std::stol(run.err.substr(figures + 13)), 0) << run.err.substr(last);
  EXPECT_EQ(summary["mailboxes"].get<int>(), 5);
  EXPECT_TRUE(summary["failed_mailboxes"].empty());
  nlohmann::ordered_json result;
  const std::string query = std::string(
                              "/d2/r/v2/sets/restore/"
                              "sets?module=exchange&minor_resource_id=backup-") +
                            tenant_uuid;
  ASSERT_TRUE(read_catalogs(query.c_str(), result, -1, 0));
  ASSERT_EQ(result["rows"].size(), 1u);
  Exchange_Backup_Set record;
  std::string error;
  ASSERT_TRUE(record.from_json(result["rows"][0], error)) << error;
  EXPECT_EQ(record.index_files.size(), summary["mailboxes"].get<size_t>());
  size_t items = 0;
  EXPECT_EQ(check_set(sim, record, items, std::string("backup-") + tenant_uuid), 0u);
  EXPECT_EQ(static_cast<int>(items), summary["items"].get<int>());

  // A slow service keeps the next run going while Ctrl-C reaches it.
  const std::set<std::string> before = set_files();
  sim.set_faults({{"latency_ms", 300}});
  const std::string job_log = dir_ + "/state/jobs/backup-" + tenant_uuid + ".log";
  const size_t log_size = Agent_Process::read(job_log).size();
  Agent_Process slow(all, dir_, "slow");
  bool processing = false;
  for (int i = 0; i < 600 && !processing; ++i)
  {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    processing = Agent_Process::read(job_log).find("Processing mailbox", log_size) != std::string::npos;
  }
  EXPECT_TRUE(processing) << "the backup never reached a mailbox";
  ::kill(slow.pid(), SIGINT);
  Agent_Outcome cancelled = slow.wait();
  sim.set_faults({{"latency_ms", 0}});
  EXPECT_EQ(cancelled.status, 130) << cancelled.out << cancelled.err;
  EXPECT_TRUE(cancelled.says("cancel")) << cancelled.err;
  result = nlohmann::ordered_json();
  ASSERT_TRUE(read_catalogs(query.c_str(), result, -1, 0));
  EXPECT_EQ(result["rows"].size(), 1u) << "a cancelled run posted a record";
  EXPECT_EQ(set_files(), before) << "a cancelled run left files of its set";
}
