// Restores end to end: backupd, exo-sim and the real agent (loading the real
// module) on loopback. A mailbox is backed up, then restored (whole, one nested
// folder, single items) into another mailbox under a relocation folder through
// restore job definitions; the restored items, exported from exo-sim again, must
// be byte for byte the originals, in folders of the original names.

#include "apps/backup-agent/agent_run_fixture.h"
#include "backup/exchange/core/ews/ews_mtf_utils.h"
#include "host/ews/ews_folder_creation_request.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace
{
const char* const odd_name =
  "\xc3\x9c"
  "ber/Projekte \xe2\x82\xac";  // Unicode and a "/"
const char* const uni_name = "\xc3\x9cn\xc3\xaf Ordner";

class Restore_Run : public Agent_Run_Fixture
{
};

class Restore_Run_Over : public Over_Transport_T<Restore_Run>
{
};
}  // namespace

INSTANTIATE_TEST_SUITE_P(Transports, Restore_Run_Over, Restore_Run_Over::transport_names(),
                         [](const ::testing::TestParamInfo<std::string>& info) { return info.param; });

TEST_P(Restore_Run_Over, RestoredItemsAreTheOriginalsInFoldersOfTheOriginalNames)
{
  Exo_Sim_Process sim({"--profile", "tiny"});
  const std::string alice = sim.mailbox("alice.archer");
  const std::string admin = sim.mailbox("admin");

  // Folders of awkward names in alice's mailbox, each given copies of some
  // items: a Unicode name with "/", a Unicode name with a subfolder, and two
  // folders of one name (under different parents: Exchange refuses a second
  // folder of one name under one parent). (A selection entry names its folders decoded and split
  // at "/", so a folder below a name with "/" is restored with its parent.)
  EWS_Client_Ptr ews = client(sim, alice);
  EWS_Folders top;
  ASSERT_TRUE(ews->list_folders("", top, true));
  ASSERT_FALSE(top.empty());
  Tree_Contents seed;
  ASSERT_NO_FATAL_FAILURE(contents(*ews, top[0].id, "", seed));
  ASSERT_FALSE(seed.empty());
  std::vector<ustring> copies;
  for (auto it = seed.begin(); it != seed.end() && copies.size() < 2; ++it)
    copies.emplace_back(it->second.begin(), it->second.end());
  EWS_Folder_Creation_Request odd, uni, dup1, dup2, nested;
  odd.display_name = odd_name;
  uni.display_name = uni_name;
  dup1.display_name = dup2.display_name = "Twin";
  nested.display_name = "Inner";
  ASSERT_TRUE(ews->create_folder("", odd, ewstype__DistinguishedFolderIdNameType__msgfolderroot));
  ASSERT_TRUE(ews->create_folder("", uni, ewstype__DistinguishedFolderIdNameType__msgfolderroot));
  ASSERT_TRUE(ews->create_folder(uni.id, nested, ewstype__DistinguishedFolderIdNameType__msgfolderroot));
  ASSERT_TRUE(ews->create_folder("", dup1, ewstype__DistinguishedFolderIdNameType__msgfolderroot));
  ASSERT_TRUE(ews->create_folder(uni.id, dup2, ewstype__DistinguishedFolderIdNameType__msgfolderroot));
  for (const std::string& id : {odd.id, uni.id, nested.id, dup1.id, dup2.id})
    ASSERT_TRUE(ews->upload_items(id, copies));

  Agent_Outcome run = run_job(sim, backup_job({alice}));
  ASSERT_EQ(run.status, 0) << run.out << run.err;
  nlohmann::ordered_json result;
  ASSERT_TRUE(read_catalogs("/d2/r/v2/sets/restore/sets?module=exchange&minor_resource_id=e2e", result, -1, 0));
  ASSERT_EQ(result["rows"].size(), 1u);
  const std::string set = result["rows"][0]["uuid"].get<std::string>();

  Tree_Contents original;
  ASSERT_NO_FATAL_FAILURE(contents(*ews, "", "", original));

  // The whole mailbox: every top-level folder.
  const std::vector<std::string> all = whole_mailbox(*ews);
  run = run_job(sim, restore_job("r-all", set, alice, admin, "Restored/All", all));
  ASSERT_EQ(run.status, 0) << run.out << run.err;
  EXPECT_GT(calls(sim, transport_ == "graph" ? "importItem" : "UploadItems"), 0);
  EXPECT_EQ(calls(sim, transport_ == "graph" ? "UploadItems" : "importItem"), 0);

  EWS_Client_Ptr target = client(sim, admin);
  EWS_Folders roots;
  ASSERT_TRUE(target->list_folders("", roots, true));
  const EWS_Folder* restored = find(roots, "Restored");
  ASSERT_NE(restored, nullptr);
  EWS_Folders below;
  ASSERT_TRUE(target->list_folders(restored->id, below, true));
  ASSERT_EQ(below.size(), 1u);
  const EWS_Folder* whole = &below[0];
  EXPECT_EQ(whole->display_name, "All");
  Tree_Contents got;
  ASSERT_NO_FATAL_FAILURE(contents(*target, whole->id, "", got));
  EXPECT_TRUE(got == original) << difference(got, original);

  // The same relocation again: the restore never merges into folders it did not
  // make, and Exchange refuses a second "Restored" in the root, so the run fails
  // before anything is restored.
  run = run_job(sim, restore_job("r-again", set, alice, admin, "Restored/All", all));
  EXPECT_NE(run.status, 0) << run.out << run.err;
  Tree_Contents unchanged;
  ASSERT_NO_FATAL_FAILURE(contents(*target, whole->id, "", unchanged));
  EXPECT_TRUE(unchanged == original) << difference(unchanged, original);

  // One nested folder and two single items, under another relocation.
  std::vector<std::string> some = {encode_name(uni_name) + "/" + encode_name(nested.id)};
  EWS_Items items;
  ASSERT_TRUE(ews->list_items(dup2.id, make_ews_item_appender(items), 0, 100));
  ASSERT_EQ(items.size(), 2u);
  for (const EWS_Item& item : items)
    some.push_back(encode_name(uni_name) + "/Twin/" + encode_name(item.id));
  run = run_job(sim, restore_job("r-some", set, alice, admin, "Some", some));
  ASSERT_EQ(run.status, 0) << run.out << run.err;
  roots.clear();
  ASSERT_TRUE(target->list_folders("", roots, true));
  const EWS_Folder* part = find(roots, "Some");
  ASSERT_NE(part, nullptr);
  got.clear();
  ASSERT_NO_FATAL_FAILURE(contents(*target, part->id, "", got));
  Tree_Contents want;
  for (const auto& entry : original)
    if (entry.first == std::string(uni_name) + "/Inner")
      want.insert(entry);
  for (const ustring& copy : copies)
    want.emplace(std::string(uni_name) + "/Twin", std::string(copy.begin(), copy.end()));
  EXPECT_TRUE(got == want) << difference(got, want);
}

