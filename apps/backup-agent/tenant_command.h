#ifndef APPS_BACKUP_AGENT_TENANT_COMMAND_H
#define APPS_BACKUP_AGENT_TENANT_COMMAND_H

#include "apps/backup-agent/registry_lock.h"
#include "apps/backup-agent/tenant_add_options.h"
#include "host/base/secure_allocator.h"
#include "host/office365/office365_tenant_registry.h"

#include <ostream>
#include <string>
#include <vector>

// `tenant add|list|remove|test`: manages the agent's Office 365 tenant registry
// (Office365_Tenant_Registry), the file from which jobs take a tenant's
// endpoints and application credentials by the registration's uuid.
//   add OPTIONS   registers a tenant (Tenant_Add_Options); the client secret comes
//                 from --secret-file or standard input; prints the new uuid
//   list          one line per registration: uuid, ids, mailbox, endpoints; never
//                 the secret
//   remove UUID   drops a registration
//   test UUID     asks the login endpoint for the tokens the module uses
// Exit status 0; 1 when the registry cannot be read or written, the uuid is not
// registered or a token is refused (the service's reason on standard error);
// 64 for a usage error.
class Tenant_Command
{
public:
  // `registry_path` is empty when the agent has no state directory.
  Tenant_Command(const std::string& registry_path, std::ostream& out, std::ostream& err)
    : registry_(registry_path), path_(registry_path), out_(out), err_(err)
  {
  }

  // `args`: the subcommand and its arguments.
  int run(const std::vector<std::string>& args);

  static const char* usage();

  // Registers `options.entry` with `secret` under `options.uuid` (a new uuid
  // when empty) as `tenant add` does, returned in `uuid`: the state directory
  // made when missing, the registry locked, read, changed and written back.
  // 0, or 1 after writing the reason to `err`. Shared with the agent's
  // "agent.add_tenant" method.
  int register_entry(const Tenant_Add_Options& options, const Secure_String& secret, std::string& uuid);

private:
  int add(const std::vector<std::string>& args);
  int list();
  int remove(const std::string& uuid);
  int test(const std::string& uuid);

  // Loads the registry; false after writing the reason to `err`.
  bool load();
  // Loads the registry for a change, creating the state directory when missing.
  bool load_for_change(Registry_Lock& lock);
  bool save();
  // The registration `uuid` (any case); false after writing the reason to `err`.
  bool find(const std::string& uuid, Office365_Tenant_Registry::Tenant& tenant);
  void warn_of_duplicates(const Office365_Auth_Entry& entry, const std::string& uuid);
  int fail(const std::string& message, int status);

  Office365_Tenant_Registry registry_;
  std::string path_;
  std::ostream& out_;
  std::ostream& err_;
};

#endif
