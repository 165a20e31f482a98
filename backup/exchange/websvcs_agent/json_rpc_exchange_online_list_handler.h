#ifndef BACKUP_EXCHANGE_WEBSVCS_AGENT_JSON_RPC_EXCHANGE_ONLINE_LIST_HANDLER_H
#define BACKUP_EXCHANGE_WEBSVCS_AGENT_JSON_RPC_EXCHANGE_ONLINE_LIST_HANDLER_H

#include "host/jsonrpc/json_rpc_thread_handler.h"

// Lists one page of a tenant's mailboxes through Microsoft Graph.
// Params: {"uuid", "limit"? (default 100, at most 999), "skip_token"?, "search"?}.
// Result: {"skip_token"? (next page), "total"? (first page only), "rows": [{"mailbox"}]}.
//
// Runs on the server's worker thread; keeps no state between requests, so one
// object may serve several at once. Made and released through the module's
// _make_JSON_RPC_Exchange_Online_List_Handler / _gobble_JSON_RPC_Exchange_Online_List_Handler pair.
class JSON_RPC_Exchange_Online_List_Handler : public JSON_RPC_Thread_Handler
{
public:
  JSON_RPC_Exchange_Online_List_Handler();
  ~JSON_RPC_Exchange_Online_List_Handler() override;

protected:
  // Answers the request over `channel`; returns the send result, or -1 when
  // `obj` is not a request or the requester has gone (nothing sent).
  int handle_object_i(ACE_Strong_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> channel,
                      ACE_Refcounted_Auto_Ptr<JSON_RPC_Object, ACE_Recursive_Thread_Mutex> obj) override;
};

#endif
