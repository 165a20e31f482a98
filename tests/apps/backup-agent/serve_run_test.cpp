// `backup-agent serve` end to end: the real agent (loading the real module),
// backupd and exo-sim on loopback, spoken to over HTTP as the web console does;
// and the browsing commands that call the same handlers in-process.

#include "apps/backup-agent/agent_run_fixture.h"
#include "apps/backup-agent/serve_process.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace
{
class Serve_Run : public Agent_Run_Fixture
{
protected:
  // The agent as a command (the fixture's agent(), which the tests' running
  // agent would hide).
  Agent_Outcome agent_run(const std::vector<std::string>& args, const std::string& name)
  {
    return Agent_Run_Fixture::agent(args, name);
  }

  // Polls "agent.job_status" until the job is no longer running.
  static nlohmann::ordered_json finished_status(const Serve_Process& agent, const std::string& job_id)
  {
    nlohmann::ordered_json reply;
    for (int i = 0; i < 600; ++i)
    {
      reply = agent.call("agent.job_status", {{"job_id", job_id}});
      if (!reply.contains("result") || reply["result"]["state"] != "running")
        break;
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    return reply;
  }

  static int error_code(const nlohmann::ordered_json& reply)
  {
    return reply.is_object() && reply.contains("error") ? reply["error"].value("code", 0) : 0;
  }

  // The top-level folder names of `mailbox`, live.
  std::set<std::string> live_top_folders(const Exo_Sim_Process& sim, const std::string& mailbox) const
  {
    EWS_Folders top;
    EXPECT_TRUE(client(sim, mailbox)->list_folders("", top, true));
    std::set<std::string> names;
    for (const EWS_Folder& f : top)
      names.insert(f.display_name);
    return names;
  }
};
}  // namespace

TEST_F(Serve_Run, RefusesWhatItMustAndKeepsServing)
{
  Exo_Sim_Process sim({"--profile", "tiny"});
  configure(sim);
  const std::string console = dir_ + "/console";
  ASSERT_EQ(::mkdir(console.c_str(), 0700), 0);
  std::ofstream(console + "/index.html") << "<html>the console</html>";
  std::ofstream(console + "/app.js") << "let x = 1;";
  Serve_Process agent(config_, dir_, {"--console-dir", console});

  // The key file: owner only, and what --print-key shows.
  struct stat st;
  ASSERT_EQ(::stat((dir_ + "/state/api_key").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  const Agent_Outcome printed = agent_run({"serve", "--print-key"}, "print-key");
  EXPECT_EQ(printed.status, 0);
  EXPECT_EQ(printed.out, agent.key() + "\n");

  const std::string list = R"({"jsonrpc":"2.0","method":"agent.list_tenants","params":{},"id":7})";
  // No key, a wrong key, another scheme: 401 without a body, nothing run.
  const std::string none, wrong = "Bearer " + std::string(64, 'a'), basic = "Basic " + agent.key();
  for (const std::string* authorization : {&none, &wrong, &basic})
  {
    httplib::Result res = agent.post(list, authorization);
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 401) << *authorization;
    EXPECT_TRUE(res->body.empty());
  }
  // A tenant added with a wrong key is not added.
  const nlohmann::ordered_json add = {
    {"jsonrpc", "2.0"}, {"method", "agent.add_tenant"}, {"params", sim.entry().to_json(true)}, {"id", 1}};
  httplib::Result refused = agent.post(add.dump(), &wrong);
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->status, 401);

  // Not JSON, not a request, an unknown method, params of the wrong type.
  httplib::Result bad = agent.post("{\"jsonrpc\": \"2.0\", \"method\": ");
  ASSERT_TRUE(bad);
  EXPECT_EQ(bad->status, 200);
  nlohmann::ordered_json reply = nlohmann::ordered_json::parse(bad->body);
  EXPECT_EQ(error_code(reply), -32700);
  EXPECT_TRUE(reply["id"].is_null());
  reply = nlohmann::ordered_json::parse(agent.post(R"({"jsonrpc":"1.0","method":"agent.list_tenants","id":2})")->body);
  EXPECT_EQ(error_code(reply), -32600);
  EXPECT_EQ(error_code(agent.call("agent.no_such_method", nlohmann::ordered_json::object())), -32601);
  EXPECT_EQ(error_code(agent.call("exchange.delete_everything", nlohmann::ordered_json::object())), -32601);
  reply = agent.call("exchange.list_mailboxes", {{"uuid", 5}});
  EXPECT_EQ(error_code(reply), -32602);
  EXPECT_EQ(reply["error"]["message"], "Invalid params: 'uuid' is expected as string in params.");
  reply = agent.call("exchange.browse_set", nlohmann::ordered_json::array({1, 2}));
  EXPECT_EQ(error_code(reply), -32602);
  EXPECT_EQ(reply["error"]["message"], "Invalid params: params type must be object.");
  reply = agent.call("agent.job_status", {{"job_id", 5}});
  EXPECT_EQ(error_code(reply), -32602);
  EXPECT_EQ(reply["error"]["message"], "Invalid params: 'job_id' is expected as string in params.");
  reply = agent.call("agent.job_status", {{"job_id", "no-such-job"}});
  EXPECT_EQ(error_code(reply), -32602);
  reply = agent.call("agent.start_backup", {{"tenant", tenant_uuid}, {"pool", "pool-1"}, {"mailboxes", {"a", 3}}});
  EXPECT_EQ(error_code(reply), -32602);
  EXPECT_EQ(reply["error"]["message"], "Invalid params: 'mailboxes' is expected as array of strings in params.");
  reply = agent.call("agent.start_backup", {{"tenant", tenant_uuid}, {"pool", "pool-1"}});
  EXPECT_EQ(error_code(reply), -32602);
  reply = agent.call("agent.start_backup",
                     {{"tenant", tenant_uuid}, {"pool", "pool-1"}, {"mailboxes", {"a"}}, {"all_mailboxes", true}});
  EXPECT_EQ(error_code(reply), -32602);
  reply = agent.call("agent.start_backup",
                     {{"tenant", tenant_uuid}, {"pool", "pool-1"}, {"mailboxes", {"a"}}, {"channels", 65}});
  EXPECT_EQ(error_code(reply), -32602);
  reply = agent.call("agent.start_backup",
                     {{"tenant", "00000000-0000-4000-8000-000000000000"}, {"pool", "pool-1"}, {"mailboxes", {"a"}}});
  EXPECT_EQ(error_code(reply), -32602);

  // A body over the limit, and a body of another type.
  httplib::Result big = agent.post(std::string(1024 * 1024 + 1, ' '));
  ASSERT_TRUE(big);
  EXPECT_EQ(big->status, 413);
  httplib::Result form = agent.post(list, nullptr, "application/x-www-form-urlencoded");
  ASSERT_TRUE(form);
  EXPECT_EQ(form->status, 415);
  // A notification is not answered.
  httplib::Result note = agent.post(R"({"jsonrpc":"2.0","method":"agent.list_tenants","params":{}})");
  ASSERT_TRUE(note);
  EXPECT_EQ(note->status, 204);
  EXPECT_TRUE(note->body.empty());

  // Still serving: the registry's tenant, without its secret.
  reply = agent.call("agent.list_tenants", nlohmann::ordered_json::object(), 8);
  ASSERT_TRUE(reply.contains("result")) << reply.dump();
  EXPECT_EQ(reply["id"], 8);
  ASSERT_EQ(reply["result"]["rows"].size(), 1u);
  EXPECT_EQ(reply["result"]["rows"][0]["uuid"], tenant_uuid);
  EXPECT_EQ(reply["result"]["rows"][0]["client_id"], Exo_Sim_Process::client_id);
  EXPECT_FALSE(reply["result"]["rows"][0].contains("client_secret"));

  // The module's instance, through its instance handler.
  reply = agent.call("agent.instances", nlohmann::ordered_json::object());
  ASSERT_TRUE(reply.contains("result")) << reply.dump();
  ASSERT_EQ(reply["result"]["rows"].size(), 1u);
  EXPECT_EQ(reply["result"]["rows"][0]["name"], "Exchange_Online_Proxy");
  EXPECT_EQ(reply["result"]["rows"][0]["type"], "exchange");
  EXPECT_EQ(reply["result"]["rows"][0]["state"], "enabled");
  EXPECT_EQ(reply["result"]["rows"][0]["options"]["is_proxy"], true);

  // The console: no key needed, plain names only.
  auto web = agent.client();
  httplib::Result page = web->Get("/");
  ASSERT_TRUE(page);
  EXPECT_EQ(page->status, 200);
  EXPECT_EQ(page->body, "<html>the console</html>");
  EXPECT_EQ(page->get_header_value("Content-Type"), "text/html; charset=utf-8");
  page = agent.client()->Get("/console/app.js");
  ASSERT_TRUE(page);
  EXPECT_EQ(page->status, 200);
  EXPECT_EQ(page->body, "let x = 1;");
  for (const char* path :
       {"/console/..%2Fagent.json", "/console/%2e%2e", "/console/missing.js", "/console/", "/console/.hidden", "/rpc"})
  {
    page = agent.client()->Get(path);
    ASSERT_TRUE(page) << path;
    EXPECT_NE(page->status, 200) << path;
    EXPECT_EQ(page->body.find("backup_server"), std::string::npos) << path;
  }

  const Agent_Outcome stopped = agent.stop();
  EXPECT_EQ(stopped.status, 0) << stopped.err;
  EXPECT_EQ(stopped.err.find(agent.key()), std::string::npos);
  EXPECT_EQ(stopped.out.find(agent.key()), std::string::npos);
}

TEST_F(Serve_Run, RefusesARemoteAddressWithoutTheFlagAndNeedsAStateDirectory)
{
  Exo_Sim_Process sim({"--profile", "tiny"});
  configure(sim);
  const Agent_Outcome remote = agent_run({"serve", "--listen", "0.0.0.0:0"}, "remote");
  EXPECT_EQ(remote.status, 64);
  EXPECT_TRUE(remote.says("--allow-remote")) << remote.err;
  const Agent_Outcome bad = agent_run({"serve", "--listen", "localhost"}, "bad-listen");
  EXPECT_EQ(bad.status, 64);
  const std::string bare = write("bare.json", "{}");
  Agent_Process no_state({"--module", EXCHANGE_MODULE_PATH, "--config", bare, "serve"}, dir_, "no-state");
  const Agent_Outcome outcome = no_state.wait();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(outcome.says("state_dir")) << outcome.err;
}

TEST_F(Serve_Run, AnswersFiftyConcurrentRequestsEachWithItsOwnReply)
{
  Exo_Sim_Process sim({"--profile", "tiny"});
  configure(sim);
  // Two workers: most requests wait for one in the queue.
  Serve_Process agent(config_, dir_, {"--threads", "2"});
  const std::string alice = sim.mailbox("alice.archer");
  const std::set<std::string> top = live_top_folders(sim, alice);
  ASSERT_FALSE(top.empty());

  const int count = 50;
  std::vector<nlohmann::ordered_json> replies(count);
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i)
    threads.emplace_back(
      [&, i]
      {
        if (i % 3 == 0)
          replies[i] = agent.call("agent.list_tenants", nlohmann::ordered_json::object(), i);
        else if (i % 3 == 1)
          replies[i] = agent.call("exchange.list_mailboxes", {{"uuid", tenant_uuid}, {"limit", 100}}, i);
        else
          replies[i] =
            agent.call("exchange.list_folders", {{"uuid", tenant_uuid}, {"mailbox", alice}, {"entry_id", ""}}, i);
      });
  for (std::thread& t : threads)
    t.join();
  for (int i = 0; i < count; ++i)
  {
    const nlohmann::ordered_json& reply = replies[i];
    ASSERT_TRUE(reply.is_object() && reply.contains("result")) << i << ": " << reply.dump();
    EXPECT_EQ(reply["id"], i);
    const nlohmann::ordered_json& rows = reply["result"]["rows"];
    if (i % 3 == 0)
      EXPECT_EQ(rows.size(), 1u);
    else if (i % 3 == 1)
    {
      std::set<std::string> mailboxes;
      for (const auto& row : rows)
        mailboxes.insert(row["mailbox"].get<std::string>());
      EXPECT_TRUE(mailboxes.count(alice)) << reply.dump();
      EXPECT_EQ(reply["result"]["total"], rows.size());
    }
    else
    {
      std::set<std::string> names;
      for (const auto& row : rows)
        names.insert(row["name"].get<std::string>());
      EXPECT_EQ(names, top);
    }
  }
  EXPECT_EQ(agent.stop().status, 0);
}

