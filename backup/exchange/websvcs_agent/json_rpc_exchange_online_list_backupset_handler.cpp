#include "backup/exchange/websvcs_agent/json_rpc_exchange_online_list_backupset_handler.h"

#include "backup/exchange/job/module_exports.h"
#include "backup/exchange/websvcs_agent/json_rpc_frame.h"
#include "backup/exchange/websvcs_agent/mailbox_index_lister.h"
#include "host/jsonrpc/json_object_get.h"

#include <cstdint>
#include <string>
#include <vector>

EXCHANGE_OBJECT_EXPORTS(JSON_RPC_Exchange_Online_List_Backupset_Handler,
                        JSON_RPC_Exchange_Online_List_Backupset_Handler, JSON_RPC_Handler)

JSON_RPC_Exchange_Online_List_Backupset_Handler::JSON_RPC_Exchange_Online_List_Backupset_Handler() {}

JSON_RPC_Exchange_Online_List_Backupset_Handler::~JSON_RPC_Exchange_Online_List_Backupset_Handler() {}

int JSON_RPC_Exchange_Online_List_Backupset_Handler::handle_object_i(JSON_RPC_Channel_Ptr channel,
                                                                     JSON_RPC_Object_Ptr obj)
{
  int rc = -1;
  if (!json_rpc_accept_request(channel, obj, rc))
    return rc;
  const nlohmann::ordered_json& params = obj->params();

  std::string pool_uuid, catalog_uuid, uri, mailbox;
  if (!object_get_str(params, "pool_uuid", pool_uuid))
    return json_rpc_invalid_params(channel, *obj, "Invalid params: 'pool_uuid' is expected as string in params.");
  if (!object_get_str(params, "catalog_uuid", catalog_uuid))
    return json_rpc_invalid_params(channel, *obj, "Invalid params: 'catalog_uuid' is expected as string in params.");
  if (!object_get_str(params, "uri", uri))
    return json_rpc_invalid_params(channel, *obj, "Invalid params: 'uri' is expected as string in params.");
  if (!object_get_str(params, "mailbox", mailbox))
    return json_rpc_invalid_params(channel, *obj, "Invalid params: 'mailbox' is expected as string in params.");
  const nlohmann::ordered_json* parents = object_get_any_ptr(params, "parent_entry_ids");
  if (parents == nullptr || !parents->is_array())
    return json_rpc_invalid_params(channel, *obj, "Invalid params: 'parent_entry_ids' is expected as array in params.");
  int rev = 0;
  if (!object_get_int(params, "rev", rev))
    return json_rpc_invalid_params(channel, *obj, "Invalid params: 'rev' is expected as integer in params.");
  std::vector<std::string> parent_entry_ids;
  parent_entry_ids.reserve(parents->size());
  for (const nlohmann::ordered_json& id : *parents)
  {
    if (!id.is_string())
      return json_rpc_invalid_params(channel, *obj, "Invalid elements in parent_entry_ids.");
    parent_entry_ids.push_back(id.get<std::string>());
  }
  const int64_t offset = object_get_or_default<int64_t>(params, "offset", 0);
  const int64_t limit = object_get_or_default<int64_t>(params, "limit", -1);

  std::unique_ptr<JSON_RPC_Response> response = json_rpc_new_response(*obj);
  if (response == nullptr)
    return json_rpc_out_of_memory(channel, *obj);

  // The reason of a failure (no index, a chain that leads nowhere) is in the log;
  // the requester gets the code's standard message.
  Mailbox_Index_Lister lister(pool_uuid, catalog_uuid, uri, mailbox, rev, offset, limit);
  if (!lister.list_folder(parent_entry_ids, response->result()))
    return json_rpc_internal_error(channel, *obj, nullptr);
  return channel->send(*response);
}
