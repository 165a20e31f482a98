#include "apps/backup-agent/rpc_method_table.h"

#include "apps/backup-agent/agent_method_handler.h"

const RPC_Method_Table::Row RPC_Method_Table::rows[] = {
  {"exchange.test_auth", "JSON_RPC_Exchange_Online_Test_Handler", nullptr},
  {"exchange.list_mailboxes", "JSON_RPC_Exchange_Online_List_Handler", nullptr},
  {"exchange.list_folders", "JSON_RPC_Exchange_Online_List_Folder_Handler", nullptr},
  {"exchange.browse_set", "JSON_RPC_Exchange_Online_List_Backupset_Handler", nullptr},
  {"agent.list_tenants", nullptr, &Agent_Methods::list_tenants},
  {"agent.add_tenant", nullptr, &Agent_Methods::add_tenant},
  {"agent.list_pools", nullptr, &Agent_Methods::list_pools},
  {"agent.list_sets", nullptr, &Agent_Methods::list_sets},
  {"agent.start_backup", nullptr, &Agent_Methods::start_backup},
  {"agent.start_restore", nullptr, &Agent_Methods::start_restore},
  {"agent.job_status", nullptr, &Agent_Methods::job_status},
  {"agent.instances", nullptr, &Agent_Methods::instances},
};

const size_t RPC_Method_Table::row_count = sizeof rows / sizeof rows[0];

bool RPC_Method_Table::build(Module_Library& library, Agent_Methods& methods, JSON_RPC_Dispatcher::Method_Table& table,
                             std::string& error)
{
  table.clear();
  for (size_t i = 0; i < row_count; ++i)
  {
    const Row& row = rows[i];
    if (row.module_pair == nullptr)
    {
      const Agent_Methods::Method method = row.agent_method;
      Agent_Methods* target = &methods;
      table[row.method] = [target, method](void (**release)(void*))
      { return Agent_Method_Handler::make(*target, method, release); };
      continue;
    }
    const Module_Library::Make_Function make = library.make_function(row.module_pair);
    if (make == nullptr)
    {
      error = std::string("the module has no factory pair ") + row.module_pair + " for " + row.method + ": " +
              library.error();
      return false;
    }
    // The module's make function returns its handler as the host's
    // JSON_RPC_Handler (the base both sides share through libhost).
    table[row.method] = [make](void (**release)(void*)) { return static_cast<JSON_RPC_Handler*>(make(release)); };
  }
  return true;
}
