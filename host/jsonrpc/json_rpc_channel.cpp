#include "host/jsonrpc/json_rpc_channel.h"

JSON_RPC_Channel::~JSON_RPC_Channel() {}

int JSON_RPC_Channel::send(const JSON_RPC_Response& response) { return send_message(response.to_json()); }

int JSON_RPC_Channel::send_error(int code, const JSON_RPC_Object::id_type& id, const char* message,
                                 const nlohmann::ordered_json& data)
{
  return send_message(error_object(code, id, message, data));
}

const char* JSON_RPC_Channel::standard_message(int code)
{
  switch (code)
  {
  case PARSE_ERROR:
    return "Parse error";
  case INVALID_REQUEST:
    return "Invalid Request";
  case METHOD_NOT_FOUND:
    return "Method not found";
  case INVALID_PARAMS:
    return "Invalid params";
  case INTERNAL_ERROR:
    return "Internal error";
  default:
    break;
  }
  if (code >= -32099 && code <= -32000)
    return "Server error";
  return "Unknown error";
}

nlohmann::ordered_json JSON_RPC_Channel::error_object(int code, const JSON_RPC_Object::id_type& id, const char* message,
                                                      const nlohmann::ordered_json& data)
{
  nlohmann::ordered_json error = nlohmann::ordered_json::object();
  error["code"] = code;
  error["message"] = message != nullptr ? message : standard_message(code);
  if (!data.is_null())
    error["data"] = data;
  nlohmann::ordered_json reply = nlohmann::ordered_json::object();
  reply["jsonrpc"] = "2.0";
  reply["error"] = std::move(error);
  reply["id"] = id;
  return reply;
}
