#ifndef HOST_EWS_EWS_TRANSPORT_H
#define HOST_EWS_EWS_TRANSPORT_H

#include "host/base/host_status.h"
#include "host/ews/ews_export_request.h"
#include "host/ews/ews_folder.h"
#include "host/ews/ews_folder_creation_request.h"
#include "host/ews/ews_page_cursor.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// A folder given by id, or by distinguished folder code when `id` is empty.
struct EWS_Folder_Ref
{
  std::string id;
  int distinguished = ewstype__DistinguishedFolderIdNameType__msgfolderroot;
};

// One page of a folder listing. For deep listings `parent_ids[i]` is the id of
// the parent of `folders[i]`. `next` is where the listing goes on unless `last`.
struct EWS_Folder_Page
{
  EWS_Folders folders;
  std::vector<std::string> parent_ids;
  EWS_Page_Cursor next;
  bool last = true;
};

// One page of an item listing.
struct EWS_Item_Page
{
  EWS_Items items;
  EWS_Page_Cursor next;
  bool last = true;
};

// Credentials for the next requests: a bearer token, or a user name and password
// (basic authentication, for on-premises servers).
struct EWS_Credentials
{
  std::string bearer_token;
  std::string user;
  std::string password;
};

// How a mailbox name is given to the service. A user principal name and an SMTP
// address look alike; the client says which it means (see
// docs/decisions/0008-mailbox-names-and-impersonation.md).
enum EWS_Mailbox_Form
{
  EWS_MAILBOX_PRINCIPAL_NAME = 1,  // the user's UPN
  EWS_MAILBOX_SMTP_ADDRESS = 2,    // the primary or any proxy SMTP address
};

// The mailbox requests act for; an empty name is the caller's own mailbox.
struct EWS_Mailbox
{
  std::string name;
  EWS_Mailbox_Form form = EWS_MAILBOX_PRINCIPAL_NAME;
};

// The most one request may carry, as the service behind a transport accepts it.
// A single item larger than `max_request_bytes` still goes, alone.
struct EWS_Transport_Limits
{
  int max_page_size = 1000;         // items or folders per listing page
  int max_export_items = 100;       // item ids per export request
  int max_upload_items = 100;       // items per upload request
  long long max_request_bytes = 0;  // item bytes per export or upload request
  // Requests the service takes at once for one mailbox (0: no limit of its
  // own); the client keeps its concurrent exports within it.
  int max_concurrent_requests = 0;
  // Requests the service takes per mailbox within `request_window_seconds`
  // (0: no budget of its own); the client waits rather than exceed it.
  int max_requests_per_window = 0;
  int request_window_seconds = 0;
};

// The result of uploading one item: its new id, or why it was refused.
struct EWS_Upload_Result
{
  std::string id;
  Host_Status status;
};

// The failure of an answer that does not have the shape the protocol gives it
// (cut or garbled on the way): transient, so it is retried like a dropped
// connection.
inline Host_Status malformed_answer(const std::string& what)
{
  return Host_Status::make(HOST_STATUS_TRANSIENT, "malformed answer", what);
}

// Returns true when the transfer under way should stop (the client was cancelled).
typedef std::function<bool()> EWS_Cancel_Check;

// The wire side of EWS_Client: each call makes exactly one request and reports
// how it ended as a Host_Status. Retrying, throttling, paging, batching and token
// renewal are the client's job, so that every transport (SOAP today, Microsoft
// Graph later) shares them. Batch calls report one status per item; the call's
// own status is not ok only when the request as a whole failed. One thread at a
// time; made by EWS_Transport_Factory. Requests run side by side over siblings
// (make_sibling), each used by one thread.
class EWS_Transport
{
public:
  virtual ~EWS_Transport() = default;

  // The name the factory knows this transport by ("ews").
  virtual const char* name() const = 0;
  virtual EWS_Transport_Limits limits() const = 0;

  // A new transport to the same service with the same mailbox and credentials,
  // over a connection of its own, so that its requests can run beside this
  // one's on another thread. Null when the transport cannot make one; its client
  // then sends one request at a time.
  virtual std::unique_ptr<EWS_Transport> make_sibling() const { return nullptr; }

  virtual void set_mailbox(const EWS_Mailbox& mailbox) = 0;
  virtual void set_credentials(const EWS_Credentials& credentials) = 0;
  // Polled while an answer arrives; a transfer stops early when it returns true.
  virtual void set_cancel_check(const EWS_Cancel_Check& check) = 0;
  // True when `status` says the service knows no mailbox by the name given in
  // the form last set (another form of the same name may still find it).
  virtual bool is_unknown_mailbox(const Host_Status& status) const = 0;
  // True when `status` says a folder of the requested name already exists below
  // the parent given to create_folder.
  virtual bool is_folder_exists(const Host_Status& status) const
  {
    (void)status;
    return false;
  }
  // True when the last call failed after its request had gone out whole and
  // before a whole answer came back: the service may have applied it (created
  // the folder, added the items) although the call reports a failure. Such a
  // call is not repeated blindly by the client.
  virtual bool outcome_unknown() const { return false; }

  virtual Host_Status find_folders(const EWS_Folder_Ref& parent, bool deep, const EWS_Page_Cursor& at, int max,
                                   EWS_Folder_Page& page) = 0;
  virtual Host_Status find_items(const std::string& folder_id, const EWS_Page_Cursor& at, int max,
                                 EWS_Item_Page& page) = 0;
  // Exports the items in one request. Each request the answer covers gets its
  // `status` and, when ok, its `data`; data that cannot be decoded fails that
  // item alone (permanent). Requests the answer did not reach (a cut answer)
  // are left as they were, and the call's status says why.
  virtual Host_Status export_items(const std::vector<EWS_Export_Request*>& requests) = 0;
  virtual Host_Status create_folder(const EWS_Folder_Ref& parent, EWS_Folder_Creation_Request& request) = 0;
  // Uploads each item as a new item of folder `parent_id`; `results` gets one
  // entry per item when the call's status is ok.
  virtual Host_Status upload_items(const std::string& parent_id, const std::vector<const ustring*>& items,
                                   std::vector<EWS_Upload_Result>& results) = 0;
};

#endif
