#ifndef APPS_BACKUP_AGENT_SETS_COMMAND_H
#define APPS_BACKUP_AGENT_SETS_COMMAND_H

#include <ostream>
#include <string>
#include <vector>

// `sets [--tenant UUID] [--mailbox ADDRESS] [--json]`: the Exchange backup sets
// in the catalog, newest first: set uuid, start time, revision, mailboxes,
// items (from the sets' mailbox indexes), bytes and failed mailboxes. With
// --mailbox only the sets holding that mailbox. Exit status 0, 1 when the
// catalog or an index cannot be read, 64 for a bad invocation.
class Sets_Command
{
public:
  int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
  static const char* usage();
};

#endif
