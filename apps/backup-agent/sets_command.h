#ifndef APPS_BACKUP_AGENT_SETS_COMMAND_H
#define APPS_BACKUP_AGENT_SETS_COMMAND_H

#include <nlohmann/json.hpp>

#include <ostream>
#include <string>
#include <vector>

// `sets [--tenant UUID] [--mailbox ADDRESS] [--json]`: the Exchange backup sets
// in the catalog, newest first: set uuid, start time, revision, mailboxes,
// items (from the sets' mailbox indexes), bytes and failed mailboxes. With
// --mailbox only the sets holding that mailbox. Each set's JSON object also
// carries what browsing it needs: "pool_uuid", "catalog_uuid" (the set's uuid),
// "uri" and "rev". Exit status 0, 1 when the
// catalog or an index cannot be read, 64 for a bad invocation.
class Sets_Command
{
public:
  int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
  static const char* usage();

  // The sets as --json prints them, newest first, of `tenant` and holding
  // `mailbox` (each filter skipped when empty); false with `error` when the
  // catalog or a set's indexes cannot be read. Shared with the agent's
  // "agent.list_sets" method.
  static bool list(const std::string& tenant, const std::string& mailbox, nlohmann::ordered_json& sets,
                   std::string& error);
};

#endif
