#include <sys/stat.h>  // backupd_process.h uses chmod

#include "apps/backupd/backupd_process.h"
#include "backup/exchange/core/ews/ews_mtf_utils.h"
#include "backup/exchange/core/ews/io_options.h"
#include "backup/exchange/websvcs_agent/json_rpc_exchange_online_list_backupset_handler.h"
#include "backup/exchange/websvcs_agent/json_rpc_exchange_online_list_folder_handler.h"
#include "backup/exchange/websvcs_agent/json_rpc_exchange_online_list_handler.h"
#include "backup/exchange/websvcs_agent/json_rpc_exchange_online_test_handler.h"
#include "host/ews/ews_folders_index.h"
#include "host/ews/ews_params.h"
#include "host/storage/client_io_ex.h"
#include "support/exo_sim_process.h"
#include "support/log_capture.h"
#include "tests/backup/exchange/websvcs_agent/handler_call.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

namespace
{
// The names of the rows of a folder listing; checks that each row is exactly
// {"entry_id", "name"} and that "total" counts the rows.
std::vector<std::string> folder_names(const json& result)
{
  std::vector<std::string> names;
  EXPECT_EQ(result["total"], result["rows"].size()) << result.dump();
  for (const json& row : result["rows"])
  {
    EXPECT_EQ(row.size(), 2u) << row.dump();
    EXPECT_TRUE(row["entry_id"].is_string() && !row["entry_id"].get<std::string>().empty()) << row.dump();
    names.push_back(row["name"].get<std::string>());
  }
  return names;
}

std::string entry_id_of(const json& result, const std::string& name)
{
  for (const json& row : result["rows"])
    if (row["name"] == name)
      return row["entry_id"];
  ADD_FAILURE() << name << " not in " << result.dump();
  return std::string();
}

class OnTheSimulator : public ::testing::Test
{
protected:
  OnTheSimulator() : sim_({"--profile", "tiny"}), tenants_({{"t1", sim_.entry()}}) { EWS_Params::reset(); }

  Exo_Sim_Process sim_;
  Registered_Tenants tenants_;
};
}  // namespace

TEST_F(OnTheSimulator, TestHandlerAnswersWhetherTheRegistrationGetsAToken)
{
  JSON_RPC_Exchange_Online_Test_Handler handler;
  EXPECT_EQ(call_handler(handler, sim_.entry().to_json(true)).result().dump(), R"({"result":true,"message":""})");

  Office365_Auth_Entry wrong = sim_.entry();
  wrong.client_secret = "not-the-registered-secret";
  const Handler_Call refused = call_handler(handler, wrong.to_json(true));
  ASSERT_TRUE(refused.result().is_object()) << "a failed test is still a response";
  EXPECT_EQ(refused.result()["result"], false);
  const std::string message = refused.result()["message"];
  EXPECT_FALSE(message.empty());
  EXPECT_EQ(message.find("not-the-registered-secret"), std::string::npos) << message;
}

TEST_F(OnTheSimulator, ListHandlerPagesThroughTheTenantsMailboxes)
{
  JSON_RPC_Exchange_Online_List_Handler handler;
  const json first = call_handler(handler, json{{"uuid", "t1"}, {"limit", 1}}).result();
  ASSERT_TRUE(first.contains("skip_token")) << first.dump();
  EXPECT_EQ(first["total"], 2);
  EXPECT_EQ(first["rows"], json::array({json{{"mailbox", sim_.mailbox("admin")}}}));

  const json last =
    call_handler(handler, json{{"uuid", "t1"}, {"limit", 1}, {"skip_token", first["skip_token"]}}).result();
  const json alice_only{{"rows", json::array({json{{"mailbox", sim_.mailbox("alice.archer")}}})}};
  EXPECT_EQ(last.dump(), alice_only.dump());
}

TEST_F(OnTheSimulator, FolderHandlerListsTheRootThenAFolderThenAnEmptyOne)
{
  JSON_RPC_Exchange_Online_List_Folder_Handler handler;
  const std::string alice = sim_.mailbox("alice.archer");
  const json root = call_handler(handler, json{{"uuid", "t1"}, {"mailbox", alice}, {"entry_id", ""}}).result();
  const std::vector<std::string> top = folder_names(root);
  EXPECT_EQ(std::set<std::string>(top.begin(), top.end()),
            (std::set<std::string>{"Inbox", "Drafts", "Sent Items", "Deleted Items", "Outbox", "Junk Email", "Calendar",
                                   "Contacts", "Tasks", "Notes", "Journal"}));
  EXPECT_EQ(top.size(), 11u);

  const json inbox =
    call_handler(handler, json{{"uuid", "t1"}, {"mailbox", alice}, {"entry_id", entry_id_of(root, "Inbox")}}).result();
  const std::vector<std::string> below = folder_names(inbox);
  EXPECT_NE(std::find(below.begin(), below.end(), "Empty"), below.end());
  EXPECT_EQ(std::find(below.begin(), below.end(), "Inbox"), below.end());

  const json empty =
    call_handler(handler, json{{"uuid", "t1"}, {"mailbox", alice}, {"entry_id", entry_id_of(inbox, "Empty")}}).result();
  EXPECT_EQ(empty.dump(), R"({"total":0,"rows":[]})");
}

