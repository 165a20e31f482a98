#ifndef BACKUP_EXCHANGE_WEBSVCS_AGENT_MAILBOX_INDEX_LISTER_H
#define BACKUP_EXCHANGE_WEBSVCS_AGENT_MAILBOX_INDEX_LISTER_H

#include "backup/exchange/core/ews/ews_folders_cache.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <vector>

// Answers one browse request of a backup set: the children of one folder of one
// mailbox, from that mailbox's index (through the process-wide cache). Made per
// request, used by one thread.
class Mailbox_Index_Lister
{
public:
  // `offset` and `limit` are kept but not applied: every row of the folder is
  // returned.
  Mailbox_Index_Lister(const std::string& pool_uuid, const std::string& catalog_uuid, const std::string& uri,
                       const std::string& mailbox, int backup_rev, int64_t offset, int64_t limit);

  // `parent_entry_ids` is the chain of folder ids from a top-level folder down
  // to the folder to list; empty lists the top level. `result` becomes
  // {"total": n, "rows": [...]}, subfolders first, then items. False (logged)
  // when the index cannot be had or the chain leads nowhere.
  bool list_folder(const std::vector<std::string>& parent_entry_ids, nlohmann::ordered_json& result);

  // Walks `ids` from `root`, one level per id (direct children only). `out` is
  // the last folder found, null for no ids.
  bool find_folder(const EWS_Folders* root, const std::vector<std::string>& ids, const EWS_Folder*& out) const;

private:
  bool list_root_folder(nlohmann::ordered_json& obj) const;
  bool list_folder_i(const std::vector<std::string>& ids, nlohmann::ordered_json& obj) const;

  std::string pool_uuid_;
  std::string catalog_uuid_;
  std::string uri_;
  std::string mailbox_;
  EWS_Folders_Ptr folders_;
  int backup_rev_;
  int64_t offset_;
  int64_t limit_;
};

#endif
