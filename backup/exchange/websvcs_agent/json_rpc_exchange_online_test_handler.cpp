#include "backup/exchange/websvcs_agent/json_rpc_exchange_online_test_handler.h"

#include "backup/exchange/core/office365/office365_console.h"
#include "backup/exchange/job/module_exports.h"
#include "backup/exchange/websvcs_agent/json_rpc_frame.h"
#include "host/jsonrpc/object_inserter.h"
#include "host/office365/office365_auth_entry.h"

EXCHANGE_OBJECT_EXPORTS(JSON_RPC_Exchange_Online_Test_Handler, JSON_RPC_Exchange_Online_Test_Handler, JSON_RPC_Handler)

JSON_RPC_Exchange_Online_Test_Handler::JSON_RPC_Exchange_Online_Test_Handler() {}

JSON_RPC_Exchange_Online_Test_Handler::~JSON_RPC_Exchange_Online_Test_Handler() {}

int JSON_RPC_Exchange_Online_Test_Handler::handle_object_i(JSON_RPC_Channel_Ptr channel, JSON_RPC_Object_Ptr obj)
{
  int rc = -1;
  if (!json_rpc_accept_request(channel, obj, rc))
    return rc;

  Office365_Auth_Entry entry;
  if (!entry.load(obj->params()))
    return json_rpc_invalid_params(channel, *obj, "Required fields missing in params.");

  std::unique_ptr<JSON_RPC_Response> response = json_rpc_new_response(*obj);
  if (response == nullptr)
    return json_rpc_out_of_memory(channel, *obj);

  // A registration that cannot get a token is an answer, not a failed request:
  // the caller shows the service's reason.
  std::string message;
  const bool ok = Office365_Console::test_auth(entry, message);
  Object_Inserter(response->result())("result", ok)("message", ok ? std::string() : message);
  return channel->send(*response);
}
