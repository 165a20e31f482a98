#include "backup/exchange/websvcs_agent/mailbox_index_lister.h"

#include "backup/exchange/core/ews/ews_mtf_utils.h"
#include "backup/exchange/core/ews/ews_utils.h"
#include "host/base/log.h"

namespace
{
nlohmann::ordered_json to_array(const std::vector<nlohmann::ordered_json>& rows)
{
  nlohmann::ordered_json out = nlohmann::ordered_json::array();
  for (const nlohmann::ordered_json& row : rows)
    out.push_back(row);
  return out;
}
}  // namespace

Mailbox_Index_Lister::Mailbox_Index_Lister(const std::string& pool_uuid, const std::string& catalog_uuid,
                                           const std::string& uri, const std::string& mailbox, int backup_rev,
                                           int64_t offset, int64_t limit)
  : pool_uuid_(pool_uuid),
    catalog_uuid_(catalog_uuid),
    uri_(uri),
    mailbox_(mailbox),
    backup_rev_(backup_rev),
    offset_(offset),
    limit_(limit)
{
}

bool Mailbox_Index_Lister::list_folder(const std::vector<std::string>& parent_entry_ids, nlohmann::ordered_json& result)
{
  std::string name;
  index_name(mailbox_, backup_rev_, name);
  if (!EWS_Folders_Cache::instance()->get(pool_uuid_, uri_, name, folders_))
    return false;
  result = nlohmann::ordered_json::object();
  if (parent_entry_ids.empty())
    return list_root_folder(result);
  return list_folder_i(parent_entry_ids, result);
}

bool Mailbox_Index_Lister::list_root_folder(nlohmann::ordered_json& obj) const
{
  std::vector<nlohmann::ordered_json> rows;
  jsonify_ews_folders(*folders_, rows);
  obj["total"] = folders_->size();
  obj["rows"] = to_array(rows);
  return true;
}

bool Mailbox_Index_Lister::list_folder_i(const std::vector<std::string>& ids, nlohmann::ordered_json& obj) const
{
  const EWS_Folder* folder = nullptr;
  if (!find_folder(folders_.get(), ids, folder) || folder == nullptr)
    return false;
  std::vector<nlohmann::ordered_json> rows;
  jsonify_ews_folders(folder->subfolders, rows);
  jsonify_ews_items(folder->items, rows);
  obj["total"] = folder->subfolders.size() + folder->items.size();
  obj["rows"] = to_array(rows);
  return true;
}

bool Mailbox_Index_Lister::find_folder(const EWS_Folders* root, const std::vector<std::string>& ids,
                                       const EWS_Folder*& out) const
{
  out = nullptr;
  const EWS_Folders* level = root;
  for (const std::string& id : ids)
  {
    const EWS_Folder* found = nullptr;
    for (const EWS_Folder& f : *level)
      if (f.id == id)
      {
        found = &f;
        break;
      }
    if (found == nullptr)
    {
      LOG_MSG(LM_ERROR, "EWS folder not found, id = %s, pool_uuid = %s, uri = %s\n", id.c_str(), pool_uuid_.c_str(),
              uri_.c_str());
      return false;
    }
    out = found;
    level = &found->subfolders;
  }
  return true;
}
