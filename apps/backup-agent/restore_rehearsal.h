#ifndef APPS_BACKUP_AGENT_RESTORE_REHEARSAL_H
#define APPS_BACKUP_AGENT_RESTORE_REHEARSAL_H

#include "apps/backup-agent/restore_command.h"
#include "host/catalog/exchange_backup_set.h"
#include "host/ews/ews_folder.h"
#include "host/mtf/mtf_set_catalog.h"

#include <nlohmann/json.hpp>

#include <ctime>
#include <map>
#include <ostream>
#include <string>

class EWS_Client;

// `verify --rehearse-into ADDRESS`: restores one mailbox of a set whole (every
// top-level folder of its index) into a new scratch folder of the target
// mailbox, through the module's restore job as `restore` runs it, then lists
// that folder's tree with the host EWS client, exports every restored item and
// compares it with the backed-up items of the same folder path. Restored items
// get new ids, so items are matched within a folder by the SHA-256 of their
// bytes against the SHA-256 the set's catalog records for each backed-up item.
// One thread at a time.
class Restore_Rehearsal
{
public:
  Restore_Rehearsal(Restore_Command& restore, const Exchange_Backup_Set& record, const MTF_Set_Catalog& catalog,
                    const std::string& target)
    : restore_(restore), record_(record), catalog_(catalog), target_(target)
  {
  }

  // The scratch folder's name for a rehearsal of `mailbox` started at `when`:
  // "Restore rehearsal <set uuid> <UTC time> <mailbox>", unique per set, start
  // second and source mailbox, and one top-level folder (no "/").
  static std::string scratch_name(const std::string& set, time_t when, const std::string& mailbox);

  // Rehearses `mailbox` (its index `tree`). `report` gets the outcome:
  // {"mailbox", "into", "folder", "restore" ("done" or why not), "round_trips",
  // "differ", "not_restored", "items": [{"folder", "item", "state", "reason"}]}
  // where state is "round-trips", "differs" (restored, but no backed-up item of
  // its folder has its bytes) or "not restored". True when every item
  // round-trips; 130 in `status` when Ctrl-C cancelled the restore.
  bool run(const std::string& mailbox, const EWS_Folders& tree, time_t when, std::ostream& err,
           nlohmann::ordered_json& report, int& status);

private:
  bool export_tree(EWS_Client& ews, const std::string& folder_id, const std::string& key, const std::string& shown,
                   nlohmann::ordered_json& items, std::string& error);

  Restore_Command& restore_;
  const Exchange_Backup_Set& record_;
  const MTF_Set_Catalog& catalog_;
  std::string target_;
  // Per folder key (encoded names joined by "/"), the backed-up items not yet
  // matched: SHA-256 -> decoded item names.
  std::map<std::string, std::multimap<std::string, std::string>> backed_up_;
};

#endif
