#ifndef HOST_JSONRPC_JSON_RPC_CHANNEL_H
#define HOST_JSONRPC_JSON_RPC_CHANNEL_H

#include "host/jsonrpc/json_rpc_object.h"
#include "host/jsonrpc/json_rpc_response.h"

#include <ace/Bound_Ptr.h>
#include <ace/Thread_Mutex.h>

#include <nlohmann/json.hpp>

// The way back to the requester of one JSON-RPC request. The server makes one per
// request and hands it to the handler as a strong pointer; a null pointer means that
// the requester has gone (its connection closed) and nothing can be answered.
// A handler sends exactly one reply per request: a response or an error.
//
// Both send operations return 0 when the reply was taken, -1 when it was not (the
// requester went away meanwhile, or a reply was already sent).
class JSON_RPC_Channel
{
public:
  // The JSON-RPC 2.0 error codes.
  enum
  {
    PARSE_ERROR = -32700,
    INVALID_REQUEST = -32600,
    METHOD_NOT_FOUND = -32601,
    INVALID_PARAMS = -32602,
    INTERNAL_ERROR = -32603,
  };

  virtual ~JSON_RPC_Channel();

  // Sends a successful response (by default its to_json() through send_message).
  virtual int send(const JSON_RPC_Response& response);

  // Sends {"jsonrpc": "2.0", "error": {"code", "message"[, "data"]}, "id"} for the
  // request `id`. A null `message` stands for the code's standard message
  // (standard_message). A null `data` leaves "data" out.
  int send_error(int code, const JSON_RPC_Object::id_type& id, const char* message, const nlohmann::ordered_json& data);

  // The standard message of a JSON-RPC 2.0 error code: "Parse error",
  // "Invalid Request", "Method not found", "Invalid params", "Internal error",
  // "Server error" for -32099 to -32000, and "Unknown error" for any other code.
  static const char* standard_message(int code);

  // The error object send_error sends.
  static nlohmann::ordered_json error_object(int code, const JSON_RPC_Object::id_type& id, const char* message,
                                             const nlohmann::ordered_json& data);

protected:
  // Delivers one complete reply object to the requester.
  virtual int send_message(const nlohmann::ordered_json& message) = 0;
};

typedef ACE_Strong_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> JSON_RPC_Channel_Ptr;

#endif
