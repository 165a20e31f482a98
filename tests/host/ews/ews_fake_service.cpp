#include "ews_fake_service.h"

#include <algorithm>
#include <cctype>
#include <functional>

namespace
{
bool same_name(const std::string& a, const std::string& b)
{
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(),
                    [](char x, char y) {
                      return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
                    });
}

Host_Status item_not_found()
{
  return Host_Status::make(HOST_STATUS_PERMANENT, "ErrorItemNotFound",
                           "The specified object was not found in the store.");
}
}  // namespace

Ews_Fake_Service::Ews_Fake_Service()
{
  const char* const users[][3] = {{"ann.lee@corp.onmicrosoft.test", "ann@corp.test", "a.lee@corp.test"},
                                  {"bob.ray@corp.onmicrosoft.test", "bob@corp.test", nullptr}};
  for (const auto& u : users)
  {
    Fake_Ews_Mailbox box;
    box.upn = u[0];
    box.smtp = u[1];
    if (u[2])
      box.proxies.push_back(u[2]);
    const std::string inbox = add_folder(box, root_id, "Inbox");
    add_items(box, inbox, 10);
    add_items(box, add_folder(box, inbox, "Ten items"), 10);
    add_folder(box, root_id, "Calendar", EWS_FOLDER_TYPE_CALENDAR);
    add_folder(box, root_id, "Empty");
    mailboxes_.push_back(box);
  }
}

std::string Ews_Fake_Service::add_folder(Fake_Ews_Mailbox& box, const std::string& parent, const std::string& name,
                                         EWS_Folder_Type type)
{
  Fake_Ews_Folder f;
  f.id = "F" + std::to_string(next_id_++);
  f.parent = parent;
  f.name = name;
  f.type = type;
  box.folders.push_back(f);
  return f.id;
}

void Ews_Fake_Service::add_items(Fake_Ews_Mailbox& box, const std::string& folder, int count)
{
  for (int i = 0; i < count; ++i)
  {
    Fake_Ews_Item item;
    item.id = "I" + std::to_string(next_id_++);
    item.folder = folder;
    item.subject = "Message " + std::to_string(i);
    item.data = make_data(item.id, 200 + static_cast<size_t>(i) * 97);
    box.items.push_back(item);
  }
}

ustring Ews_Fake_Service::make_data(const std::string& seed, size_t size)
{
  ustring data(size, 0);
  unsigned h = static_cast<unsigned>(std::hash<std::string>()(seed));
  for (size_t i = 0; i < size; ++i)
  {
    h = h * 1103515245u + 12345u;
    data[i] = static_cast<unsigned char>(h >> 16);
  }
  return data;
}

Fake_Ews_Mailbox* Ews_Fake_Service::find(const EWS_Mailbox& name)
{
  forms_seen.push_back(name.form);
  if (name.name.empty())
    return &mailboxes_[0];
  for (Fake_Ews_Mailbox& box : mailboxes_)
  {
    if (name.form == EWS_MAILBOX_PRINCIPAL_NAME && same_name(box.upn, name.name))
      return &box;
    if (name.form != EWS_MAILBOX_SMTP_ADDRESS)
      continue;
    if (same_name(box.smtp, name.name))
      return &box;
    for (const std::string& p : box.proxies)
      if (same_name(p, name.name))
        return &box;
  }
  return nullptr;
}

std::string Ews_Fake_Service::folder_id(size_t mailbox, const std::string& parent, const std::string& name) const
{
  for (const Fake_Ews_Folder& f : mailboxes_[mailbox].folders)
    if (f.parent == parent && f.name == name)
      return f.id;
  return "";
}

bool Ews_Fake_Service::has_folder(const Fake_Ews_Mailbox& box, const std::string& id) const
{
  return id == root_id ||
         std::any_of(box.folders.begin(), box.folders.end(), [&](const Fake_Ews_Folder& f) { return f.id == id; });
}

bool Ews_Fake_Service::take_call_fault(Host_Status& status)
{
  if (call_faults.empty())
    return false;
  status = call_faults.front();
  call_faults.pop_front();
  return true;
}

Host_Status Ews_Fake_Service::export_item(Fake_Ews_Mailbox& box, const std::string& id, ustring& data)
{
  auto fault = item_faults.find(id);
  if (fault != item_faults.end() && !fault->second.empty())
  {
    const Host_Status s = fault->second.front();
    fault->second.pop_front();
    return s;
  }
  for (const Fake_Ews_Item& item : box.items)
    if (item.id == id)
    {
      data = item.data;
      return Host_Status();
    }
  return item_not_found();
}

