#ifndef HOST_EWS_EWS_CLIENT_H
#define HOST_EWS_EWS_CLIENT_H

#include "host/base/secure_allocator.h"
#include "host/ews/ews_export_request.h"
#include "host/ews/ews_folder.h"
#include "host/ews/ews_folder_creation_request.h"
#include "host/ews/ews_transport.h"
#include "host/office365/office365_auth.h"

#include <boost/shared_ptr.hpp>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

class ACE_Log_Msg_Callback;
class Retry_Policy;

// Settles an upload whose outcome is open: an UploadItems request of `count`
// items into folder `parent_id` went out whole and its answer was lost, so the
// items may or may not have been created. Called by EWS_Client::upload_items on
// its own thread, between the failed request and any further one. Returns true
// with `landed` empty when none of them is in the folder (they are sent again),
// or holding exactly `count` ids when all of them are (they count as uploaded,
// with those ids, in the listing's order); false when that cannot be told (they
// fail and are not sent again).
typedef std::function<bool(const std::string& parent_id, size_t count, std::vector<std::string>& landed)>
  EWS_Upload_Reconciler;

// A client of one mailbox service account, acting for one mailbox at a time.
//
// Every operation goes through a transport (EWS_Transport, made by
// EWS_Transport_Factory under the name the tenant registration gives; "ews",
// SOAP, by default) and shares the logic here: paging until the service says the
// listing is complete, batches sized by count and bytes, token renewal when a
// token is refused, and the handling of throttling and transient faults. A
// throttled request (ErrorServerBusy, HTTP 503/429) waits what the server asked
// for; a dropped connection or passing server fault backs off exponentially;
// both within EWS_Params::retry_budget() seconds per operation, each retry
// logged at warning level with the operation and mailbox. A permanent error
// fails at once. One bad item never fails its batch: it becomes a failed item
// (its own status), and only items refused for passing reasons are sent again.
// CreateFolder and UploadItems, which are not idempotent, are not repeated
// blindly after a failure that may have been applied (the connection broke
// after the request went out): see create_folder and upload_items.
//
// Mailboxes are impersonated by user principal name; a name the service does
// not know as a UPN is tried once as an SMTP address, and the form that worked
// is remembered per mailbox for the client's life.
//
// Operations return false on failure, log why, and keep the status in
// last_status() (its text in last_error()). Secrets and tokens are never logged.
//
// One thread at a time per client, except cancel(), which any thread may call:
// waits and transfers under way stop within about a second and the operation
// returns false with a cancelled status; so do all later ones until resume().
//
// export_items runs up to EWS_Params::export_concurrency() batches at once, each
// over a connection of its own: sibling clients on siblings of the transport,
// made on first need and kept for the client's life so that their connections
// are reused. They share the token source (thread-safe), the log callback and
// the cancellation of this client; their retries and the mailbox forms they
// learn are added to this client's when the call returns. A transport that
// cannot make siblings exports one batch at a time.
class EWS_Client
{
public:
  // The name of the Microsoft Graph transport ("graph"). With it, init() ignores
  // the endpoint and token scope it is given: requests go to the registration's
  // ms_graph_endpoint with a token of graph_token_scope().
  static const char* const graph_transport_name;
  // "{ms_graph_endpoint}/.default".
  static std::string graph_token_scope(const Office365_Auth_Entry& entry);

  EWS_Client();
  virtual ~EWS_Client();
  EWS_Client(const EWS_Client&) = delete;
  EWS_Client& operator=(const EWS_Client&) = delete;

  // Connects to `endpoint` (the service URL). With `auth`, requests carry its
  // bearer token and go through the transport its registration names (for
  // "graph", see graph_transport_name); without,
  // `user` and `password` are sent as basic credentials over SOAP (on-premises
  // servers). A non-empty `mailbox` is impersonated. No request is made; false
  // (logged) for a bad endpoint, an unknown transport or missing credentials.
  bool init(const std::string& endpoint, const std::string& user, const Secure_String& password,
            const std::shared_ptr<Office365_Auth>& auth, const char* mailbox);
  // Replaces the wire side (tests; after init or instead of it).
  void set_transport(std::unique_ptr<EWS_Transport> transport);
  // While set, log lines written during an operation go to this callback too
  // (the job's log).
  void set_log_callback(const std::shared_ptr<ACE_Log_Msg_Callback>& callback);

  // Stops waits and transfers under way, and every operation until resume().
  // Thread-safe.
  void cancel();
  void resume();
  // Also polled (about every 200 ms) while the client waits: true cancels, as
  // cancel() does, for the operation under way.
  void set_cancel_predicate(const std::function<bool()>& predicate);
  bool cancelled() const;

  // Acts for `mailbox` in all following calls (ExchangeImpersonation and
  // X-AnchorMailbox); empty returns to the account's own mailbox.
  bool impersonate(const std::string& mailbox);
  // How the current mailbox is named to the service.
  EWS_Mailbox_Form mailbox_form() const { return mailbox_.form; }

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

