#ifndef TESTS_BACKUP_EXCHANGE_CORE_EWS_FAKE_MAILBOXES_H
#define TESTS_BACKUP_EXCHANGE_CORE_EWS_FAKE_MAILBOXES_H

// Simulated mailboxes behind a test EWS transport, so that the backup engine runs
// its real EWS_Client (paging, retries, per-item failures) without a server.
// One Fake_Mailboxes is shared by every client a test makes (one per thread);
// its contents are fixed before the run, its counters are atomic.

#include "backup/exchange/core/ews/ews_backup_context.h"
#include "host/ews/ews_client.h"
#include "host/ews/ews_transport.h"

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

struct Fake_Item
{
  std::string id;
  std::string subject;
  time_t mtime = 0;
  time_t ctime = 0;
};

struct Fake_Folder
{
  std::string id;
  std::string name;
  std::vector<Fake_Folder> subfolders;
  std::vector<Fake_Item> items;
};

class Fake_Mailboxes
{
public:
  std::map<std::string, std::vector<Fake_Folder>> mailboxes;
  std::set<std::string> refused_items;       // exported without data ("ErrorItemNotFound")
  std::set<std::string> unlistable_folders;  // FindItem fails for good
  bool fail_exports = false;                 // every ExportItems call fails for good
  bool busy_exports = false;                 // every ExportItems call is throttled, "wait a minute"
  size_t item_size = 100;                    // bytes of each exported item
  std::map<std::string, size_t> sizes;       // items of another size than item_size
  // Called with the bytes of each ExportItems call as it starts (on the export
  // thread or one of its client's worker threads, possibly at once).
  std::function<void(size_t)> on_export;
  // Called with the folder of each FindItem call as it starts, on the thread
  // that makes it (several listing threads may call it at once).
  std::function<void(const std::string&)> on_find_items;
  bool siblings = true;          // transports make siblings: ExportItems batches run side by side
  bool count_subfolders = true;  // FindFolder answers give ChildFolderCount, as Exchange's do

  // Restores: folders made and items uploaded, in call order.
  struct Created_Folder
  {
    std::string mailbox, parent_id, name, id;
  };
  struct Uploaded_Item
  {
    std::string mailbox, parent_id, data;
  };
  std::set<std::string> refused_folder_names;  // CreateFolder fails for good
  std::mutex restore_lock;                     // guards the two lists below
  std::vector<Created_Folder> created;
  std::vector<Uploaded_Item> uploaded;

  std::atomic<int> export_calls{0};
  std::atomic<int> items_exported{0};  // ids asked for by ExportItems calls
  std::atomic<int> find_items_calls{0};
  std::atomic<int> find_folders_calls{0};
  std::mutex listed_lock;                   // guards listed_folders
  std::vector<std::string> listed_folders;  // folder of each FindItem call, in call order
  std::atomic<int> clients_made{0};

  size_t size_of(const std::string& id) const
  {
    const auto it = sizes.find(id);
    return it == sizes.end() ? item_size : it->second;
  }

  // The exported contents of an item: its id repeated up to its size.
  std::string content(const std::string& id) const
  {
    const size_t size = size_of(id);
    std::string out;
    while (out.size() < size)
      out += id + ";";
    out.resize(size);
    return out;
  }

  const Fake_Folder* find(const std::vector<Fake_Folder>& folders, const std::string& id) const
  {
    for (const Fake_Folder& f : folders)
    {
      if (f.id == id)
        return &f;
      if (const Fake_Folder* sub = find(f.subfolders, id))
        return sub;
    }
    return nullptr;
  }

