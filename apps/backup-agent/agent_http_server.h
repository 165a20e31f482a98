#ifndef APPS_BACKUP_AGENT_AGENT_HTTP_SERVER_H
#define APPS_BACKUP_AGENT_AGENT_HTTP_SERVER_H

#include "apps/backup-agent/agent_api_key.h"
#include "host/jsonrpc/json_rpc_dispatcher.h"

#include <httplib.h>

#include <atomic>
#include <string>

// The HTTP side of `backup-agent serve` (docs/json-rpc.md), on cpp-httplib:
// - POST /rpc: one JSON-RPC 2.0 body (Content-Type application/json, at most
//   MAX_BODY_BYTES) handed to the dispatcher; its reply is the answer's body
//   (200), or 204 without a body when there is nothing to answer (only
//   notifications). Every request must carry "Authorization: Bearer <API key>";
//   without it or with a wrong key the answer is 401 without a body and nothing
//   runs (the body is not even read). A larger body is refused with 413, another
//   content type with 415.
// - GET / and GET /console/<name>: the web console's static files (index.html
//   and the names in the console directory), without a key: they hold no data.
//   A name with "/" or "..", or starting with ".", is refused with 404.
// Each connection serves one request and is handled on a worker of a
// Bounded_Task_Queue (`threads` workers, at most MAX_WAITING_CONNECTIONS
// accepted connections waiting for one; beyond that the accepting thread waits
// and new connections wait in the kernel). Nothing of a request's key or body is logged.
// bind() and run() on one thread; stop() from any other (a signal's thread).
class Agent_Http_Server
{
public:
  static const size_t MAX_BODY_BYTES = 1024 * 1024;
  static const size_t MAX_WAITING_CONNECTIONS = 64;

  Agent_Http_Server(const Agent_API_Key& key, const JSON_RPC_Dispatcher& dispatcher, const std::string& console_dir,
                    int threads);

  // Binds to `host`:`port` (0: any free port, given back in `bound_port`).
  bool bind(const std::string& host, int port, int& bound_port);
  // Serves until stop(); false when the server could not run.
  bool run();
  // Ends run(): no new connection is taken, the requests in work are finished.
  void stop();

  // The console file `name` of `dir`; false when the name is not one the
  // console may serve or the file cannot be read. `content_type` from the
  // name's extension.
  static bool console_file(const std::string& dir, const std::string& name, std::string& content,
                           std::string& content_type);

private:
  void install_routes();
  void rpc(const httplib::Request& req, httplib::Response& res);
  void serve_console(const std::string& name, httplib::Response& res);

  const Agent_API_Key& key_;
  const JSON_RPC_Dispatcher& dispatcher_;
  const std::string console_dir_;
  const int threads_;
  httplib::Server server_;
  std::atomic<bool> finished_{false};
};

#endif