  // Fills the `data` of each request with the item's exported content, in
  // batches sized by count and by the requests' `size`, up to
  // EWS_Params::export_concurrency() of them in flight at once; each request
  // keeps its place, whatever order the batches end in. Requests naming another
  // `mailbox` than the current one are exported acting for it (a batch never
  // mixes mailboxes); the client acts for its current mailbox again afterwards.
  // An item that cannot be
  // exported keeps a null `data.ptr`, says why in its `status` and is logged at
  // warning level; the others are not held back by it. True when every batch
  // was answered (items may still have failed one by one); false when a batch
  // failed as a whole or the client was cancelled, after trying every batch
  // (the items of a failed batch carry its status).
  bool export_items(EWS_Export_Requests& requests);

  // Creates folder `request.display_name` below `parent_id`, or below the
  // distinguished folder `fallback` when `parent_id` is empty; on success
  // `request.id` and `request.change_key` hold the new folder's.
  //
  // A folder of that name that already exists fails the call, unless an
  // earlier attempt of this same call may have been applied (its connection
  // broke after the request went out): then that attempt most likely made it,
  // and the call looks it up below the parent by name (one shallow listing) and
  // answers with its id.
  bool create_folder(const std::string& parent_id, EWS_Folder_Creation_Request& request,
                     ewstype__DistinguishedFolderIdNameType fallback);

  // Uploads each element (exported item data) as a new item of folder
  // `parent_id`, in batches sized by count and bytes; true when all were
  // accepted. Refused items are logged by their position in `items`.
  //
  // A request whose outcome is open (sent whole, answer lost) is never sent
  // again blindly: the reconciler, when one is set, tells whether its items
  // landed; without one, or when it cannot tell, those items fail ("outcome
  // unknown") rather than risk a second copy.
  bool upload_items(const std::string& parent_id, const std::vector<ustring>& items);
  // Consulted by upload_items after a request whose outcome is open; empty
  // removes it. It may call this client's listing operations.
  void set_upload_reconciler(const EWS_Upload_Reconciler& reconciler) { upload_reconciler_ = reconciler; }
  // The ids of the items created by the last upload_items call (empty entries
  // for refused ones).
  const std::vector<std::string>& uploaded_ids() const { return uploaded_ids_; }

  const std::string& mailbox() const { return mailbox_.name; }
  const std::string& last_error() const { return last_error_; }
  const Host_Status& last_status() const { return last_status_; }
  // Requests sent again after throttling or faults, over the client's life.
  unsigned retries() const { return retries_; }

private:
  template <typename Attempt_T>
  bool run(const char* operation, Attempt_T attempt);
  bool refresh_credentials();
  // Waits, when the transport's service limits requests per mailbox over a
  // window, until the current mailbox may send one more (shared by every client
  // of the process); false (last_status_ cancelled) when cancelled meanwhile.
  bool within_request_budget(const char* operation);
  bool wait_or_fail(const char* operation, Retry_Policy& policy, const Host_Status& status);
  bool fail(const char* operation, const Host_Status& status);
  bool try_smtp_form(const char* operation, const Host_Status& status);
  // Sleeps `ms`; false as soon as the client is cancelled.
  bool sleep_unless_cancelled(long ms);
  bool list_folders_i(const EWS_Folder_Ref& parent, EWS_Folders& out, bool shallow);
  bool export_batch(EWS_Export_Requests& requests, size_t begin, size_t end);
  // Exports `batches` on this client and up to `siblings` sibling clients at
  // once; false when a batch failed or was never tried (cancelled).
  bool export_concurrently(EWS_Export_Requests& requests, const std::vector<std::pair<size_t, size_t>>& batches,
                           const std::vector<std::string>& mailboxes, size_t siblings);
  // Makes sibling clients until there are `wanted` (or the transport cannot make
  // more); how many there are, at most `wanted`.
  size_t ready_siblings(size_t wanted);
  bool upload_batch(const std::string& parent_id, const std::vector<ustring>& items, size_t begin, size_t end,
                    std::vector<Host_Status>& statuses);
  // After an UploadItems request of the items at `where` whose outcome is open.
  Host_Status settle_upload(const std::string& parent_id, const std::vector<size_t>& where,
                            std::vector<Host_Status>& statuses, const Host_Status& call);
  // After a retried CreateFolder was told the folder exists: finds it below
  // `parent` by name.
  Host_Status find_created_folder(const EWS_Folder_Ref& parent, EWS_Folder_Creation_Request& request,
                                  const Host_Status& exists);
  EWS_Transport_Limits limits() const;

  std::unique_ptr<EWS_Transport> transport_;
  std::shared_ptr<Office365_Auth> auth_;
  std::shared_ptr<ACE_Log_Msg_Callback> log_callback_;
  std::string user_;
  Secure_String password_;
  EWS_Mailbox mailbox_;
  std::map<std::string, EWS_Mailbox_Form> forms_;  // what worked, per mailbox
  std::string last_error_;
  Host_Status last_status_;
  std::vector<std::string> uploaded_ids_;
  EWS_Upload_Reconciler upload_reconciler_;
  unsigned retries_ = 0;

  mutable std::mutex cancel_lock_;
  std::condition_variable cancel_signal_;
  std::atomic<bool> cancelled_{false};
  std::function<bool()> cancel_predicate_;

  // Clients of concurrent exports (see export_items), owned for this client's life.
  std::vector<std::unique_ptr<EWS_Client>> siblings_;
};

typedef boost::shared_ptr<EWS_Client> EWS_Client_Ptr;

#endif