  // A folder with `count` items named "<prefix> <n>" in reverse name order, so
  // that the engine's sorting shows.
  static Fake_Folder folder(const std::string& id, const std::string& name, int count)
  {
    Fake_Folder f;
    f.id = id;
    f.name = name;
    for (int i = count - 1; i >= 0; --i)
    {
      Fake_Item item;
      item.id = id + "-item-" + std::to_string(i);
      char subject[64];
      snprintf(subject, sizeof subject, "%s %04d", name.c_str(), i);
      item.subject = subject;
      item.mtime = 1700000000 + i;
      item.ctime = 1600000000 + i;
      f.items.push_back(item);
    }
    return f;
  }

  // A maker of real EWS clients over this simulated service.
  EWS_Client_Maker maker();
};

class Fake_EWS_Transport : public EWS_Transport
{
public:
  explicit Fake_EWS_Transport(Fake_Mailboxes& boxes) : boxes_(boxes) {}

  const char* name() const override { return "fake"; }
  // Siblings share the simulated service, so clients export batches side by side.
  std::unique_ptr<EWS_Transport> make_sibling() const override
  {
    if (!boxes_.siblings)
      return nullptr;
    std::unique_ptr<Fake_EWS_Transport> sibling(new Fake_EWS_Transport(boxes_));
    sibling->mailbox_ = mailbox_;
    return std::unique_ptr<EWS_Transport>(sibling.release());
  }
  EWS_Transport_Limits limits() const override { return EWS_Transport_Limits(); }
  void set_mailbox(const EWS_Mailbox& mailbox) override { mailbox_ = mailbox.name; }
  void set_credentials(const EWS_Credentials&) override {}
  void set_cancel_check(const EWS_Cancel_Check&) override {}
  bool is_unknown_mailbox(const Host_Status& status) const override { return status.code == "ErrorNonExistentMailbox"; }

  Host_Status find_folders(const EWS_Folder_Ref& parent, bool, const EWS_Page_Cursor& at, int max,
                           EWS_Folder_Page& page) override
  {
    const int offset = static_cast<int>(at.offset);
    ++boxes_.find_folders_calls;
    auto box = boxes_.mailboxes.find(mailbox_);
    if (box == boxes_.mailboxes.end())
      return Host_Status::make(HOST_STATUS_PERMANENT, "ErrorNonExistentMailbox", "no mailbox " + mailbox_);
    const std::vector<Fake_Folder>* list = &box->second;
    if (!parent.id.empty())
    {
      const Fake_Folder* f = boxes_.find(box->second, parent.id);
      if (f == nullptr)
        return Host_Status::make(HOST_STATUS_PERMANENT, "ErrorItemNotFound", "no folder " + parent.id);
      list = &f->subfolders;
    }
    page = EWS_Folder_Page();
    for (int i = offset; i < static_cast<int>(list->size()) && i < offset + max; ++i)
    {
      EWS_Folder folder;
      folder.id = (*list)[i].id;
      folder.display_name = (*list)[i].name;
      folder.items_count = static_cast<int>((*list)[i].items.size());
      folder.subfolders_count = static_cast<int>((*list)[i].subfolders.size());
      folder.subfolders_counted = boxes_.count_subfolders;
      page.folders.push_back(folder);
      page.parent_ids.push_back(parent.id);
    }
    const int next = offset + static_cast<int>(page.folders.size());
    page.next = EWS_Page_Cursor::at(next);
    page.last = next >= static_cast<int>(list->size());
    return Host_Status();
  }

