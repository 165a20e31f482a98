#include "backup/exchange/core/ews/ews_restore_context.h"

#include "backup/exchange/core/ews/ews_mtf_utils.h"
#include "backup/exchange/core/ews/ews_utils.h"
#include "host/base/log.h"

#include <ace/Guard_T.h>

#include <cerrno>
#include <list>
#include <new>

namespace
{
// `name` appended to `path` with exactly one separator between them.
void append_component(std::string& path, const std::string& name, char sep)
{
  if (path.empty() || path.back() != sep)
    path += sep;
  path += name;
}
}  // namespace

bool EWS_Restore_Context::make_client(EWS_Client_Ptr& client, const std::string& username,
                                      const Secure_String& password, const std::shared_ptr<Office365_Auth>& auth,
                                      const std::shared_ptr<ACE_Log_Msg_Callback>& log_cb,
                                      const std::string& mailbox) const
{
  if (client_maker_)
    return client_maker_(client) && client->impersonate(mailbox);
  return ::create_ews_client(username, password, auth, client, log_cb, mailbox);
}

bool EWS_Restore_Context::init(const std::string& username, const Secure_String& password,
                               const std::string& tgt_mailbox, const std::shared_ptr<Office365_Auth>& auth,
                               const std::shared_ptr<ACE_Log_Msg_Callback>& log_cb)
{
  EWS_Client_Ptr client;
  if (!make_client(client, username, password, auth, log_cb, tgt_mailbox))
    return false;
  EWS_Folder_Creator* creator = new (std::nothrow) EWS_Folder_Creator(client);
  if (creator == nullptr)
  {
    errno = ENOMEM;
    return false;
  }
  creator_.reset(creator);
  username_ = username;
  password_ = password;
  tgt_mailbox_ = tgt_mailbox;
  auth_ = auth;
  log_cb_ = log_cb;
  return true;
}

bool EWS_Restore_Context::create_target_folder(const std::string& path)
{
  if (path.empty())
  {
    target_folder_id_.clear();
    return true;
  }
  if (creator_.get() == nullptr)
  {
    LOG_MSG(LM_EMERGENCY, "Unexpected error in %N:%l, creator_.get() is NULL:\n%?\n");
    return false;
  }
  if (!creator_->mkdir_p(path, target_folder_id_))
  {
    LOG_MSG(LM_ERROR, "Failed to create EWS restore target folder '/%s'\n", path.c_str());
    return false;
  }
  LOG_MSG(LM_INFO, "EWS restore target folder '/%s' created\n", path.c_str());
  return true;
}

bool EWS_Restore_Context::load_src_index(const std::string& src_mailbox, const std::string& pool_uuid,
                                         const std::string& uri, int rev)
{
  EWS_Folders* folders = new (std::nothrow) EWS_Folders();
  if (folders == nullptr)
  {
    errno = ENOMEM;
    return false;
  }
  src_folders_.reset(folders);
  std::string name;
  index_name(src_mailbox, rev, name);
  if (!EWS_Folders_Cache::instance()->get(pool_uuid, uri, name, src_folders_))
    return false;
  src_mailbox_ = src_mailbox;
  return true;
}

void EWS_Restore_Context::parse_restore_entry(const std::string& entry, std::vector<std::string>& components,
                                              std::string& id)
{
  components.clear();
  const size_t slash = entry.rfind('/');
  if (slash == std::string::npos)
  {
    id = decode_path(entry);
    return;
  }
  const std::string folders = decode_path(entry.substr(0, slash));
  size_t begin = 0;
  while (begin <= folders.size())
  {
    size_t end = folders.find('/', begin);
    if (end == std::string::npos)
      end = folders.size();
    // Adjacent separators count as one: an empty piece between two is dropped,
    // a leading or trailing one yields an empty name as the backup named it.
    if (end > begin || begin == 0 || end == folders.size())
      components.push_back(folders.substr(begin, end - begin));
    begin = end + 1;
  }
  id = decode_path(entry.substr(slash + 1));
}

bool EWS_Restore_Context::to_mtf_restore_entry(const std::string& entry, nlohmann::ordered_json& out) const
{
  std::vector<std::string> components;
  std::string id;
  parse_restore_entry(entry, components, id);
  const EWS_Folder* folder = nullptr;
  const EWS_Item* item = nullptr;
  if (!src_folders_ || !find_folder_or_item_by_id(*src_folders_, components, id, folder, item))
  {
    LOG_MSG(LM_ERROR, "Failed to find entry '%s' in EWS backupset\n", id.c_str());
    return false;
  }
  std::string path = orig_prefix_ + encode_name(src_mailbox_);
  for (const std::string& c : components)
    append_component(path, encode_name(c), orig_separator_);
  if (folder != nullptr)
  {
    append_component(path, encode_name(folder->display_name), orig_separator_);
    out["dir"] = path;
  }
  else
  {
    append_component(path, encode_name(get_item_name(*item)), orig_separator_);
    out["file"] = path;
  }
  return true;
}

bool EWS_Restore_Context::create_ews_client(EWS_Client_Ptr& client) const
{
  if (tgt_mailbox_.empty())
  {
    LOG_MSG(LM_EMERGENCY, "Unexpected error in %N:%l, tgt_mailbox_ is empty:\n%?\n");
    return false;
  }
  return make_client(client, username_, password_, auth_, log_cb_, tgt_mailbox_);
}

bool EWS_Restore_Context::mkdir_p(const char* path)
{
  const std::string key(path == nullptr ? "" : path);
  {
    ACE_Guard<ACE_Thread_Mutex> guard(lock_);
    if (!guard.locked())
      return false;
    if (created_dir_.count(key) != 0)
      return true;
  }
  std::list<std::string> names;
  if (!path_to_list(key, names, orig_prefix_comp_count_))
    return false;
  // The prefix or the mailbox itself: nothing to create, nothing recorded.
  if (names.empty())
    return true;
  LOG_MSG(LM_DEBUG, "Restoring folder '%s'.\n", key.c_str());
  std::string id;
  if (creator_.get() == nullptr || !creator_->mkdir_p(target_folder_id_, names, id))
  {
    LOG_MSG(LM_ERROR, "Failed to mkdir_p '%s'\n", key.c_str());
    return false;
  }
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  if (!guard.locked())
    return false;
  created_dir_[key] = id;
  return true;
}

bool EWS_Restore_Context::get_folder_id(const std::string& path, std::string& id)
{
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  if (!guard.locked())
    return false;
  auto it = created_dir_.find(path);
  if (it == created_dir_.end())
  {
    LOG_MSG(LM_ERROR, "EWS folder '%s' not created\n", path.c_str());
    return false;
  }
  id = it->second;
  return true;
}

bool EWS_Restore_Context::folder_uploads(const std::string& id, boost::shared_ptr<EWS_Folder_Uploads>& out)
{
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  if (!guard.locked())
    return false;
  boost::shared_ptr<EWS_Folder_Uploads>& slot = uploads_[id];
  if (!slot)
  {
    EWS_Folder_Uploads* uploads = new (std::nothrow) EWS_Folder_Uploads(id);
    if (uploads == nullptr)
    {
      uploads_.erase(id);
      errno = ENOMEM;
      return false;
    }
    slot.reset(uploads);
  }
  out = slot;
  return true;
}
