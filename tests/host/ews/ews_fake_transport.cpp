#include "ews_fake_transport.h"

Host_Status Ews_Fake_Transport::begin(const char* operation, Fake_Ews_Mailbox*& box)
{
  ++requests;
  ++service_->calls[operation];
  Host_Status fault;
  if (service_->take_call_fault(fault) && !fault.ok())
    return fault;
  box = service_->find(mailbox_);
  if (box == nullptr)
    return Host_Status::make(HOST_STATUS_PERMANENT, "ErrorNonExistentMailbox",
                             "The SMTP address has no mailbox associated with it.");
  return Host_Status();
}

Host_Status Ews_Fake_Transport::find_folders(const EWS_Folder_Ref& parent, bool deep, const EWS_Page_Cursor& at,
                                             int max, EWS_Folder_Page& page)
{
  Fake_Ews_Mailbox* box = nullptr;
  const Host_Status s = begin("FindFolder", box);
  return s.ok() ? service_->find_folders(*box, parent, deep, at.offset, max, page) : s;
}

Host_Status Ews_Fake_Transport::find_items(const std::string& folder_id, const EWS_Page_Cursor& at, int max,
                                           EWS_Item_Page& page)
{
  Fake_Ews_Mailbox* box = nullptr;
  const Host_Status s = begin("FindItem", box);
  return s.ok() ? service_->find_items(*box, folder_id, at.offset, max, page) : s;
}

Host_Status Ews_Fake_Transport::export_items(const std::vector<EWS_Export_Request*>& requests)
{
  Fake_Ews_Mailbox* box = nullptr;
  const Host_Status s = begin("ExportItems", box);
  if (!s.ok())
    return s;
  service_->export_batches.push_back(requests.size());
  for (EWS_Export_Request* r : requests)
  {
    ustring data;
    r->status = service_->export_item(*box, r->id, data);
    r->data = EWS_b64_Data();
    if (!r->status.ok())
      continue;
    if (service_->damaged.count(r->id))
      r->status = Host_Status::make(HOST_STATUS_PERMANENT, "invalid export data", "the item's data is not base64");
    else
      r->data = EWS_b64_Data::copy_of(data.data(), data.size());
  }
  return s;
}

Host_Status Ews_Fake_Transport::create_folder(const EWS_Folder_Ref& parent, EWS_Folder_Creation_Request& request)
{
  Fake_Ews_Mailbox* box = nullptr;
  const Host_Status s = begin("CreateFolder", box);
  return s.ok() ? service_->create_folder(*box, parent, request) : s;
}

Host_Status Ews_Fake_Transport::upload_items(const std::string& parent_id, const std::vector<const ustring*>& items,
                                             std::vector<EWS_Upload_Result>& results)
{
  Fake_Ews_Mailbox* box = nullptr;
  const Host_Status s = begin("UploadItems", box);
  if (!s.ok())
    return s;
  results.clear();
  for (const ustring* data : items)
    results.push_back(service_->upload_item(*box, parent_id, *data));
  return s;
}