TEST_F(Serve_Run, TenantsAreRegisteredAndTestedOverRpc)
{
  Exo_Sim_Process sim({"--profile", "tiny"});
  configure(sim);
  Serve_Process agent(config_, dir_);

  nlohmann::ordered_json fields = sim.entry().to_json(true);
  nlohmann::ordered_json reply = agent.call("exchange.test_auth", fields);
  ASSERT_TRUE(reply.contains("result")) << reply.dump();
  EXPECT_EQ(reply["result"]["result"], true);
  fields["client_secret"] = "not-the-secret";
  reply = agent.call("exchange.test_auth", fields);
  ASSERT_TRUE(reply.contains("result")) << reply.dump();
  EXPECT_EQ(reply["result"]["result"], false);
  EXPECT_FALSE(reply["result"]["message"].get<std::string>().empty());

  nlohmann::ordered_json without_secret = sim.entry().to_json(false);
  reply = agent.call("agent.add_tenant", without_secret);
  EXPECT_EQ(error_code(reply), -32602);
  nlohmann::ordered_json bad_email = sim.entry().to_json(true);
  bad_email["tenant_email"] = "nobody";
  EXPECT_EQ(error_code(agent.call("agent.add_tenant", bad_email)), -32602);

  reply = agent.call("agent.add_tenant", sim.entry().to_json(true));
  ASSERT_TRUE(reply.contains("result")) << reply.dump();
  const std::string uuid = reply["result"]["uuid"].get<std::string>();
  EXPECT_NE(uuid, tenant_uuid);
  reply = agent.call("agent.list_tenants", nlohmann::ordered_json::object());
  ASSERT_EQ(reply["result"]["rows"].size(), 2u);
  EXPECT_EQ(reply["result"]["rows"][1]["uuid"], uuid);
  EXPECT_FALSE(reply["result"]["rows"][1].contains("client_secret"));
  EXPECT_EQ(reply.dump().find(Exo_Sim_Process::client_secret), std::string::npos);

  // The new registration works: its mailboxes can be listed.
  reply = agent.call("exchange.list_mailboxes", {{"uuid", uuid}});
  ASSERT_TRUE(reply.contains("result")) << reply.dump();
  EXPECT_FALSE(reply["result"]["rows"].empty());
  EXPECT_EQ(agent.stop().status, 0);
}

