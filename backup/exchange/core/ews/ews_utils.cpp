#include "backup/exchange/core/ews/ews_utils.h"

#include "host/http/uri_parser.h"
#include "host/base/log.h"

#include <cerrno>
#include <new>
#include <nlohmann/json.hpp>

void jsonify_ews_folders(const std::vector<EWS_Folder>& folders, std::vector<nlohmann::ordered_json>& out)
{
  for (const EWS_Folder& folder : folders)
  {
    nlohmann::ordered_json object;
    object["entry_id"] = folder.id;
    object["name"] = folder.display_name;
    out.push_back(std::move(object));
  }
}

void jsonify_ews_items(const std::vector<EWS_Item>& items, std::vector<nlohmann::ordered_json>& out)
{
  for (const EWS_Item& item : items)
  {
    nlohmann::ordered_json object;
    object["entry_id"] = item.id;
    object["subject"] = get_item_name(item);
    out.push_back(std::move(object));
  }
}

const char* get_item_name(const EWS_Item& item)
{
  if (!item.display_name.empty())
    return item.display_name.c_str();
  if (!item.subject.empty())
    return item.subject.c_str();
  return "(no subject)";
}

std::string ews_default_scope(const std::string& ews_endpoint)
{
  URI uri;
  if (!URI_Parser::parse(ews_endpoint.c_str(), uri))
  {
    LOG_MSG(LM_ERROR, "Invalid EWS endpoint '%s'\n", ews_endpoint.c_str());
    return std::string();
  }
  return uri.origin() + "/.default";
}

bool create_ews_client(const std::string& user, const Secure_String& password, std::shared_ptr<Office365_Auth> auth,
                       EWS_Client_Ptr& out, const char* mailbox)
{
  if (!auth)
  {
    LOG_MSG(LM_ERROR, "Office365 authentication entry is empty.\n");
    return false;
  }
  const std::string endpoint = auth->get().ews_endpoint;
  EWS_Client* client = new (std::nothrow) EWS_Client();
  if (client == nullptr)
  {
    errno = ENOMEM;
    return false;
  }
  out.reset(client);
  return client->init(endpoint, user, password, auth, mailbox);
}

bool create_ews_client(const std::string& user, const Secure_String& password, std::shared_ptr<Office365_Auth> auth,
                       EWS_Client_Ptr& out, const std::shared_ptr<ACE_Log_Msg_Callback>& log_cb,
                       const std::string& mailbox)
{
  if (!create_ews_client(user, password, auth, out, mailbox.c_str()))
    return false;
  out->set_log_callback(log_cb);
  return true;
}

bool find_folder_by_id(const EWS_Folders& folders, const std::string& id, const EWS_Folder*& out)
{
  for (const EWS_Folder& folder : folders)
    if (folder.id == id)
    {
      out = &folder;
      return true;
    }
  LOG_MSG(LM_ERROR, "EWS folder not found, id = %s\n", id.c_str());
  return false;
}

namespace
{
// The first folder of this level named exactly `name`, or null; silent, so that
// the walks below report a missing level once, with the whole path.
const EWS_Folder* match_name(const EWS_Folders& folders, const std::string& name)
{
  for (const EWS_Folder& folder : folders)
    if (folder.display_name == name)
      return &folder;
  return nullptr;
}

// Walks display names level by level without logging.
const EWS_Folder* walk(const EWS_Folders& folders, const std::vector<std::string>& components)
{
  const EWS_Folders* level = &folders;
  const EWS_Folder* found = nullptr;
  for (const std::string& name : components)
  {
    found = match_name(*level, name);
    if (found == nullptr)
      return nullptr;
    level = &found->subfolders;
  }
  return found;
}

std::string join(const std::vector<std::string>& components)
{
  std::string text;
  for (const std::string& c : components)
    text += (text.empty() ? "" : "/") + c;
  return text;
}
}  // namespace

bool find_folder_by_name(const EWS_Folders& folders, const std::string& name, const EWS_Folder*& out)
{
  const EWS_Folder* found = match_name(folders, name);
  if (found == nullptr)
  {
    LOG_MSG(LM_ERROR, "EWS folder '%s' not found\n", name.c_str());
    return false;
  }
  out = found;
  return true;
}

bool find_folder_path(const EWS_Folders& folders, const std::vector<std::string>& components, const EWS_Folder*& out)
{
  if (components.empty())
    return false;
  const EWS_Folder* found = walk(folders, components);
  if (found == nullptr)
  {
    LOG_MSG(LM_ERROR, "EWS folder '%s' not found\n", join(components).c_str());
    return false;
  }
  out = found;
  return true;
}

bool find_item_by_id(const EWS_Folders& folders, const std::vector<std::string>& components, const std::string& id,
                     const EWS_Item*& out)
{
  const EWS_Folder* folder = nullptr;
  if (!find_folder_path(folders, components, folder))
    return false;
  for (const EWS_Item& item : folder->items)
    if (item.id == id)
    {
      out = &item;
      return true;
    }
  LOG_MSG(LM_ERROR, "EWS item not found, id = %s\n", id.c_str());
  return false;
}

bool find_folder_or_item_by_id(const EWS_Folders& folders, const std::vector<std::string>& components,
                               const std::string& id, const EWS_Folder*& folder, const EWS_Item*& item)
{
  folder = nullptr;
  item = nullptr;
  if (components.empty())
    return find_folder_by_id(folders, id, folder);
  const EWS_Folder* parent = walk(folders, components);
  if (parent)
    for (const EWS_Folder& sub : parent->subfolders)
      if (sub.id == id)
      {
        folder = &sub;
        return true;
      }
  return find_item_by_id(folders, components, id, item);
}
