#ifndef HOST_JSONRPC_JSON_RPC_OBJECT_H
#define HOST_JSONRPC_JSON_RPC_OBJECT_H

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Refcounted_Auto_Ptr.h>

#include <nlohmann/json.hpp>

#include <string>

// What a JSON-RPC 2.0 message is. A request has a method and an id and wants a
// reply; a notification has a method and no id and gets none; a response carries
// a result and an error an error object, both for the id of a request.
enum JSON_RPC_Object_Kind
{
  JSON_RPC_NOTIFICATION = 1,
  JSON_RPC_REQUEST = 2,
  JSON_RPC_RESPONSE = 3,
  JSON_RPC_ERROR = 4,
};

// One JSON-RPC message as the server hands it to a handler: its kind, its id (a
// string, a number or null), its method name and its params (an object, an array,
// or null when the message had none). Immutable once made; shared between threads
// through JSON_RPC_Object_Ptr.
class JSON_RPC_Object
{
public:
  typedef nlohmann::ordered_json id_type;

  JSON_RPC_Object(JSON_RPC_Object_Kind kind, id_type id, std::string method, nlohmann::ordered_json params);
  virtual ~JSON_RPC_Object();

  JSON_RPC_Object_Kind kind() const { return kind_; }
  bool is_request() const { return kind_ == JSON_RPC_REQUEST; }
  const id_type& id() const { return id_; }
  const std::string& method() const { return method_; }
  const nlohmann::ordered_json& params() const { return params_; }

private:
  JSON_RPC_Object_Kind kind_;
  id_type id_;
  std::string method_;
  nlohmann::ordered_json params_;
};

typedef ACE_Refcounted_Auto_Ptr<JSON_RPC_Object, ACE_Recursive_Thread_Mutex> JSON_RPC_Object_Ptr;

#endif
