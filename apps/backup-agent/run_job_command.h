#ifndef APPS_BACKUP_AGENT_RUN_JOB_COMMAND_H
#define APPS_BACKUP_AGENT_RUN_JOB_COMMAND_H

#include "apps/backup-agent/module_host.h"

#include <ostream>
#include <string>

// `run-job FILE`: makes a job of the definition through the module's job
// creator, starts it on its own thread, shows its progress and waits for its
// outcome. Ctrl-C (SIGINT) or SIGTERM asks the job to stop. Exit status 0 for
// success, 1 when the job cannot be made or started, 2 for a failed run, 3 for
// a canceled one.
class Run_Job_Command
{
public:
  explicit Run_Job_Command(Module_Host& module) : module_(module) {}

  int run(const std::string& path, std::ostream& out, std::ostream& err);

private:
  int report(const Job& job, std::ostream& out, std::ostream& err);

  Module_Host& module_;
};

#endif