  Host_Status find_items(const std::string& folder_id, const EWS_Page_Cursor& at, int max, EWS_Item_Page& page) override
  {
    const int offset = static_cast<int>(at.offset);
    ++boxes_.find_items_calls;
    {
      std::lock_guard<std::mutex> guard(boxes_.listed_lock);
      boxes_.listed_folders.push_back(folder_id);
    }
    if (boxes_.on_find_items)
      boxes_.on_find_items(folder_id);
    auto box = boxes_.mailboxes.find(mailbox_);
    const Fake_Folder* f = box == boxes_.mailboxes.end() ? nullptr : boxes_.find(box->second, folder_id);
    if (f == nullptr || boxes_.unlistable_folders.count(folder_id))
      return Host_Status::make(HOST_STATUS_PERMANENT, "ErrorAccessDenied", "cannot list " + folder_id);
    page = EWS_Item_Page();
    for (int i = offset; i < static_cast<int>(f->items.size()) && i < offset + max; ++i)
    {
      EWS_Item item;
      item.id = f->items[i].id;
      item.subject = f->items[i].subject;
      item.mtime = f->items[i].mtime;
      item.ctime = f->items[i].ctime;
      item.size = static_cast<long long>(boxes_.size_of(item.id));
      page.items.push_back(item);
    }
    const int next = offset + static_cast<int>(page.items.size());
    page.next = EWS_Page_Cursor::at(next);
    page.last = next >= static_cast<int>(f->items.size());
    return Host_Status();
  }

  Host_Status export_items(const std::vector<EWS_Export_Request*>& requests) override
  {
    ++boxes_.export_calls;
    boxes_.items_exported += static_cast<int>(requests.size());
    if (boxes_.on_export)
    {
      size_t bytes = 0;
      for (const EWS_Export_Request* r : requests)
        bytes += boxes_.size_of(r->id);
      boxes_.on_export(bytes);
    }
    if (boxes_.fail_exports)
      return Host_Status::make(HOST_STATUS_PERMANENT, "ErrorAccessDenied", "export refused");
    if (boxes_.busy_exports)
      return Host_Status::make(HOST_STATUS_THROTTLED, "ErrorServerBusy", "server busy", 60000);
    for (EWS_Export_Request* r : requests)
    {
      if (boxes_.refused_items.count(r->id))
      {
        r->status = Host_Status::make(HOST_STATUS_PERMANENT, "ErrorItemNotFound", "no item " + r->id);
        continue;
      }
      const std::string bytes = boxes_.content(r->id);
      r->data = EWS_b64_Data::copy_of(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
      r->status = Host_Status();
    }
    return Host_Status();
  }

  // Every call makes a new folder (a duplicate name gives a second folder),
  // with id "new-<n>".
  Host_Status create_folder(const EWS_Folder_Ref& parent, EWS_Folder_Creation_Request& request) override
  {
    if (boxes_.refused_folder_names.count(request.display_name))
      return Host_Status::make(HOST_STATUS_PERMANENT, "ErrorAccessDenied", "cannot create " + request.display_name);
    std::lock_guard<std::mutex> guard(boxes_.restore_lock);
    request.id = "new-" + std::to_string(boxes_.created.size());
    boxes_.created.push_back({mailbox_, parent.id, request.display_name, request.id});
    return Host_Status();
  }
  Host_Status upload_items(const std::string& parent_id, const std::vector<const ustring*>& items,
                           std::vector<EWS_Upload_Result>& results) override
  {
    std::lock_guard<std::mutex> guard(boxes_.restore_lock);
    results.clear();
    for (const ustring* item : items)
    {
      EWS_Upload_Result result;
      result.id = "up-" + std::to_string(boxes_.uploaded.size());
      results.push_back(result);
      boxes_.uploaded.push_back({mailbox_, parent_id, std::string(item->begin(), item->end())});
    }
    return Host_Status();
  }

private:
  Fake_Mailboxes& boxes_;
  std::string mailbox_;
};

inline EWS_Client_Maker Fake_Mailboxes::maker()
{
  return [this](EWS_Client_Ptr& out)
  {
    EWS_Client_Ptr client(new EWS_Client());
    // Basic credentials: no token requests; the transport never goes to the wire.
    if (!client->init("http://127.0.0.1:9/EWS/Exchange.asmx", "svc", Secure_String("pw"), nullptr, ""))
      return false;
    client->set_transport(std::unique_ptr<EWS_Transport>(new Fake_EWS_Transport(*this)));
    ++clients_made;
    out = client;
    return true;
  };
}

#endif
