#ifndef HOST_JSONRPC_JSON_RPC_DISPATCHER_H
#define HOST_JSONRPC_JSON_RPC_DISPATCHER_H

#include "host/jsonrpc/json_rpc_handler.h"

#include <functional>
#include <map>
#include <string>

// JSON-RPC 2.0 over one message body, without a transport: the server hands it
// the body of one HTTP request and sends back the text it returns.
//
// - A single request is answered by one reply object; a batch (an array) by an
//   array of the replies of its members, in their order; an empty batch by one
//   "Invalid Request" error.
// - Notifications (a method and no "id") are not answered, and a batch of nothing
//   but notifications is answered by an empty body. Every method of the table
//   answers with a result, so a notification is not handed to its handler.
// - Errors: -32700 for a body that is not JSON (id null); -32600 for a message
//   that is not an object, whose "jsonrpc" is not "2.0", whose "method" is not a
//   string, whose "params" is neither an object nor an array or whose "id" is not
//   a string, a number or null (with its id when that is one, else null);
//   -32601 for a method not in the table.
//
// Each request is handled synchronously on the calling thread: the method's
// handler is made through its factory, given the request and a channel that
// collects its reply, and released through the release function the factory handed
// back. A request whose handler sent nothing (or threw) is answered by -32603.
// dispatch() may run on any number of threads at once; the table is not changed
// after construction.
class JSON_RPC_Dispatcher
{
public:
  // Makes one handler and stores, through its argument, the function that
  // releases it; a module's _make_<Name> fits. Null when it makes nothing.
  typedef std::function<JSON_RPC_Handler*(void (**release)(void*))> Factory;
  typedef std::map<std::string, Factory> Method_Table;
  // Asked before each request is handed to its handler: true while the requester
  // is still connected. When it answers false the handler gets a null channel.
  typedef std::function<bool()> Requester_Check;

  explicit JSON_RPC_Dispatcher(Method_Table methods);

  // The reply body for one request body; empty when nothing is to be sent.
  std::string dispatch(const std::string& body, const Requester_Check& requester_present = Requester_Check()) const;

  // Nesting depth beyond which a body is refused as an invalid request.
  enum
  {
    MAX_DEPTH = 256
  };
  // Members a batch may hold. A larger batch is refused whole as one invalid
  // request, so that one body cannot queue thousands of calls on one worker.
  enum
  {
    MAX_BATCH = 100
  };

private:
  // One member of a batch (or the whole body). Appends its reply to `replies`
  // when it has one.
  void handle_message(nlohmann::ordered_json& message, const Requester_Check& requester_present,
                      nlohmann::ordered_json& replies) const;

  Method_Table methods_;
};

#endif
