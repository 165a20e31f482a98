#ifndef APPS_BACKUP_AGENT_RPC_CALLER_H
#define APPS_BACKUP_AGENT_RPC_CALLER_H

#include "apps/backup-agent/agent_jobs.h"
#include "apps/backup-agent/agent_methods.h"
#include "apps/backup-agent/module_host.h"
#include "host/jsonrpc/json_rpc_dispatcher.h"

#include <nlohmann/json.hpp>

#include <string>

// Calls the methods of RPC_Method_Table in-process, for the agent's browsing
// commands (mailboxes, folders, browse, instances): the method's handler is
// made through the same factory `serve` uses (the module's exported pair, by
// name), handed a request and a Recording_Channel, and released; the recorded
// reply is then read. One thread at a time.
class RPC_Caller
{
public:
  explicit RPC_Caller(Module_Host& module) : module_(module), methods_(module, jobs_) {}

  // Builds the method table from the loaded module; false with `error`.
  bool init(std::string& error);

  // Calls `method` with `params`. True with the reply's result; false with
  // `error` ("MESSAGE (code CODE)") for an error reply, an unknown method or a
  // handler that sent nothing.
  bool call(const std::string& method, const nlohmann::ordered_json& params, nlohmann::ordered_json& result,
            std::string& error);

private:
  Module_Host& module_;
  Agent_Jobs jobs_;
  Agent_Methods methods_;
  JSON_RPC_Dispatcher::Method_Table table_;
};

#endif
