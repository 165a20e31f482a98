#ifndef HOST_EWS_EWS_CLIENT_H
#define HOST_EWS_EWS_CLIENT_H

#include "host/ews/ews_export_request.h"
#include "host/ews/ews_folder.h"
#include "host/ews/ews_folder_creation_request.h"
#include "host/ews/ews_transport.h"
#include "host/base/secure_allocator.h"
#include "host/office365/office365_auth.h"

#include <boost/shared_ptr.hpp>

#include <memory>
#include <string>
#include <vector>

class ACE_Log_Msg_Callback;
class EWS_Retry_Policy;

// A client of one mailbox service account, acting for one mailbox at a time.
//
// Every operation goes through a transport (EWS_Transport; SOAP by default) and
// shares the logic here: paging until the server says the listing is complete,
// token renewal when a token is refused, and the handling of throttling and
// transient faults. A throttled request (ErrorServerBusy, HTTP 503/429) waits
// what the server asked for; a dropped connection or passing server fault backs
// off exponentially; both within EWS_Params::retry_budget() seconds per
// operation, each retry logged at warning level with the operation and mailbox.
// A permanent error (unknown mailbox, access denied, refused token) fails at
// once. Operations return false on failure, log why, and keep the service's
// message in last_error(). Secrets and tokens are never logged.
//
// One thread at a time per client; make one client per thread.
class EWS_Client
{
public:
  EWS_Client();
  virtual ~EWS_Client();
  EWS_Client(const EWS_Client&) = delete;
  EWS_Client& operator=(const EWS_Client&) = delete;

  // Connects to `endpoint` (the EWS URL). With `auth`, requests carry its bearer
  // token; without, `user` and `password` are sent as basic credentials
  // (on-premises servers). A non-empty `mailbox` is impersonated. No request is
  // made; false (logged) for a bad endpoint or missing credentials.
  bool init(const std::string& endpoint, const std::string& user, const Secure_String& password,
            const std::shared_ptr<Office365_Auth>& auth, const char* mailbox);
  // Replaces the wire side (after init).
  void set_transport(std::unique_ptr<EWS_Transport> transport);
  // While set, log lines written during an operation go to this callback too
  // (the job's log).
  void set_log_callback(const std::shared_ptr<ACE_Log_Msg_Callback>& callback);

  // Acts for `mailbox` in all following calls (ExchangeImpersonation and
  // X-AnchorMailbox); empty returns to the account's own mailbox.
  bool impersonate(const std::string& mailbox);

  // The subfolders of a folder, by id (empty: the mailbox's message folder root)
  // or by distinguished folder code (10: msgfolderroot). With `shallow` the direct
  // children; otherwise the whole subtree, nested through `subfolders`.
  // Appends to `out`.
  bool list_folders(const std::string& folder_id, EWS_Folders& out, bool shallow);
  bool list_folders(int distinguished, EWS_Folders& out, bool shallow);

  // Up to `limit` items of a folder from position `offset`, in the server's
  // order, each handed to `appender`. Fewer items mean the folder has no more;
  // a short page from a server that says it is not done is followed up.
  bool list_items(const std::string& folder_id, const EWS_Item_Appender& appender, int offset, int limit);

  // Fills the `data` of each request with the item's exported content. An item
  // the server refuses keeps a null `data.ptr` (its code in `error`) and is
  // logged at warning level; the call still succeeds. False when the requests
  // as a whole could not be exported.
  bool export_items(EWS_Export_Requests& requests);

  // Creates folder `request.display_name` below `parent_id`, or below the
  // distinguished folder `fallback` when `parent_id` is empty; on success
  // `request.id` and `request.change_key` hold the new folder's.
  bool create_folder(const std::string& parent_id, EWS_Folder_Creation_Request& request,
                     ewstype__DistinguishedFolderIdNameType fallback);

  // Uploads each element (exported item data) as a new item of folder
  // `parent_id`; true when all were accepted.
  bool upload_items(const std::string& parent_id, const std::vector<ustring>& items);
  // The ids of the items created by the last upload_items call (empty entries
  // for refused ones).
  const std::vector<std::string>& uploaded_ids() const { return uploaded_ids_; }

  const std::string& mailbox() const { return mailbox_; }
  const std::string& last_error() const { return last_error_; }
  // Requests sent again after throttling or faults, over the client's life.
  unsigned retries() const { return retries_; }

private:
  template <typename Attempt>
  bool run(const char* operation, Attempt attempt);
  bool refresh_credentials();
  bool wait_or_fail(const char* operation, EWS_Retry_Policy& policy, const Host_Status& status);
  bool fail(const char* operation, const std::string& why);
  bool list_folders_i(const EWS_Folder_Ref& parent, EWS_Folders& out, bool shallow);
  bool export_chunk(EWS_Export_Requests& requests, size_t begin, size_t end);

  std::unique_ptr<EWS_Transport> transport_;
  std::shared_ptr<Office365_Auth> auth_;
  std::shared_ptr<ACE_Log_Msg_Callback> log_callback_;
  std::string user_;
  Secure_String password_;
  std::string endpoint_;
  std::string mailbox_;
  std::string last_error_;
  std::vector<std::string> uploaded_ids_;
  unsigned retries_ = 0;
};

typedef boost::shared_ptr<EWS_Client> EWS_Client_Ptr;

#endif
