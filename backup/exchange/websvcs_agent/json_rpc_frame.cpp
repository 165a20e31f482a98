#include "backup/exchange/websvcs_agent/json_rpc_frame.h"

#include "host/base/log.h"

#include <cerrno>
#include <new>

bool json_rpc_accept_request(const JSON_RPC_Channel_Ptr& channel, const JSON_RPC_Object_Ptr& obj, int& rc)
{
  rc = -1;
  if (obj.get() == nullptr || !obj->is_request())
  {
    ACE_DEBUG((LM_EMERGENCY, ACE_TEXT("Unexpected error in %N:%l, obj is not JSON-RPC request!\n")));
    return false;
  }
  // The reference is held until the handler returns, so a requester that goes
  // away during the work still gets a send attempt, which the server discards.
  JSON_RPC_Channel_Ptr strong(channel);
  if (strong.null())
  {
    LOG_MSG(LM_ERROR, "Abort handling JSON-RPC request, requester has gone.\n");
    return false;
  }
  if (!obj->params().is_object())
  {
    rc = json_rpc_invalid_params(strong, *obj, "Invalid params: params type must be object.");
    return false;
  }
  return true;
}

int json_rpc_invalid_params(const JSON_RPC_Channel_Ptr& channel, const JSON_RPC_Object& request, const char* message)
{
  return channel->send_error(JSON_RPC_Channel::INVALID_PARAMS, request.id(), message, nlohmann::ordered_json());
}

int json_rpc_internal_error(const JSON_RPC_Channel_Ptr& channel, const JSON_RPC_Object& request, const char* message)
{
  return channel->send_error(JSON_RPC_Channel::INTERNAL_ERROR, request.id(), message, nlohmann::ordered_json());
}

std::unique_ptr<JSON_RPC_Response> json_rpc_new_response(const JSON_RPC_Object& request)
{
  std::unique_ptr<JSON_RPC_Response> response(new (std::nothrow) JSON_RPC_Response(request));
  if (response == nullptr)
  {
    errno = ENOMEM;
    return response;
  }
  response->result() = nlohmann::ordered_json::object();
  return response;
}

int json_rpc_out_of_memory(const JSON_RPC_Channel_Ptr& channel, const JSON_RPC_Object& request)
{
  return json_rpc_internal_error(channel, request, "Internal error, out of memory.");
}
