#ifndef APPS_BACKUP_AGENT_CHECK_JOB_COMMAND_H
#define APPS_BACKUP_AGENT_CHECK_JOB_COMMAND_H

#include "apps/backup-agent/module_host.h"

#include <ostream>
#include <string>

// `check-job FILE`: reads a job definition through the module's parsers and
// prints what was understood (identity, schedule, target, limits, and the
// options and source as the module writes them back). Exit status 0, or 1 when
// the definition is refused (the reason on standard error, the module's own
// messages in the log).
class Check_Job_Command
{
public:
  explicit Check_Job_Command(Module_Host& module) : module_(module) {}

  int run(const std::string& path, std::ostream& out, std::ostream& err);

  // Reads the definition; false after writing the reason to `err`.
  bool read(const std::string& path, Job_Definition_var& def, std::ostream& err);

  static void print(const Job_Definition& def, std::ostream& out);

private:
  Module_Host& module_;
};

#endif
