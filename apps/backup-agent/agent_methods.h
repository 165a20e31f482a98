#ifndef APPS_BACKUP_AGENT_AGENT_METHODS_H
#define APPS_BACKUP_AGENT_AGENT_METHODS_H

#include "apps/backup-agent/agent_jobs.h"
#include "apps/backup-agent/module_host.h"

#include <nlohmann/json.hpp>

#include <string>

// The agent's own JSON-RPC methods ("agent.*"; the table that names them is
// RPC_Method_Table, docs/json-rpc.md gives their params and results). Each
// takes the request's params (always an object) and either fills `result` and
// returns 0, or returns a JSON-RPC error code with `message`:
// -32602 for params that are missing, of the wrong type or name nothing known,
// -32603 for work that failed. Backups and restores are started through the
// same code as the backup and restore commands and run in the background in
// `jobs`. Any thread may call; the module and the jobs outlive this object.
class Agent_Methods
{
public:
  Agent_Methods(Module_Host& module, Agent_Jobs& jobs) : module_(module), jobs_(jobs) {}

  typedef int (Agent_Methods::*Method)(const nlohmann::ordered_json& params, nlohmann::ordered_json& result,
                                       std::string& message);

  int list_tenants(const nlohmann::ordered_json& params, nlohmann::ordered_json& result, std::string& message);
  int add_tenant(const nlohmann::ordered_json& params, nlohmann::ordered_json& result, std::string& message);
  int list_pools(const nlohmann::ordered_json& params, nlohmann::ordered_json& result, std::string& message);
  int list_sets(const nlohmann::ordered_json& params, nlohmann::ordered_json& result, std::string& message);
  int start_backup(const nlohmann::ordered_json& params, nlohmann::ordered_json& result, std::string& message);
  int start_restore(const nlohmann::ordered_json& params, nlohmann::ordered_json& result, std::string& message);
  int job_status(const nlohmann::ordered_json& params, nlohmann::ordered_json& result, std::string& message);
  // The module's instances, from its instance handler made through its exported
  // pair for this call: {"rows": [{"type", "name", "uuid", "options", "state"}]}.
  int instances(const nlohmann::ordered_json& params, nlohmann::ordered_json& result, std::string& message);

private:
  Module_Host& module_;
  Agent_Jobs& jobs_;
};

#endif
