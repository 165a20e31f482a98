#ifndef BACKUP_EXCHANGE_WEBSVCS_AGENT_JSON_RPC_FRAME_H
#define BACKUP_EXCHANGE_WEBSVCS_AGENT_JSON_RPC_FRAME_H

#include "host/jsonrpc/json_rpc_channel.h"
#include "host/jsonrpc/json_rpc_object.h"
#include "host/jsonrpc/json_rpc_response.h"

#include <memory>

// The steps every JSON-RPC handler of the module takes before and around its own
// work.

// Checks, in this order, that `obj` is a request, that the requester is still
// there (`channel` not null) and that the params are a JSON object; logs or
// answers the first failure. True when the handler may go on; otherwise `rc` is
// what the handler returns: -1 when nothing was sent, else the send result.
bool json_rpc_accept_request(const JSON_RPC_Channel_Ptr& channel, const JSON_RPC_Object_Ptr& obj, int& rc);

// Answers the request with error -32602 (params) or -32603 (the work failed);
// a null message stands for the code's standard message. Returns the send result.
int json_rpc_invalid_params(const JSON_RPC_Channel_Ptr& channel, const JSON_RPC_Object& request, const char* message);
int json_rpc_internal_error(const JSON_RPC_Channel_Ptr& channel, const JSON_RPC_Object& request, const char* message);

// A response to `request` with an empty object as its result, allocated without
// throwing. Null with errno = ENOMEM when memory ran out (answer that with
// json_rpc_out_of_memory).
std::unique_ptr<JSON_RPC_Response> json_rpc_new_response(const JSON_RPC_Object& request);
// -32603 "Internal error, out of memory."
int json_rpc_out_of_memory(const JSON_RPC_Channel_Ptr& channel, const JSON_RPC_Object& request);

#endif
