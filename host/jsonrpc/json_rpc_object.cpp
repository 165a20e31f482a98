#include "host/jsonrpc/json_rpc_object.h"

#include <utility>

JSON_RPC_Object::JSON_RPC_Object(JSON_RPC_Object_Kind kind, id_type id, std::string method,
                                 nlohmann::ordered_json params)
  : kind_(kind), id_(std::move(id)), method_(std::move(method)), params_(std::move(params))
{
}

JSON_RPC_Object::~JSON_RPC_Object() {}
