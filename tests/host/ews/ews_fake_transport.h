#ifndef TESTS_HOST_EWS_EWS_FAKE_TRANSPORT_H
#define TESTS_HOST_EWS_EWS_FAKE_TRANSPORT_H

// A transport without a wire: each call goes straight to an Ews_Fake_Service,
// one "request" per call, with the service's scripted faults. Damaged item data
// fails that item alone, as a real transport reports it.

#include "ews_fake_service.h"

#include "host/ews/ews_transport.h"

#include <atomic>
#include <memory>

class Ews_Fake_Transport : public EWS_Transport
{
public:
  explicit Ews_Fake_Transport(std::shared_ptr<Ews_Fake_Service> service) : service_(std::move(service))
  {
    limits_.max_request_bytes = 1 << 20;
  }

  const char* name() const override { return "fake"; }
  EWS_Transport_Limits limits() const override { return limits_; }
  void set_mailbox(const EWS_Mailbox& mailbox) override { mailbox_ = mailbox; }
  void set_credentials(const EWS_Credentials&) override {}
  void set_cancel_check(const EWS_Cancel_Check&) override {}
  bool is_unknown_mailbox(const Host_Status& status) const override { return status.code == "ErrorNonExistentMailbox"; }
  bool is_folder_exists(const Host_Status& status) const override { return status.code == "ErrorFolderExists"; }

  Host_Status find_folders(const EWS_Folder_Ref& parent, bool deep, const EWS_Page_Cursor& at, int max,
                           EWS_Folder_Page& page) override;
  Host_Status find_items(const std::string& folder_id, const EWS_Page_Cursor& at, int max,
                         EWS_Item_Page& page) override;
  Host_Status export_items(const std::vector<EWS_Export_Request*>& requests) override;
  Host_Status create_folder(const EWS_Folder_Ref& parent, EWS_Folder_Creation_Request& request) override;
  Host_Status upload_items(const std::string& parent_id, const std::vector<const ustring*>& items,
                           std::vector<EWS_Upload_Result>& results) override;

  EWS_Transport_Limits limits_;
  // Calls made so far; read by other threads (cancellation tests).
  std::atomic<int> requests{0};

private:
  // Counts the call, then the scripted call fault or the mailbox lookup.
  Host_Status begin(const char* operation, Fake_Ews_Mailbox*& box);

  std::shared_ptr<Ews_Fake_Service> service_;
  EWS_Mailbox mailbox_;
};

#endif