TEST_F(Restore_Run, FaultsDuringTheRestoreLoseNoItem)
{
  Exo_Sim_Process sim({"--profile", "tiny", "--busy-backoff-ms", "20"});
  const std::string alice = sim.mailbox("alice.archer");
  Agent_Outcome run = run_job(sim, backup_job({alice}));
  ASSERT_EQ(run.status, 0) << run.out << run.err;
  nlohmann::ordered_json result;
  ASSERT_TRUE(read_catalogs("/d2/r/v2/sets/restore/sets?module=exchange&minor_resource_id=e2e", result, -1, 0));
  ASSERT_EQ(result["rows"].size(), 1u);
  EWS_Client_Ptr ews = client(sim, alice);
  Tree_Contents original;
  ASSERT_NO_FATAL_FAILURE(contents(*ews, "", "", original));
  const std::vector<std::string> all = whole_mailbox(*ews);

  // Refusals before the server acts (throttling, 503). A connection dropped
  // after an upload or folder creation took effect is not among them: the
  // client's retry then repeats an operation that is not idempotent.
  sim.set_faults({{"busy_rate", 0.2}, {"ews_503_rate", 0.05}});
  run = run_job(sim, restore_job("r-faults", result["rows"][0]["uuid"].get<std::string>(), alice, sim.mailbox("admin"),
                                 "Under Faults", all));
  const nlohmann::json status = sim.status();
  sim.set_faults({{"busy_rate", 0}, {"ews_503_rate", 0}});
  ASSERT_EQ(run.status, 0) << run.out << run.err;
  EXPECT_GT(status["faults"]["busy"].get<int>(), 0) << status.dump();

  Tree_Contents got;
  ASSERT_NO_FATAL_FAILURE(relocated(*client(sim, sim.mailbox("admin")), "Under Faults", got));
  EXPECT_TRUE(got == original) << difference(got, original);
}

