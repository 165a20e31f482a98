#ifndef APPS_BACKUP_AGENT_VERIFY_COMMAND_H
#define APPS_BACKUP_AGENT_VERIFY_COMMAND_H

#include "apps/backup-agent/module_host.h"
#include "apps/backup-agent/set_verifier.h"
#include "host/ews/ews_folder.h"

#include <nlohmann/json.hpp>

#include <ostream>
#include <string>
#include <vector>

// `verify --set UUID [--mailbox ADDRESS] [--json] [--rehearse-into ADDRESS]`:
// reads every item of a backup set back from the pool's storage (Set_Verifier:
// block and stream checksums, each item's SHA-256) and checks that every item
// the set's mailbox indexes name, except their failed items, is in it. Prints
// per mailbox the items verified, missing and damaged, and names each missing
// or damaged item (mailbox, folder path, item) with the reason; with --json the
// same as one JSON object. With --rehearse-into, each mailbox is also restored
// into a scratch folder of that mailbox and every restored item exported again
// and compared (Restore_Rehearsal). Exit status 0 when everything is sound (and
// every rehearsed item round-trips), 1 when anything is missing, damaged or
// unreadable, 130 when Ctrl-C cancelled a rehearsal, 64 for a bad invocation.
class Verify_Command
{
public:
  explicit Verify_Command(Module_Host& module) : module_(module) {}

  int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

  static const char* usage();

  struct Request
  {
    std::string set;
    std::string mailbox;
    std::string rehearse_into;
    bool json = false;
    bool help = false;
  };
  static bool parse(const std::vector<std::string>& args, Request& request, std::string& error);

  // Compares one mailbox's index with the verifier's outcomes: every item of
  // `tree` not in `failed` must have a sound catalog entry at its path (items
  // of one name in one folder share a path and are counted together). Fills
  // `summary` ({"mailbox", "verified", "missing", "damaged"}) and appends one
  // {"mailbox", "folder", "item", "id", "state", "reason"} per missing or damaged
  // item to `items`.
  static void tally(const std::string& mailbox, const EWS_Folders& tree, const std::vector<std::string>& failed,
                    const MTF_Set_Catalog& catalog, const std::vector<Set_Verifier::Outcome>& outcomes,
                    nlohmann::ordered_json& summary, nlohmann::ordered_json& items);

private:
  Module_Host& module_;
};

#endif
