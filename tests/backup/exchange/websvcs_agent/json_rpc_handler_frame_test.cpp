#include "backup/exchange/websvcs_agent/json_rpc_exchange_online_list_backupset_handler.h"
#include "backup/exchange/websvcs_agent/json_rpc_exchange_online_list_folder_handler.h"
#include "backup/exchange/websvcs_agent/json_rpc_exchange_online_list_handler.h"
#include "backup/exchange/websvcs_agent/json_rpc_exchange_online_test_handler.h"
#include "support/log_capture.h"
#include "tests/backup/exchange/websvcs_agent/handler_call.h"

#include <gtest/gtest.h>

#include <memory>

namespace
{
// Each of the module's handlers, fresh.
template <typename H>
std::unique_ptr<JSON_RPC_Handler> make()
{
  return std::unique_ptr<JSON_RPC_Handler>(new H());
}

class HandlerFrame : public ::testing::TestWithParam<std::unique_ptr<JSON_RPC_Handler> (*)()>
{
};

// Params that every handler accepts past its own first check, so that a frame
// failure cannot be mistaken for a params failure.
const json complete_params = json::parse(R"({"uuid": "t", "mailbox": "m", "entry_id": "", "pool_uuid": "p",
  "catalog_uuid": "c", "uri": "u", "parent_entry_ids": [], "rev": 1})");
}  // namespace

TEST_P(HandlerFrame, OnlyRequestsAreHandledAndNothingIsSentForOthers)
{
  std::unique_ptr<JSON_RPC_Handler> handler = GetParam()();
  for (JSON_RPC_Object_Kind kind : {JSON_RPC_NOTIFICATION, JSON_RPC_RESPONSE, JSON_RPC_ERROR})
  {
    Log_Capture log;
    const Handler_Call call = call_handler(*handler, complete_params, kind);
    EXPECT_EQ(call.rc, -1);
    EXPECT_TRUE(call.replies.empty());
    EXPECT_EQ(log.count("obj is not JSON-RPC request!\n"), 1u) << log.text();
    EXPECT_EQ(log.count("Unexpected error in "), 1u) << log.text();
    EXPECT_EQ(log.priority_of("obj is not JSON-RPC request!"), static_cast<unsigned long>(LM_EMERGENCY));
  }
}

TEST_P(HandlerFrame, RequesterThatHasGoneGetsNothing)
{
  std::unique_ptr<JSON_RPC_Handler> handler = GetParam()();
  Log_Capture log;
  const Handler_Call call = call_handler(*handler, complete_params, JSON_RPC_REQUEST, true);
  EXPECT_EQ(call.rc, -1);
  EXPECT_EQ(log.count("Abort handling JSON-RPC request, requester has gone.\n"), 1u) << log.text();
  EXPECT_EQ(log.priority_of("requester has gone"), static_cast<unsigned long>(LM_ERROR));
}

TEST_P(HandlerFrame, ParamsThatAreNotAnObjectAreRefusedFirst)
{
  std::unique_ptr<JSON_RPC_Handler> handler = GetParam()();
  for (const json& params : {json::array({complete_params}), json(), json("uuid"), json(3)})
  {
    const Handler_Call call = call_handler(*handler, params);
    EXPECT_EQ(call.rc, 0);
    EXPECT_EQ(call.code(), -32602) << params.dump();
    EXPECT_EQ(call.message(), "Invalid params: params type must be object.");
  }
}

INSTANTIATE_TEST_SUITE_P(EveryHandler, HandlerFrame,
                         ::testing::Values(&make<JSON_RPC_Exchange_Online_Test_Handler>,
                                           &make<JSON_RPC_Exchange_Online_List_Handler>,
                                           &make<JSON_RPC_Exchange_Online_List_Folder_Handler>,
                                           &make<JSON_RPC_Exchange_Online_List_Backupset_Handler>));

TEST(TestHandler, IncompleteRegistrationIsRefused)
{
  JSON_RPC_Exchange_Online_Test_Handler handler;
  Office365_Auth_Entry entry;
  entry.ms_login_endpoint = entry.ms_graph_endpoint = "http://127.0.0.1:1";
  entry.ews_endpoint = "http://127.0.0.1:1/EWS/Exchange.asmx";
  entry.tenant_email = "admin@x.test";
  entry.tenant_id = "t";
  entry.client_id = "c";
  entry.client_secret = "s";
  json params = entry.to_json(true);
  params.erase("client_secret");
  for (const json& p : {json::object(), params})
  {
    const Handler_Call call = call_handler(handler, p);
    EXPECT_EQ(call.code(), -32602);
    EXPECT_EQ(call.message(), "Required fields missing in params.");
  }
}