TEST_P(Restore_Run_Over, SetsCommandListsTheSetAndRestoreCommandRestoresAFolderPathAndAnItem)
{
  Exo_Sim_Process sim({"--profile", "tiny"});
  const std::string alice = sim.mailbox("alice.archer");
  const std::string admin = sim.mailbox("admin");
  Agent_Outcome run = run_job(sim, backup_job({alice}));
  ASSERT_EQ(run.status, 0) << run.out << run.err;
  nlohmann::ordered_json result;
  ASSERT_TRUE(read_catalogs("/d2/r/v2/sets/restore/sets?module=exchange&minor_resource_id=e2e", result, -1, 0));
  const std::string set = result["rows"][0]["uuid"].get<std::string>();

  // A nested folder by its path, and one item of Calendar by its id.
  EWS_Client_Ptr ews = client(sim, alice);
  EWS_Folders top;
  ASSERT_TRUE(ews->list_folders("", top, true));
  const EWS_Folder* inbox = find(top, "Inbox");
  const EWS_Folder* calendar = find(top, "Calendar");
  ASSERT_TRUE(inbox != nullptr && calendar != nullptr);
  EWS_Folders below;
  ASSERT_TRUE(ews->list_folders(inbox->id, below, true));
  ASSERT_FALSE(below.empty());
  EWS_Items items;
  ASSERT_TRUE(ews->list_items(calendar->id, make_ews_item_appender(items), 0, 100));
  ASSERT_FALSE(items.empty());
  Tree_Contents original;
  ASSERT_NO_FATAL_FAILURE(contents(*ews, "", "", original));

  const Agent_Outcome listed = agent({"sets", "--mailbox", alice, "--json"}, "sets");
  ASSERT_EQ(listed.status, 0) << listed.err;
  const nlohmann::json sets = nlohmann::json::parse(listed.out);
  ASSERT_EQ(sets.size(), 1u);
  EXPECT_EQ(sets[0]["set_uuid"], set);
  EXPECT_EQ(sets[0]["mailboxes"], nlohmann::json::array({alice}));
  EXPECT_EQ(sets[0]["items"].get<size_t>(), original.size());
  const Agent_Outcome empty = agent({"sets", "--mailbox", admin, "--json"}, "no-sets");
  EXPECT_EQ(empty.status, 0);
  EXPECT_EQ(nlohmann::json::parse(empty.out), nlohmann::json::array());

  EXPECT_EQ(agent({"restore", "--set", set, "--from", alice, "--to", admin}, "bad").status, 64);
  const Agent_Outcome refused =
    agent({"restore", "--set", set, "--from", alice, "--to", admin, "--path", "Inbox/No such folder"}, "missing");
  EXPECT_EQ(refused.status, 1);
  EXPECT_TRUE(refused.says("the set has no folder Inbox/No such folder")) << refused.err;

  // Over Graph an item is named by its subject as over EWS (the listing expands it), so it
  // is restored alone.
  run = agent({"restore", "--set", set, "--from", alice, "--to", admin, "--path", "Inbox/" + below[0].display_name,
               "--item", items[0].id, "--relocation", "By Command", "--json"},
              "restore");
  ASSERT_EQ(run.status, 0) << run.out << run.err;
  const nlohmann::json summary = nlohmann::json::parse(run.out);
  EXPECT_GE(summary["folders_selected"].get<int>(), 1);
  EXPECT_GT(summary["bytes"].get<long>(), 0);
  EXPECT_EQ(summary["failures"], "");

  Tree_Contents got;
  ASSERT_NO_FATAL_FAILURE(relocated(*client(sim, admin), "By Command", got));
  Tree_Contents want;
  for (const auto& entry : original)
    if (entry.first == "Inbox/" + below[0].display_name)
      want.insert(entry);
  EWS_Export_Requests one(1);
  one[0].id = items[0].id;
  ASSERT_TRUE(ews->export_items(one));
  want.emplace("Calendar", std::string(reinterpret_cast<const char*>(one[0].data.ptr.get()), one[0].data.size));
  EXPECT_TRUE(got == want) << difference(got, want);
  // The summary counts what the selection held and what the job restored.
  EXPECT_EQ(summary["items_selected"].get<size_t>(), want.size());
  EXPECT_EQ(summary["items_restored"].get<size_t>(), want.size());
}
