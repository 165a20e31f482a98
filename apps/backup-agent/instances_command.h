#ifndef APPS_BACKUP_AGENT_INSTANCES_COMMAND_H
#define APPS_BACKUP_AGENT_INSTANCES_COMMAND_H

#include "apps/backup-agent/module_host.h"

#include <ostream>
#include <string>
#include <vector>

// `instances [--json]`: the module's protectable instances, through the
// "agent.instances" method called in-process (the module's instance handler,
// made through its exported pair). One line per instance: name, type, state;
// with --json the method's result {"rows": [{"type", "name", "uuid", "options",
// "state"}]}. Exit status 0, 1 when the handler fails, 64 for a bad invocation.
class Instances_Command
{
public:
  explicit Instances_Command(Module_Host& module) : module_(module) {}
  int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
  static const char* usage();

private:
  Module_Host& module_;
};

#endif
