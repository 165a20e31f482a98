#ifndef HOST_JSONRPC_JSON_RPC_HANDLER_H
#define HOST_JSONRPC_JSON_RPC_HANDLER_H

#include "host/jsonrpc/json_rpc_channel.h"
#include "host/jsonrpc/json_rpc_object.h"

// The handler of one JSON-RPC method, as the server sees it. Handlers are made
// and destroyed through factory pairs (a module's _make_<Name>/_gobble_<Name>);
// the server never deletes one itself.
class JSON_RPC_Handler
{
public:
  virtual ~JSON_RPC_Handler();

  // Handles one message and answers it over `channel` (null: the requester has
  // gone). Returns what the channel's send returned, or -1 when nothing was sent.
  virtual int handle_object(JSON_RPC_Channel_Ptr channel, JSON_RPC_Object_Ptr obj) = 0;
};

#endif
