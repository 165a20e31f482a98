#include "host/jsonrpc/json_rpc_response.h"

JSON_RPC_Response::JSON_RPC_Response(const JSON_RPC_Object& request)
  : JSON_RPC_Object(JSON_RPC_RESPONSE, request.id(), request.method(), nlohmann::ordered_json())
{
}

nlohmann::ordered_json JSON_RPC_Response::to_json() const
{
  nlohmann::ordered_json reply = nlohmann::ordered_json::object();
  reply["jsonrpc"] = "2.0";
  reply["result"] = result_;
  reply["id"] = id();
  return reply;
}
