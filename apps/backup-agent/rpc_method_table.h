#ifndef APPS_BACKUP_AGENT_RPC_METHOD_TABLE_H
#define APPS_BACKUP_AGENT_RPC_METHOD_TABLE_H

#include "apps/backup-agent/agent_methods.h"
#include "host/base/module_library.h"
#include "host/jsonrpc/json_rpc_dispatcher.h"

#include <string>

// The one table of the agent's JSON-RPC methods (docs/json-rpc.md): each method
// name with the factory of its handler. The module's four handlers are made and
// released through the module's exported pairs, looked up by name in the loaded
// library (never linked); the agent's own methods through
// Agent_Method_Handler. `backup-agent serve` and the browsing commands
// (mailboxes, folders, browse) dispatch through the same table.
//
//   method                  handler
//   exchange.test_auth      _make_/_gobble_JSON_RPC_Exchange_Online_Test_Handler
//   exchange.list_mailboxes _make_/_gobble_JSON_RPC_Exchange_Online_List_Handler
//   exchange.list_folders   _make_/_gobble_JSON_RPC_Exchange_Online_List_Folder_Handler
//   exchange.browse_set     _make_/_gobble_JSON_RPC_Exchange_Online_List_Backupset_Handler
//   agent.list_tenants      Agent_Methods::list_tenants
//   agent.add_tenant        Agent_Methods::add_tenant
//   agent.list_pools        Agent_Methods::list_pools
//   agent.list_sets         Agent_Methods::list_sets
//   agent.start_backup      Agent_Methods::start_backup
//   agent.start_restore     Agent_Methods::start_restore
//   agent.job_status        Agent_Methods::job_status
//   agent.instances         Agent_Methods::instances
class RPC_Method_Table
{
public:
  struct Row
  {
    const char* method;
    const char* module_pair;             // the module's factory pair name, or null
    Agent_Methods::Method agent_method;  // else the agent's own method
  };
  static const Row rows[];
  static const size_t row_count;

  // The dispatcher's table: every row's factory, the module's resolved in
  // `library`. False with `error` when the module lacks one of its pairs.
  // `library` and `methods` must outlive the table.
  static bool build(Module_Library& library, Agent_Methods& methods, JSON_RPC_Dispatcher::Method_Table& table,
                    std::string& error);
};

#endif