TEST(ListFolderHandler, ParamsAreCheckedInOrder)
{
  JSON_RPC_Exchange_Online_List_Folder_Handler handler;
  const struct
  {
    json params;
    const char* message;
  } cases[] = {
    {json::object(), "Invalid params: 'uuid' is expected as string in params."},
    {json{{"uuid", 1}, {"mailbox", "m"}, {"entry_id", ""}}, "Invalid params: 'uuid' is expected as string in params."},
    {json{{"uuid", "t"}}, "Invalid params: 'mailbox' is expected as string in params."},
    {json{{"uuid", "t"}, {"mailbox", json()}, {"entry_id", ""}},
     "Invalid params: 'mailbox' is expected as string in params."},
    {json{{"uuid", "t"}, {"mailbox", "m"}}, "Invalid params: 'entry_id' is expected as string in params."},
    {json{{"uuid", "t"}, {"mailbox", "m"}, {"entry_id", json::array()}},
     "Invalid params: 'entry_id' is expected as string in params."},
  };
  for (const auto& c : cases)
  {
    const Handler_Call call = call_handler(handler, c.params);
    EXPECT_EQ(call.code(), -32602) << c.params.dump();
    EXPECT_EQ(call.message(), c.message) << c.params.dump();
  }
}

TEST(ListFolderHandler, UnknownRegistrationIsAnInternalError)
{
  Registered_Tenants tenants({});
  JSON_RPC_Exchange_Online_List_Folder_Handler handler;
  const Handler_Call call = call_handler(handler, json{{"uuid", "none"}, {"mailbox", "m"}, {"entry_id", ""}});
  EXPECT_EQ(call.code(), -32603);
  EXPECT_EQ(call.message(), "Failed to get Office365 auth entry.");
}

TEST(ListFolderHandler, RegistrationWhoseServiceIsNotAUrlCannotConnect)
{
  Office365_Auth_Entry entry;
  entry.ms_login_endpoint = entry.ms_graph_endpoint = "http://127.0.0.1:1";
  entry.ews_endpoint = "not a url";
  entry.tenant_email = "admin@x.test";
  entry.tenant_id = entry.client_id = entry.client_secret = "x";
  Registered_Tenants tenants({{"t1", entry}});
  JSON_RPC_Exchange_Online_List_Folder_Handler handler;
  const Handler_Call call = call_handler(handler, json{{"uuid", "t1"}, {"mailbox", "m@x.test"}, {"entry_id", ""}});
  EXPECT_EQ(call.code(), -32603);
  EXPECT_EQ(call.message(), "Failed to connect to Exchange Web Service.");
}

TEST(ListBackupsetHandler, ParamsAreCheckedInOrder)
{
  JSON_RPC_Exchange_Online_List_Backupset_Handler handler;
  const json valid = json::parse(R"({"pool_uuid": "p", "catalog_uuid": "c", "uri": "u", "mailbox": "m",
    "parent_entry_ids": ["a", "b"], "rev": 3})");
  const char* const keys[] = {"pool_uuid", "catalog_uuid", "uri", "mailbox", "parent_entry_ids", "rev"};
  const char* const types[] = {"string", "string", "string", "string", "array", "integer"};
  // With a key and every key after it missing, and then mistyped, the first one
  // is the one reported.
  for (size_t i = 0; i < std::size(keys); ++i)
  {
    json missing = valid, mistyped = valid;
    for (size_t j = i; j < std::size(keys); ++j)
    {
      missing.erase(keys[j]);
      mistyped[keys[j]] = j == 4 ? json("a") : json::array({1});
    }
    const std::string message =
      std::string("Invalid params: '") + keys[i] + "' is expected as " + types[i] + " in params.";
    for (const json& params : {missing, mistyped})
    {
      const Handler_Call call = call_handler(handler, params);
      EXPECT_EQ(call.code(), -32602) << params.dump();
      EXPECT_EQ(call.message(), message) << params.dump();
    }
  }
}

TEST(ListBackupsetHandler, RevAndEntryIdsMustHaveTheirTypes)
{
  JSON_RPC_Exchange_Online_List_Backupset_Handler handler;
  json params = json::parse(R"({"pool_uuid": "p", "catalog_uuid": "c", "uri": "u", "mailbox": "m",
    "parent_entry_ids": ["a", 5], "rev": 3})");
  EXPECT_EQ(call_handler(handler, params).message(), "Invalid elements in parent_entry_ids.");
  for (const json& rev : {json("3"), json(3.0), json(true), json(5000000000LL)})
  {
    params["rev"] = rev;
    const Handler_Call call = call_handler(handler, params);
    EXPECT_EQ(call.code(), -32602);
    EXPECT_EQ(call.message(), "Invalid params: 'rev' is expected as integer in params.") << rev.dump();
  }
}

TEST(ListBackupsetHandler, SetThatCannotBeReadIsAnInternalErrorWithTheStandardMessage)
{
  JSON_RPC_Exchange_Online_List_Backupset_Handler handler;
  const json params = json::parse(R"({"pool_uuid": "no-such-pool", "catalog_uuid": "c", "uri": "u",
    "mailbox": "m@x.test", "parent_entry_ids": [], "rev": 3})");
  const Handler_Call call = call_handler(handler, params);
  EXPECT_EQ(call.rc, 0);
  EXPECT_EQ(call.replies.size(), 1u);
  EXPECT_EQ(call.code(), -32603);
  EXPECT_EQ(call.message(), "Internal error");
}
