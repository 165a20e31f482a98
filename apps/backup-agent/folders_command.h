#ifndef APPS_BACKUP_AGENT_FOLDERS_COMMAND_H
#define APPS_BACKUP_AGENT_FOLDERS_COMMAND_H

#include "apps/backup-agent/module_host.h"

#include <ostream>
#include <string>
#include <vector>

// `folders --tenant UUID --mailbox ADDRESS [--entry-id ID] [--json]`: the live
// child folders of one folder of a mailbox (of its top with no --entry-id),
// through the module's "exchange.list_folders" handler called in-process. One
// line per folder, its name and its entry id; with --json the handler's result
// {"total", "rows": [{"entry_id", "name"}]}. Exit status 0, 1 when the handler
// answers an error, 64 for a bad invocation.
class Folders_Command
{
public:
  explicit Folders_Command(Module_Host& module) : module_(module) {}
  int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
  static const char* usage();

private:
  Module_Host& module_;
};

#endif