Host_Status Ews_Fake_Service::find_folders(Fake_Ews_Mailbox& box, const EWS_Folder_Ref& parent, bool deep, long offset,
                                           int max, EWS_Folder_Page& page) const
{
  const std::string start = parent.id.empty() ? root_id : parent.id;
  if (!has_folder(box, start))
    return Host_Status::make(HOST_STATUS_PERMANENT, "ErrorFolderNotFound",
                             "The specified folder could not be found in the store.");
  // Depth first, children in creation order.
  std::vector<const Fake_Ews_Folder*> listed;
  std::function<void(const std::string&)> walk = [&](const std::string& id)
  {
    for (const Fake_Ews_Folder& f : box.folders)
      if (f.parent == id)
      {
        listed.push_back(&f);
        if (deep)
          walk(f.id);
      }
  };
  walk(start);
  const size_t from = std::min(listed.size(), static_cast<size_t>(offset));
  const size_t to = std::min(listed.size(), from + static_cast<size_t>(max));
  for (size_t i = from; i < to; ++i)
  {
    EWS_Folder folder;
    folder.id = listed[i]->id;
    folder.change_key = "CK" + listed[i]->id;
    folder.display_name = listed[i]->name;
    folder.type = listed[i]->type;
    for (const Fake_Ews_Item& item : box.items)
      folder.items_count += item.folder == folder.id ? 1 : 0;
    for (const Fake_Ews_Folder& f : box.folders)
      folder.subfolders_count += f.parent == folder.id ? 1 : 0;
    page.folders.push_back(folder);
    page.parent_ids.push_back(listed[i]->parent);
  }
  page.next = EWS_Page_Cursor::at(static_cast<long>(to));
  page.last = to == listed.size();
  return Host_Status();
}

Host_Status Ews_Fake_Service::find_items(Fake_Ews_Mailbox& box, const std::string& folder, long offset, int max,
                                         EWS_Item_Page& page) const
{
  if (!has_folder(box, folder))
    return Host_Status::make(HOST_STATUS_PERMANENT, "ErrorFolderNotFound",
                             "The specified folder could not be found in the store.");
  std::vector<const Fake_Ews_Item*> listed;
  for (const Fake_Ews_Item& item : box.items)
    if (item.folder == folder)
      listed.push_back(&item);
  const size_t from = std::min(listed.size(), static_cast<size_t>(offset));
  const size_t to = std::min(listed.size(), from + static_cast<size_t>(max));
  for (size_t i = from; i < to; ++i)
  {
    EWS_Item item;
    item.id = listed[i]->id;
    item.change_key = "CK" + listed[i]->id;
    item.subject = listed[i]->subject;
    item.type = EWS_ITEM_TYPE_MESSAGE;
    item.ctime = item.mtime = 1700000000 + static_cast<time_t>(i);
    item.size = static_cast<long long>(listed[i]->data.size());
    page.items.push_back(item);
  }
  page.next = EWS_Page_Cursor::at(static_cast<long>(to));
  page.last = to == listed.size();
  return Host_Status();
}

Host_Status Ews_Fake_Service::create_folder(Fake_Ews_Mailbox& box, const EWS_Folder_Ref& parent,
                                            EWS_Folder_Creation_Request& r)
{
  const std::string under = parent.id.empty() ? root_id : parent.id;
  if (!has_folder(box, under))
    return Host_Status::make(HOST_STATUS_PERMANENT, "ErrorFolderNotFound",
                             "The specified folder could not be found in the store.");
  for (const Fake_Ews_Folder& f : box.folders)
    if (f.parent == under && same_name(f.name, r.display_name))
      return Host_Status::make(HOST_STATUS_PERMANENT, "ErrorFolderExists",
                               "A folder with the specified name already exists.");
  r.id = add_folder(box, under, r.display_name, r.type);
  r.change_key = "CK" + r.id;
  return Host_Status();
}

EWS_Upload_Result Ews_Fake_Service::upload_item(Fake_Ews_Mailbox& box, const std::string& folder, const ustring& data)
{
  EWS_Upload_Result result;
  if (!has_folder(box, folder) || folder == root_id)
  {
    result.status = Host_Status::make(HOST_STATUS_PERMANENT, "ErrorFolderNotFound",
                                      "The specified folder could not be found in the store.");
    return result;
  }
  Fake_Ews_Item item;
  item.id = "I" + std::to_string(next_id_++);
  item.folder = folder;
  item.subject = "Uploaded";
  item.data = data;
  box.items.push_back(item);
  result.id = item.id;
  return result;
}