TEST_F(Serve_Run, ABackupAndARestoreStartedOverRpcFinishWithTheCommandsSummaries)
{
  Exo_Sim_Process sim({"--profile", "tiny"});
  configure(sim);
  Serve_Process agent(config_, dir_);
  const std::string alice = sim.mailbox("alice.archer");
  const std::string admin = sim.mailbox("admin");

  nlohmann::ordered_json reply = agent.call("agent.list_pools", nlohmann::ordered_json::object());
  ASSERT_TRUE(reply.contains("result")) << reply.dump();
  ASSERT_EQ(reply["result"]["rows"].size(), 1u);
  EXPECT_EQ(reply["result"]["rows"][0]["uuid"], "pool-1");
  EXPECT_EQ(reply["result"]["rows"][0]["name"], "main");

  reply = agent.call("agent.start_backup",
                     {{"tenant", tenant_uuid}, {"mailboxes", {alice}}, {"pool", "pool-1"}, {"channels", 2}});
  ASSERT_TRUE(reply.contains("result")) << reply.dump();
  const std::string job_id = reply["result"]["job_id"].get<std::string>();
  reply = finished_status(agent, job_id);
  ASSERT_TRUE(reply.contains("result")) << reply.dump();
  const nlohmann::ordered_json backup = reply["result"];
  EXPECT_EQ(backup["job_id"], job_id);
  EXPECT_EQ(backup["kind"], "backup");
  ASSERT_EQ(backup["state"], "succeeded") << backup.dump();
  EXPECT_EQ(backup["progress"]["mailboxes_total"], 1);
  EXPECT_EQ(backup["progress"]["mailboxes_done"], 1);
  const Exchange_Backup_Set record = newest_record("backup-" + std::string(tenant_uuid));
  const nlohmann::ordered_json& summary = backup["summary"];
  EXPECT_EQ(summary["set_uuid"], record.uuid);
  EXPECT_EQ(summary["rev"], record.rev);
  EXPECT_EQ(summary["mailboxes"], 1);
  EXPECT_GT(summary["items"].get<int>(), 0);
  EXPECT_EQ(summary["bytes"], record.size);
  EXPECT_GT(backup["progress"]["items"].get<int>(), 0);
  EXPECT_TRUE(summary["failed_items"].empty());

  // The set as "agent.list_sets" gives it, browsed with what it carries.
  reply = agent.call("agent.list_sets", {{"mailbox", alice}});
  ASSERT_TRUE(reply.contains("result")) << reply.dump();
  ASSERT_EQ(reply["result"]["rows"].size(), 1u);
  const nlohmann::ordered_json set = reply["result"]["rows"][0];
  EXPECT_EQ(set["set_uuid"], record.uuid);
  EXPECT_EQ(set["catalog_uuid"], record.uuid);
  EXPECT_EQ(set["pool_uuid"], "pool-1");
  EXPECT_EQ(set["uri"], record.uri);
  EXPECT_EQ(set["items"], summary["items"]);
  EXPECT_EQ(set["mailboxes"], nlohmann::ordered_json::array({alice}));
  reply = agent.call("agent.list_sets", {{"mailbox", "nobody@demo.exosim.test"}});
  EXPECT_TRUE(reply["result"]["rows"].empty());
  reply = agent.call("exchange.browse_set", {{"pool_uuid", set["pool_uuid"]},
                                             {"catalog_uuid", set["catalog_uuid"]},
                                             {"uri", set["uri"]},
                                             {"mailbox", alice},
                                             {"parent_entry_ids", nlohmann::ordered_json::array()},
                                             {"rev", set["rev"]}});
  ASSERT_TRUE(reply.contains("result")) << reply.dump();
  std::set<std::string> browsed;
  for (const auto& row : reply["result"]["rows"])
    browsed.insert(row["name"].get<std::string>());
  EXPECT_EQ(browsed, live_top_folders(sim, alice));
  const std::string first = reply["result"]["rows"][0]["name"].get<std::string>();

  // A restore of that folder into another mailbox.
  reply = agent.call("agent.start_restore",
                     {{"set", record.uuid}, {"from", alice}, {"to", admin}, {"path", first}, {"relocation", "Back"}});
  ASSERT_TRUE(reply.contains("result")) << reply.dump();
  reply = finished_status(agent, reply["result"]["job_id"].get<std::string>());
  ASSERT_TRUE(reply.contains("result")) << reply.dump();
  const nlohmann::ordered_json restore = reply["result"];
  EXPECT_EQ(restore["kind"], "restore");
  ASSERT_EQ(restore["state"], "succeeded") << restore.dump();
  EXPECT_EQ(restore["summary"]["set_uuid"], record.uuid);
  EXPECT_EQ(restore["summary"]["to"], admin);
  EXPECT_GT(restore["summary"]["items_selected"].get<int>(), 0);
  EXPECT_EQ(restore["summary"]["items_restored"], restore["summary"]["items_selected"]);
  EXPECT_EQ(restore["summary"]["failures"], "");
  EXPECT_TRUE(live_top_folders(sim, admin).count("Back"));
  // A path the set does not hold starts nothing.
  reply = agent.call("agent.start_restore", {{"set", record.uuid}, {"from", alice}, {"to", admin}, {"path", "Nope"}});
  EXPECT_EQ(error_code(reply), -32603);
  EXPECT_NE(reply["error"]["message"].get<std::string>().find("Nope"), std::string::npos);
  EXPECT_EQ(agent.stop().status, 0);
}

