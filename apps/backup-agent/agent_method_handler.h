#ifndef APPS_BACKUP_AGENT_AGENT_METHOD_HANDLER_H
#define APPS_BACKUP_AGENT_AGENT_METHOD_HANDLER_H

#include "apps/backup-agent/agent_methods.h"
#include "host/jsonrpc/json_rpc_thread_handler.h"

// The JSON-RPC handler of one of the agent's own methods (Agent_Methods), in the
// same frame as the module's handlers: a message that is not a request is not
// answered, a gone requester gets nothing, params that are not an object are
// refused with -32602 "Invalid params: params type must be object." (absent
// params count as {}, as these methods' params are all optional or named), then
// the method answers with its result or its error. Made per request by
// make() and released through the function make() hands back, as the module's
// handlers are.
class Agent_Method_Handler : public JSON_RPC_Thread_Handler
{
public:
  Agent_Method_Handler(Agent_Methods& methods, Agent_Methods::Method method) : methods_(methods), method_(method) {}

  // A new handler, and in `*release` the function that deletes it.
  static JSON_RPC_Handler* make(Agent_Methods& methods, Agent_Methods::Method method, void (**release)(void*));

protected:
  int handle_object_i(ACE_Strong_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> channel,
                      ACE_Refcounted_Auto_Ptr<JSON_RPC_Object, ACE_Recursive_Thread_Mutex> obj) override;

private:
  static void release(void* handler);

  Agent_Methods& methods_;
  Agent_Methods::Method method_;
};

#endif
