#ifndef BACKUP_EXCHANGE_WEBSVCS_AGENT_JSON_RPC_EXCHANGE_ONLINE_TEST_HANDLER_H
#define BACKUP_EXCHANGE_WEBSVCS_AGENT_JSON_RPC_EXCHANGE_ONLINE_TEST_HANDLER_H

#include "host/jsonrpc/json_rpc_thread_handler.h"

// Tests a tenant registration: whether its credentials obtain a Microsoft Graph token.
// Params: the registration's fields as Office365_Auth_Entry::load reads them.
// Result: {"result": bool, "message": "" or the service's reason}; a failed
// test is a successful reply with "result" false.
//
// Runs on the server's worker thread; keeps no state between requests, so one
// object may serve several at once. Made and released through the module's
// _make_JSON_RPC_Exchange_Online_Test_Handler / _gobble_JSON_RPC_Exchange_Online_Test_Handler pair.
class JSON_RPC_Exchange_Online_Test_Handler : public JSON_RPC_Thread_Handler
{
public:
  JSON_RPC_Exchange_Online_Test_Handler();
  ~JSON_RPC_Exchange_Online_Test_Handler() override;

protected:
  // Answers the request over `channel`; returns the send result, or -1 when
  // `obj` is not a request or the requester has gone (nothing sent).
  int handle_object_i(ACE_Strong_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> channel,
                      ACE_Refcounted_Auto_Ptr<JSON_RPC_Object, ACE_Recursive_Thread_Mutex> obj) override;
};

#endif