TEST_F(Serve_Run, TheBrowsingCommandsPrintWhatTheHandlersAnswer)
{
  Exo_Sim_Process sim({"--profile", "tiny"});
  configure(sim);
  const std::string alice = sim.mailbox("alice.archer");

  // Every mailbox, one page of one at a time.
  Agent_Outcome all = agent_run({"mailboxes", "--tenant", tenant_uuid, "--json"}, "mailboxes");
  ASSERT_EQ(all.status, 0) << all.err;
  const nlohmann::ordered_json listed = nlohmann::ordered_json::parse(all.out);
  ASSERT_GE(listed["rows"].size(), 2u);
  EXPECT_EQ(listed["total"], listed["rows"].size());
  Agent_Outcome paged = agent_run({"mailboxes", "--tenant", tenant_uuid, "--page-size", "1"}, "paged");
  ASSERT_EQ(paged.status, 0) << paged.err;
  std::string lines;
  for (const auto& row : listed["rows"])
    lines += row["mailbox"].get<std::string>() + "\n";
  EXPECT_EQ(paged.out, lines);
  Agent_Outcome searched = agent_run({"mailboxes", "--tenant", tenant_uuid, "--search", "alice"}, "searched");
  ASSERT_EQ(searched.status, 0) << searched.err;
  EXPECT_EQ(searched.out, alice + "\n");
  Agent_Outcome unknown = agent_run({"mailboxes", "--tenant", "00000000-0000-4000-8000-000000000000"}, "unknown");
  EXPECT_EQ(unknown.status, 1);
  EXPECT_TRUE(unknown.says("-32603")) << unknown.err;
  EXPECT_EQ(agent_run({"mailboxes"}, "no-tenant").status, 64);

  for (const char* command : {"mailboxes", "folders", "browse", "instances", "serve"})
  {
    const Agent_Outcome help = agent_run({command, "--help"}, std::string(command) + "-help");
    EXPECT_EQ(help.status, 0) << command;
    EXPECT_EQ(help.out.find(std::string("usage: backup-agent [--config FILE] ") + command), 0u) << help.out;
  }
  const Agent_Outcome usage = agent_run({"--help"}, "usage");
  for (const char* command : {"serve", "mailboxes", "folders", "browse", "instances"})
    EXPECT_NE(usage.out.find(std::string("\n  ") + command + " "), std::string::npos) << command;

  Agent_Outcome instances = agent_run({"instances"}, "instances");
  ASSERT_EQ(instances.status, 0) << instances.err;
  EXPECT_EQ(instances.out, "Exchange_Online_Proxy\texchange\tenabled\n");

  // Live folders: the top, then the children of one.
  Agent_Outcome folders = agent_run({"folders", "--tenant", tenant_uuid, "--mailbox", alice, "--json"}, "folders");
  ASSERT_EQ(folders.status, 0) << folders.err;
  const nlohmann::ordered_json top = nlohmann::ordered_json::parse(folders.out);
  std::set<std::string> names;
  for (const auto& row : top["rows"])
    names.insert(row["name"].get<std::string>());
  EXPECT_EQ(names, live_top_folders(sim, alice));
  EXPECT_EQ(top["total"], top["rows"].size());
  EWS_Client_Ptr live_client = client(sim, alice);
  for (const auto& row : top["rows"])
  {
    const std::string id = row["entry_id"].get<std::string>();
    EWS_Folders children;
    ASSERT_TRUE(live_client->list_folders(id, children, true));
    Agent_Outcome below =
      agent_run({"folders", "--tenant", tenant_uuid, "--mailbox", alice, "--entry-id", id, "--json"}, "below");
    ASSERT_EQ(below.status, 0) << below.err;
    const nlohmann::ordered_json listed_below = nlohmann::ordered_json::parse(below.out);
    ASSERT_EQ(listed_below["rows"].size(), children.size());
    for (size_t i = 0; i < children.size(); ++i)
      EXPECT_EQ(listed_below["rows"][i]["entry_id"], children[i].id);
  }
  Agent_Outcome text = agent_run({"folders", "--tenant", tenant_uuid, "--mailbox", alice}, "folders-text");
  ASSERT_EQ(text.status, 0);
  EXPECT_NE(text.out.find(top["rows"][0]["name"].get<std::string>() + "\t" +
                          top["rows"][0]["entry_id"].get<std::string>() + "\n"),
            std::string::npos);

  // A backup, then the set browsed by a folder path.
  ASSERT_EQ(run_job(sim, backup_job({alice})).status, 0);
  const Exchange_Backup_Set record = newest_record();
  EWS_Client_Ptr ews = client(sim, alice);
  EWS_Folders live;
  ASSERT_TRUE(ews->list_folders("", live, true));
  const EWS_Folder* inbox = find(live, "Inbox");
  ASSERT_NE(inbox, nullptr);
  EWS_Items items;
  ASSERT_TRUE(ews->list_items(inbox->id, make_ews_item_appender(items), 0, 100000));
  ASSERT_FALSE(items.empty());
  Agent_Outcome browsed =
    agent_run({"browse", "--set", record.uuid, "--mailbox", alice, "--path", "Inbox", "--json"}, "browse");
  ASSERT_EQ(browsed.status, 0) << browsed.err;
  const nlohmann::ordered_json listing = nlohmann::ordered_json::parse(browsed.out);
  EXPECT_EQ(listing["parent_entry_ids"], nlohmann::ordered_json::array({inbox->id}));
  std::set<std::string> item_ids, browsed_ids;
  for (const EWS_Item& item : items)
    item_ids.insert(item.id);
  for (const auto& row : listing["rows"])
    if (row.contains("subject"))
      browsed_ids.insert(row["entry_id"].get<std::string>());
  EXPECT_EQ(browsed_ids, item_ids);
  Agent_Outcome missing =
    agent_run({"browse", "--set", record.uuid, "--mailbox", alice, "--path", "Inbox/No such folder"}, "missing");
  EXPECT_EQ(missing.status, 1);
  EXPECT_TRUE(missing.says("the set has no folder Inbox/No such folder")) << missing.err;
}

