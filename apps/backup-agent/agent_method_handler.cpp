#include "apps/backup-agent/agent_method_handler.h"

#include "host/base/log.h"

#include <cerrno>
#include <memory>
#include <new>

JSON_RPC_Handler* Agent_Method_Handler::make(Agent_Methods& methods, Agent_Methods::Method method,
                                             void (**release)(void*))
{
  if (release != nullptr)
    *release = &Agent_Method_Handler::release;
  Agent_Method_Handler* handler = new (std::nothrow) Agent_Method_Handler(methods, method);
  if (handler == nullptr)
    errno = ENOMEM;
  return handler;
}

void Agent_Method_Handler::release(void* handler) { delete static_cast<JSON_RPC_Handler*>(handler); }

int Agent_Method_Handler::handle_object_i(ACE_Strong_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> channel,
                                          ACE_Refcounted_Auto_Ptr<JSON_RPC_Object, ACE_Recursive_Thread_Mutex> obj)
{
  if (obj.get() == nullptr || !obj->is_request())
  {
    LOG_UNEXPECTED("obj is not JSON-RPC request!");
    return -1;
  }
  ACE_Strong_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> requester(channel);
  if (requester.null())
  {
    LOG_MSG(LM_ERROR, "Abort handling JSON-RPC request, requester has gone.\n");
    return -1;
  }
  const nlohmann::ordered_json empty = nlohmann::ordered_json::object();
  const nlohmann::ordered_json& params = obj->params().is_null() ? empty : obj->params();
  if (!params.is_object())
    return requester->send_error(JSON_RPC_Channel::INVALID_PARAMS, obj->id(),
                                 "Invalid params: params type must be object.", nullptr);
  JSON_RPC_Response* response = new (std::nothrow) JSON_RPC_Response(*obj);
  if (response == nullptr)
  {
    errno = ENOMEM;
    return requester->send_error(JSON_RPC_Channel::INTERNAL_ERROR, obj->id(), "Internal error, out of memory.",
                                 nullptr);
  }
  std::unique_ptr<JSON_RPC_Response> owned(response);
  std::string message;
  response->result() = nlohmann::ordered_json::object();
  const int code = (methods_.*method_)(params, response->result(), message);
  if (code != 0)
    return requester->send_error(code, obj->id(), message.c_str(), nullptr);
  return requester->send(*response);
}
