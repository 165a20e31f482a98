#include "backup/exchange/websvcs_agent/json_rpc_exchange_online_list_handler.h"

#include "backup/exchange/core/office365/office365_console.h"
#include "backup/exchange/job/module_exports.h"
#include "backup/exchange/websvcs_agent/json_rpc_frame.h"
#include "host/jsonrpc/json_object_get.h"
#include "host/jsonrpc/object_inserter.h"
#include "host/office365/office365_tenant_registry.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <string>
#include <vector>

EXCHANGE_OBJECT_EXPORTS(JSON_RPC_Exchange_Online_List_Handler, JSON_RPC_Exchange_Online_List_Handler, JSON_RPC_Handler)

JSON_RPC_Exchange_Online_List_Handler::JSON_RPC_Exchange_Online_List_Handler() {}

JSON_RPC_Exchange_Online_List_Handler::~JSON_RPC_Exchange_Online_List_Handler() {}

int JSON_RPC_Exchange_Online_List_Handler::handle_object_i(JSON_RPC_Channel_Ptr channel, JSON_RPC_Object_Ptr obj)
{
  int rc = -1;
  if (!json_rpc_accept_request(channel, obj, rc))
    return rc;
  const nlohmann::ordered_json& params = obj->params();

  std::string uuid;
  if (!object_get_str(params, "uuid", uuid))
    return json_rpc_invalid_params(channel, *obj, "Invalid params: 'uuid' is expected as string in params.");

  Office365_Auth_Entry entry;
  if (!get_office365_auth_entry(uuid, entry))
    return json_rpc_internal_error(channel, *obj, "Failed to get Office365 auth entry");

  // Graph pages hold at most 999 users; a larger page is asked for as the
  // largest one. Below, the value goes to Graph as given.
  int64_t limit = object_get_or_default<int64_t>(params, "limit", Office365_Console::O365_DEFAULT_PAGE_SIZE);
  limit = std::max<int64_t>(std::min<int64_t>(limit, Office365_Console::O365_MAX_PAGE_SIZE), INT_MIN);
  const std::string* skip_token = object_get_str(params, "skip_token");
  const std::string* search = object_get_str(params, "search");

  Office365_Console console(entry);
  std::vector<std::string> mailboxes;
  int total = 0;
  std::string next_skip_token;
  if (!console.list_mailboxes(mailboxes, skip_token, static_cast<int>(limit), total, next_skip_token, search))
    return json_rpc_internal_error(channel, *obj, "Failed to list mailboxes.");

  std::unique_ptr<JSON_RPC_Response> response = json_rpc_new_response(*obj);
  if (response == nullptr)
    return json_rpc_out_of_memory(channel, *obj);

  Object_Inserter result(response->result());
  if (!next_skip_token.empty())
    result("skip_token", next_skip_token);
  // Graph counts the whole collection only on the first page; later pages keep
  // the count the caller already has.
  if (skip_token == nullptr || skip_token->empty())
    result("total", total);
  nlohmann::ordered_json rows = nlohmann::ordered_json::array();
  rows.get_ref<nlohmann::ordered_json::array_t&>().reserve(mailboxes.size());
  for (const std::string& mailbox : mailboxes)
    rows.push_back(nlohmann::ordered_json{{"mailbox", mailbox}});
  result("rows", std::move(rows));
  return channel->send(*response);
}