TEST_F(Serve_Run, SigtermCancelsTheRunningBackupAndEndsCleanly)
{
  // Every EWS answer late: the backup is still running when the signal comes.
  Exo_Sim_Process sim({"--profile", "tiny", "--latency-ms", "200"});
  configure(sim);
  Serve_Process agent(config_, dir_);
  nlohmann::ordered_json reply =
    agent.call("agent.start_backup", {{"tenant", tenant_uuid},
                                      {"mailboxes", {sim.mailbox("alice.archer"), sim.mailbox("bruno.brandt")}},
                                      {"pool", "pool-1"}});
  ASSERT_TRUE(reply.contains("result")) << reply.dump();
  reply = agent.call("agent.job_status", {{"job_id", reply["result"]["job_id"]}});
  ASSERT_EQ(reply["result"]["state"], "running") << reply.dump();
  const auto asked = std::chrono::steady_clock::now();
  const Agent_Outcome stopped = agent.stop();
  EXPECT_EQ(stopped.status, 0) << stopped.err;
  EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(60));
  EXPECT_TRUE(stopped.says("cancelled")) << stopped.err;
  // A cancelled backup posts no record.
  nlohmann::ordered_json result;
  ASSERT_TRUE(read_catalogs("/d2/r/v2/sets/restore/sets?module=exchange", result, -1, 0));
  EXPECT_TRUE(result["rows"].empty()) << result.dump();
}
