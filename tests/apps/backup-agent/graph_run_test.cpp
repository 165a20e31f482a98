// Backup and restore end to end over Microsoft Graph: the simulated tenant is
// registered with `tenant add --transport graph`, a mailbox is backed up and
// restored into another one by the real agent and module, and the restored
// items, exported again over Graph, are the originals byte for byte. A set
// written over EWS is refused by a Graph registration.

#include "apps/backup-agent/agent_run_fixture.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{
class Graph_Run : public Agent_Run_Fixture
{
protected:
  // Registers the simulator's tenant under the fixture's uuid, with `transport`.
  void register_tenant(const Exo_Sim_Process& sim, const std::string& transport)
  {
    const Office365_Auth_Entry e = sim.entry();
    const Agent_Outcome added = agent({"tenant",           "add",
                                       "--uuid",           tenant_uuid,
                                       "--tenant-id",      e.tenant_id,
                                       "--client-id",      e.client_id,
                                       "--tenant-email",   e.tenant_email,
                                       "--login-endpoint", e.ms_login_endpoint,
                                       "--graph-endpoint", e.ms_graph_endpoint,
                                       "--ews-endpoint",   e.ews_endpoint,
                                       "--transport",      transport,
                                       "--secret-file",    write("secret.txt", e.client_secret + "\n")},
                                      "tenant-" + transport);
    ASSERT_EQ(added.status, 0) << added.out << added.err;
  }

  Agent_Outcome run(const nlohmann::ordered_json& job)
  {
    const std::string id = job["id"].get<std::string>();
    return agent({"run-job", write(id + ".json", job.dump())}, id);
  }

  // A client of `sim` over Graph, acting for `mailbox`.
  static EWS_Client_Ptr graph_client(const Exo_Sim_Process& sim, const std::string& mailbox)
  {
    Office365_Auth_Entry entry = sim.entry();
    entry.transport = "graph";
    EWS_Client_Ptr client;
    EXPECT_TRUE(create_ews_client("", Secure_String(),
                                  std::make_shared<Office365_Auth>(entry, EWS_Client::graph_token_scope(entry)), client,
                                  mailbox.c_str()));
    return client;
  }
};
}  // namespace

TEST_F(Graph_Run, BacksUpAndRestoresOverGraphAndRefusesSetsOfTheOtherTransport)
{
  Exo_Sim_Process sim({"--profile", "tiny"});
  const std::string alice = sim.mailbox("alice.archer");
  const std::string admin = sim.mailbox("admin");
  configure(sim);
  ASSERT_NO_FATAL_FAILURE(register_tenant(sim, "graph"));

  Agent_Outcome outcome = run(backup_job({alice}, "zstd", "graph-e2e"));
  ASSERT_EQ(outcome.status, 0) << outcome.out << outcome.err;
  const Exchange_Backup_Set record = newest_record("graph-e2e");
  EXPECT_EQ(record.transport, "graph");
  ASSERT_FALSE(record.index_files.empty());
  EXPECT_GT(calls(sim, "exportItems"), 0);
  EXPECT_EQ(calls(sim, "ExportItems"), 0);

  EWS_Client_Ptr source = graph_client(sim, alice);
  Tree_Contents original;
  ASSERT_NO_FATAL_FAILURE(contents(*source, "", "", original));
  ASSERT_FALSE(original.empty());
  const std::vector<std::string> all = whole_mailbox(*source);
  EWS_Folders top;
  ASSERT_TRUE(source->list_folders("", top, true));
  // Browsing a live mailbox lists the same folders, by their Graph ids.
  outcome = agent({"folders", "--tenant", tenant_uuid, "--mailbox", alice}, "graph-folders");
  ASSERT_EQ(outcome.status, 0) << outcome.out << outcome.err;
  for (const EWS_Folder& f : top)
    EXPECT_NE(outcome.out.find(f.display_name + "\t" + f.id), std::string::npos) << f.display_name << outcome.out;

  outcome = run(restore_job("graph-r", record.uuid, alice, admin, "Restored/Graph", all));
  ASSERT_EQ(outcome.status, 0) << outcome.out << outcome.err;
  EXPECT_GT(calls(sim, "importItem"), 0);
  EXPECT_EQ(calls(sim, "UploadItems"), 0);
  EWS_Client_Ptr target = graph_client(sim, admin);
  EWS_Folders roots, below;
  ASSERT_TRUE(target->list_folders("", roots, true));
  const EWS_Folder* restored = find(roots, "Restored");
  ASSERT_NE(restored, nullptr);
  ASSERT_TRUE(target->list_folders(restored->id, below, true));
  ASSERT_EQ(below.size(), 1u);
  Tree_Contents got;
  ASSERT_NO_FATAL_FAILURE(contents(*target, below[0].id, "", got));
  EXPECT_TRUE(got == original) << got.size() << " items restored of " << original.size();

  // A set written over EWS is not restored through the Graph registration.
  ASSERT_NO_FATAL_FAILURE(register_tenant(sim, "ews"));
  outcome = run(backup_job({alice}, "zstd", "ews-e2e"));
  ASSERT_EQ(outcome.status, 0) << outcome.out << outcome.err;
  const Exchange_Backup_Set ews_record = newest_record("ews-e2e");
  EXPECT_EQ(ews_record.transport, "ews");
  ASSERT_NO_FATAL_FAILURE(register_tenant(sim, "graph"));
  outcome = run(restore_job("graph-refused", ews_record.uuid, alice, admin, "Refused", all));
  EXPECT_NE(outcome.status, 0);
  EXPECT_TRUE(
    outcome.says("its items were exported over the 'ews' transport and this tenant registration uses the "
                 "'graph' transport"))
    << outcome.out << outcome.err;
  roots.clear();
  ASSERT_TRUE(target->list_folders("", roots, true));
  EXPECT_EQ(find(roots, "Refused"), nullptr);
}
