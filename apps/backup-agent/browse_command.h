#ifndef APPS_BACKUP_AGENT_BROWSE_COMMAND_H
#define APPS_BACKUP_AGENT_BROWSE_COMMAND_H

#include "apps/backup-agent/module_host.h"

#include <nlohmann/json.hpp>

#include <ostream>
#include <string>
#include <vector>

class RPC_Caller;

// `browse --set UUID --mailbox ADDRESS [--path "Inbox/Projects"] [--json]`: a
// folder of a mailbox as a backup set holds it, through the module's
// "exchange.browse_set" handler called in-process. The folder path (display
// names from the mailbox's top, joined by "/") is turned into the handler's
// "parent_entry_ids" chain by listing level by level and taking the entry id
// of the folder of each name. Prints the folder's subfolders, then its items:
// "folder<TAB>NAME<TAB>ENTRY_ID" and "item<TAB>SUBJECT<TAB>ENTRY_ID"; with
// --json {"parent_entry_ids", "total", "rows"}. Exit status 0, 1 when the set
// or a folder of the path is not found or the handler answers an error, 64 for
// a bad invocation.
class Browse_Command
{
public:
  explicit Browse_Command(Module_Host& module) : module_(module) {}
  int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
  static const char* usage();

  // The "parent_entry_ids" chain of `path` in the set's index of the mailbox
  // that `params` (an "exchange.browse_set" params object without the chain)
  // names, and the listing of that folder in `listing`. False with `error` when
  // a folder of the path is not found or a call fails.
  static bool resolve(RPC_Caller& caller, nlohmann::ordered_json params, const std::string& path,
                      nlohmann::ordered_json& ids, nlohmann::ordered_json& listing, std::string& error);

private:
  Module_Host& module_;
};

#endif