TEST_F(OnTheSimulator, FolderHandlerReportsWhichListingFailed)
{
  JSON_RPC_Exchange_Online_List_Folder_Handler handler;
  const Handler_Call folder = call_handler(
    handler, json{{"uuid", "t1"}, {"mailbox", sim_.mailbox("alice.archer")}, {"entry_id", "AAMkNoSuchFolder"}});
  EXPECT_EQ(folder.code(), -32603);
  EXPECT_EQ(folder.message(), "Failed to list folder by Exchange Web Service.");

  const Handler_Call root =
    call_handler(handler, json{{"uuid", "t1"}, {"mailbox", sim_.mailbox("nobody")}, {"entry_id", ""}});
  EXPECT_EQ(root.code(), -32603);
  EXPECT_EQ(root.message(), "Failed to list root folder by Exchange Web Service.");
}

namespace
{
const char* const anna = "anna@x.test";

EWS_Folder folder(const std::string& id, const std::string& name)
{
  EWS_Folder f;
  f.id = id;
  f.display_name = name;
  return f;
}

// backupd with pool-b, and the index of anna's set 3 under host-1/browse: Inbox
// (a subfolder and two items) and two empty top-level folders.
class BackupSetBrowse : public ::testing::Test
{
protected:
  BackupSetBrowse()
  {
    EXPECT_TRUE(backupd_.add_pool("pool-b", "main"));
    EXPECT_TRUE(backupd_.start());
    backupd_.configure_host();
    EWS_Folder inbox = folder("in", "Inbox");
    inbox.subfolders.push_back(folder("pj", "Projects"));
    EWS_Item hello, blank;
    hello.id = "it-1";
    hello.subject = "Hello";
    blank.id = "it-2";
    inbox.items = {hello, blank};
    std::string text, name;
    EXPECT_TRUE(dump_ews_folders(EWS_Folders{inbox, folder("d", "Drafts"), folder("s", "Sent Items")}, text, {}));
    index_name(anna, 3, name);
    Client_IO_Ex io;
    EXPECT_TRUE(create_io_channel("pool-b", "host-1/browse", 0, io, 0));
    EXPECT_TRUE(io.put_contents(name, text, true));
  }

  Handler_Call browse(const json& parents, json extra = json::object())
  {
    json params{{"pool_uuid", "pool-b"}, {"catalog_uuid", "set-1"},     {"uri", "host-1/browse"},
                {"mailbox", anna},       {"parent_entry_ids", parents}, {"rev", 3}};
    params.update(extra);
    return call_handler(handler_, params);
  }

  Backupd_Process backupd_;
  JSON_RPC_Exchange_Online_List_Backupset_Handler handler_;
};
}  // namespace

TEST_F(BackupSetBrowse, BrowseListsTheTopLevelThenAFoldersSubfoldersAndItems)
{
  EXPECT_EQ(browse(json::array()).result().dump(),
            R"({"total":3,"rows":[{"entry_id":"in","name":"Inbox"},{"entry_id":"d","name":"Drafts"},)"
            R"({"entry_id":"s","name":"Sent Items"}]})");
  const std::string inbox = R"({"total":3,"rows":[{"entry_id":"pj","name":"Projects"},)"
                            R"x({"entry_id":"it-1","subject":"Hello"},{"entry_id":"it-2","subject":"(no subject)"}]})x";
  EXPECT_EQ(browse(json::array({"in"})).result().dump(), inbox);
  // Offset and limit are accepted and do not cut the rows.
  EXPECT_EQ(browse(json::array({"in"}), json{{"offset", 2}, {"limit", 1}}).result().dump(), inbox);
  EXPECT_EQ(browse(json::array({"in", "pj"})).result().dump(), R"({"total":0,"rows":[]})");
}

TEST_F(BackupSetBrowse, BrowseOfAChainThatLeadsNowhereOrOfAnotherRevIsAnInternalError)
{
  Log_Capture log;
  const Handler_Call stray = browse(json::array({"in", "d"}));
  EXPECT_EQ(stray.code(), -32603);
  EXPECT_EQ(stray.message(), "Internal error");
  EXPECT_EQ(log.count("EWS folder not found, id = d, pool_uuid = pool-b, uri = host-1/browse"), 1u);

  const Handler_Call other = browse(json::array(), json{{"rev", 4}});
  EXPECT_EQ(other.code(), -32603);
  EXPECT_EQ(other.message(), "Internal error");
  EXPECT_EQ(log.count("Failed to get mailbox index from pool"), 1u);
}
