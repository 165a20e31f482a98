#ifndef TESTS_HOST_EWS_EWS_FAKE_SERVICE_H
#define TESTS_HOST_EWS_EWS_FAKE_SERVICE_H

// An in-memory mailbox service with the behaviour of Exchange Online that the
// EWS client depends on, behind both the fake transport (client tests without a
// server) and the scripted SOAP server (the SOAP transport's conformance runs).
//
// One tenant, two mailboxes whose user principal names differ from their
// primary SMTP addresses, one with a proxy address. Each has a message folder
// root ("root") with Inbox (ten items, folder "Ten items" below it with ten
// more), Calendar and an empty folder. Faults are scripted: whole calls, single
// items, damaged item data.

#include "host/base/host_status.h"
#include "host/ews/ews_transport.h"

#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

struct Fake_Ews_Folder
{
  std::string id;
  std::string parent;
  std::string name;
  EWS_Folder_Type type = EWS_FOLDER_TYPE_FOLDER;
};

struct Fake_Ews_Item
{
  std::string id;
  std::string folder;
  std::string subject;
  ustring data;
};

struct Fake_Ews_Mailbox
{
  std::string upn;
  std::string smtp;
  std::vector<std::string> proxies;
  std::vector<Fake_Ews_Folder> folders;
  std::vector<Fake_Ews_Item> items;
};

class Ews_Fake_Service
{
public:
  static constexpr const char* root_id = "root";

  Ews_Fake_Service();

  // The mailbox a name in a form stands for, as Exchange Online resolves it:
  // a principal name matches a UPN only, an SMTP address the primary or any
  // proxy address. Null when none; an empty name is the first mailbox.
  Fake_Ews_Mailbox* find(const EWS_Mailbox& name);
  Fake_Ews_Mailbox& mailbox(size_t i) { return mailboxes_[i]; }
  // The id of the folder named `name` below `parent` (root_id for the top).
  std::string folder_id(size_t mailbox, const std::string& parent, const std::string& name) const;

  // The next calls fail with these statuses, in order (an ok one lets its call through).
  std::deque<Host_Status> call_faults;
  // The next exports of an item fail with these statuses, in order.
  std::map<std::string, std::deque<Host_Status>> item_faults;
  // Items whose exported data arrives damaged (not base64).
  std::set<std::string> damaged;

  // Next call fault, if any (taken off the queue).
  bool take_call_fault(Host_Status& status);
  // Per-item export result: ok with `data`, or the item's failure.
  Host_Status export_item(Fake_Ews_Mailbox& box, const std::string& id, ustring& data);

  Host_Status find_folders(Fake_Ews_Mailbox& box, const EWS_Folder_Ref& parent, bool deep, long offset, int max,
                           EWS_Folder_Page& page) const;
  Host_Status find_items(Fake_Ews_Mailbox& box, const std::string& folder, long offset, int max,
                         EWS_Item_Page& page) const;
  Host_Status create_folder(Fake_Ews_Mailbox& box, const EWS_Folder_Ref& parent, EWS_Folder_Creation_Request& r);
  EWS_Upload_Result upload_item(Fake_Ews_Mailbox& box, const std::string& folder, const ustring& data);

  // Content of a generated item of `size` bytes.
  static ustring make_data(const std::string& seed, size_t size);

  // Calls by operation name, and the item counts of each export call.
  std::map<std::string, int> calls;
  std::vector<size_t> export_batches;
  std::vector<EWS_Mailbox_Form> forms_seen;

private:
  std::string add_folder(Fake_Ews_Mailbox& box, const std::string& parent, const std::string& name,
                         EWS_Folder_Type type = EWS_FOLDER_TYPE_FOLDER);
  void add_items(Fake_Ews_Mailbox& box, const std::string& folder, int count);
  bool has_folder(const Fake_Ews_Mailbox& box, const std::string& id) const;

  std::vector<Fake_Ews_Mailbox> mailboxes_;
  int next_id_ = 1;
};

#endif
