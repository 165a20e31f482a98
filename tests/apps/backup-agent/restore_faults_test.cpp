// Restores under faults, end to end: backupd, exo-sim and the real agent with
// the real module on loopback. A mailbox is backed up, then restored whole
// while exo-sim drops connections after acting on the request (so an upload or
// a folder creation took effect and its answer was lost), answers
// ErrorServerBusy and 503. Every item must be in the restored folders exactly
// once, byte for byte, or be named as failed.

#include "agent_run_fixture.h"

#include <string>
#include <vector>

namespace
{
class Restore_Faults : public Agent_Run_Fixture
{
protected:
  // Checks the restored tree against the original: nothing twice, nothing
  // foreign, and each missing item one of the run's named failures.
  static void expect_once_or_named(const Tree_Contents& got, const Tree_Contents& original, const Agent_Outcome& run)
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
};
}  // namespace

TEST_F(Restore_Faults, DroppedConnectionsBusyAnd503NeitherDuplicateNorLoseAnItem)
{
  Exo_Sim_Process sim({"--profile", "tiny", "--busy-backoff-ms", "20"});
  const std::string alice = sim.mailbox("alice.archer");
  const std::string admin = sim.mailbox("admin");
  // Dropped connections are retried after 20 ms.
  const std::string settings = R"({"ews": {"retry_base_delay_ms": 20}})";
  Agent_Outcome run = run_job(sim, backup_job({alice}, "zstd", "faults"), settings);
  ASSERT_EQ(run.status, 0) << run.out << run.err;
  const std::string set = newest_record("faults").uuid;

  EWS_Client_Ptr ews = client(sim, alice);
  Tree_Contents original;
  ASSERT_NO_FATAL_FAILURE(contents(*ews, "", "", original));
  ASSERT_GT(original.size(), 20u);
  const std::vector<std::string> all = whole_mailbox(*ews);
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
    run = run_job(sim, restore_job("r-faults-" + std::to_string(round++), set, alice, admin, r.relocation, all, 3),
                  settings);
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
