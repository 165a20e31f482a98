#ifndef HOST_JSONRPC_JSON_RPC_THREAD_HANDLER_H
#define HOST_JSONRPC_JSON_RPC_THREAD_HANDLER_H

#include "host/jsonrpc/json_rpc_handler.h"

// The base of handlers that do their work on the server's worker thread: the
// server calls handle_object on one of its workers, which runs handle_object_i
// there, synchronously, to its end. A handler keeps no state between messages, so
// one object may serve several threads at once.
class JSON_RPC_Thread_Handler : public JSON_RPC_Handler
{
public:
  JSON_RPC_Thread_Handler();
  ~JSON_RPC_Thread_Handler() override;

  int handle_object(JSON_RPC_Channel_Ptr channel, JSON_RPC_Object_Ptr obj) override;

protected:
  // The method's work: check the message, answer it over `channel`, and return
  // what the send returned, or -1 when nothing was sent.
  virtual int handle_object_i(ACE_Strong_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> channel,
                              ACE_Refcounted_Auto_Ptr<JSON_RPC_Object, ACE_Recursive_Thread_Mutex> obj) = 0;
};

#endif
