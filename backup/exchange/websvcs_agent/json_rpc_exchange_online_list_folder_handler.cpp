#include "backup/exchange/websvcs_agent/json_rpc_exchange_online_list_folder_handler.h"

#include "backup/exchange/core/ews/ews_utils.h"
#include "backup/exchange/job/module_exports.h"
#include "backup/exchange/websvcs_agent/json_rpc_frame.h"
#include "host/base/log.h"
#include "host/ews/ews_types.h"
#include "host/jsonrpc/json_object_get.h"
#include "host/jsonrpc/object_inserter.h"
#include "host/office365/office365_tenant_registry.h"

#include <cerrno>
#include <memory>
#include <new>
#include <string>
#include <vector>

EXCHANGE_OBJECT_EXPORTS(JSON_RPC_Exchange_Online_List_Folder_Handler, JSON_RPC_Exchange_Online_List_Folder_Handler,
                        JSON_RPC_Handler)

JSON_RPC_Exchange_Online_List_Folder_Handler::JSON_RPC_Exchange_Online_List_Folder_Handler() {}

JSON_RPC_Exchange_Online_List_Folder_Handler::~JSON_RPC_Exchange_Online_List_Folder_Handler() {}

int JSON_RPC_Exchange_Online_List_Folder_Handler::handle_object_i(JSON_RPC_Channel_Ptr channel, JSON_RPC_Object_Ptr obj)
{
  int rc = -1;
  if (!json_rpc_accept_request(channel, obj, rc))
    return rc;
  const nlohmann::ordered_json& params = obj->params();

  std::string uuid, mailbox, entry_id;
  if (!object_get_str(params, "uuid", uuid))
    return json_rpc_invalid_params(channel, *obj, "Invalid params: 'uuid' is expected as string in params.");
  if (!object_get_str(params, "mailbox", mailbox))
    return json_rpc_invalid_params(channel, *obj, "Invalid params: 'mailbox' is expected as string in params.");
  if (!object_get_str(params, "entry_id", entry_id))
    return json_rpc_invalid_params(channel, *obj, "Invalid params: 'entry_id' is expected as string in params.");

  Office365_Auth_Entry entry;
  if (!get_office365_auth_entry(uuid, entry))
    return json_rpc_internal_error(channel, *obj, "Failed to get Office365 auth entry.");

  const std::string scope = ews_default_scope(entry.ews_endpoint);
  std::shared_ptr<Office365_Auth> auth(new (std::nothrow) Office365_Auth(entry.ms_login_endpoint, entry, scope));
  if (auth == nullptr)
  {
    errno = ENOMEM;
    return json_rpc_out_of_memory(channel, *obj);
  }

  // The registration's application acts for the mailbox; no account of its own.
  EWS_Client_Ptr client;
  if (!create_ews_client(std::string(), Secure_String(), auth, client, mailbox.c_str()))
    return json_rpc_internal_error(channel, *obj, "Failed to connect to Exchange Web Service.");

  EWS_Folders folders;
  if (!entry_id.empty())
  {
    if (!client->list_folders(entry_id, folders, true))
      return json_rpc_internal_error(channel, *obj, "Failed to list folder by Exchange Web Service.");
  }
  else if (!client->list_folders(ewstype__DistinguishedFolderIdNameType__msgfolderroot, folders, true))
    return json_rpc_internal_error(channel, *obj, "Failed to list root folder by Exchange Web Service.");

  std::vector<nlohmann::ordered_json> rows;
  jsonify_ews_folders(folders, rows);

  std::unique_ptr<JSON_RPC_Response> response = json_rpc_new_response(*obj);
  if (response == nullptr)
    return json_rpc_out_of_memory(channel, *obj);
  Object_Inserter(response->result())("total", folders.size())("rows", std::move(rows));
  return channel->send(*response);
}
