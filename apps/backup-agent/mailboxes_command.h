#ifndef APPS_BACKUP_AGENT_MAILBOXES_COMMAND_H
#define APPS_BACKUP_AGENT_MAILBOXES_COMMAND_H

#include "apps/backup-agent/module_host.h"

#include <ostream>
#include <string>
#include <vector>

// `mailboxes --tenant UUID [--search TEXT] [--page-size N] [--json]`: the
// mailboxes (user principal names) of a registered tenant, through the module's
// "exchange.list_mailboxes" handler called in-process, page after page (of N,
// 999 by default) while the handler gives a "skip_token". One address per line; with --json one
// object {"total", "rows": [{"mailbox"}]} of every page. Exit status 0, 1 when
// the handler answers an error, 64 for a bad invocation.
class Mailboxes_Command
{
public:
  explicit Mailboxes_Command(Module_Host& module) : module_(module) {}
  int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
  static const char* usage();

private:
  Module_Host& module_;
};

#endif
