#include "host/jsonrpc/json_rpc_thread_handler.h"

JSON_RPC_Thread_Handler::JSON_RPC_Thread_Handler() {}

JSON_RPC_Thread_Handler::~JSON_RPC_Thread_Handler() {}

int JSON_RPC_Thread_Handler::handle_object(JSON_RPC_Channel_Ptr channel, JSON_RPC_Object_Ptr obj)
{
  return handle_object_i(channel, obj);
}
