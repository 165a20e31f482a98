#ifndef BACKUP_EXCHANGE_WEBSVCS_AGENT_JSON_RPC_EXCHANGE_ONLINE_LIST_BACKUPSET_HANDLER_H
#define BACKUP_EXCHANGE_WEBSVCS_AGENT_JSON_RPC_EXCHANGE_ONLINE_LIST_BACKUPSET_HANDLER_H

#include "host/jsonrpc/json_rpc_thread_handler.h"

// Browses a backed-up mailbox through its index file in the backup set: the
// top-level folders, or the subfolders and items of one folder.
// Params: {"pool_uuid", "catalog_uuid", "uri", "mailbox", "parent_entry_ids",
// "rev", "offset"?, "limit"?}; offset and limit are accepted but every row is
// returned. Result: {"total", "rows"} (folders, then items).
//
// Runs on the server's worker thread; keeps no state between requests, so one
// object may serve several at once. Made and released through the module's
// _make_JSON_RPC_Exchange_Online_List_Backupset_Handler / _gobble_JSON_RPC_Exchange_Online_List_Backupset_Handler pair.
class JSON_RPC_Exchange_Online_List_Backupset_Handler : public JSON_RPC_Thread_Handler
{
public:
  JSON_RPC_Exchange_Online_List_Backupset_Handler();
  ~JSON_RPC_Exchange_Online_List_Backupset_Handler() override;

protected:
  // Answers the request over `channel`; returns the send result, or -1 when
  // `obj` is not a request or the requester has gone (nothing sent).
  int handle_object_i(ACE_Strong_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> channel,
                      ACE_Refcounted_Auto_Ptr<JSON_RPC_Object, ACE_Recursive_Thread_Mutex> obj) override;
};

#endif
