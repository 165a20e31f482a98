#ifndef HOST_JSONRPC_JSON_RPC_RESPONSE_H
#define HOST_JSONRPC_JSON_RPC_RESPONSE_H

#include "host/jsonrpc/json_rpc_object.h"

// The successful reply to one request: made from the request, so it answers the
// request's id; the handler fills result() (null until then) and sends the
// response over the request's channel. Used by one thread.
class JSON_RPC_Response : public JSON_RPC_Object
{
public:
  explicit JSON_RPC_Response(const JSON_RPC_Object& request);

  nlohmann::ordered_json& result() { return result_; }
  const nlohmann::ordered_json& result() const { return result_; }

  // {"jsonrpc": "2.0", "result": ..., "id": ...}
  nlohmann::ordered_json to_json() const;

private:
  nlohmann::ordered_json result_;
};

#endif
