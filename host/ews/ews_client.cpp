#include "host/ews/ews_client.h"

#include "host/base/log.h"
#include "host/ews/ews_batches.h"
#include "host/ews/ews_params.h"
#include "host/ews/ews_request_budget.h"
#include "host/http/retry_policy.h"
#include "host/ews/ews_transport_factory.h"

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Callback.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <map>
#include <system_error>
#include <thread>

namespace
{
// Sends the calling thread's log lines to a callback for the life of the scope.
class Log_Callback_Scope
{
public:
  explicit Log_Callback_Scope(ACE_Log_Msg_Callback* callback) : active_(callback != nullptr)
  {
    if (!active_)
      return;
    ACE_Log_Msg* log = ACE_LOG_MSG;
    had_flag_ = log->flags() & ACE_Log_Msg::MSG_CALLBACK;
    previous_ = log->msg_callback(callback);
    log->set_flags(ACE_Log_Msg::MSG_CALLBACK);
  }
  ~Log_Callback_Scope()
  {
    if (!active_)
      return;
    ACE_Log_Msg* log = ACE_LOG_MSG;
    log->msg_callback(previous_);
    if (!had_flag_)
      log->clr_flags(ACE_Log_Msg::MSG_CALLBACK);
  }
  Log_Callback_Scope(const Log_Callback_Scope&) = delete;
  Log_Callback_Scope& operator=(const Log_Callback_Scope&) = delete;

private:
  bool active_;
  bool had_flag_ = false;
  ACE_Log_Msg_Callback* previous_ = nullptr;
};

// Nests a deep listing: folders whose parent is not in the listing are the
// direct children of the listed folder.
void nest(EWS_Folders& flat, const std::vector<std::string>& parent_ids, EWS_Folders& out)
{
  std::map<std::string, size_t> index;
  for (size_t i = 0; i < flat.size(); ++i)
    index[flat[i].id] = i;
  std::vector<std::vector<size_t>> children(flat.size());
  std::vector<size_t> roots;
  for (size_t i = 0; i < flat.size(); ++i)
  {
    const auto parent = index.find(parent_ids[i]);
    if (parent == index.end() || parent->second == i)
      roots.push_back(i);
    else
      children[parent->second].push_back(i);
  }
  // Builds bottom-up so that each folder is moved once, with its subtree complete.
  std::vector<bool> done(flat.size(), false);
  std::function<void(size_t)> build = [&](size_t i)
  {
    for (size_t c : children[i])
    {
      if (done[c])
        continue;
      done[c] = true;
      build(c);
      flat[i].subfolders.push_back(std::move(flat[c]));
    }
  };
  for (size_t r : roots)
  {
    done[r] = true;
    build(r);
    out.push_back(std::move(flat[r]));
  }
}
}  // namespace

const char* const EWS_Client::graph_transport_name = "graph";

std::string EWS_Client::graph_token_scope(const Office365_Auth_Entry& entry)
{
  std::string base = entry.ms_graph_endpoint;
  while (!base.empty() && base.back() == '/')
    base.pop_back();
  return base + "/.default";
}

EWS_Client::EWS_Client() = default;

EWS_Client::~EWS_Client() = default;

bool EWS_Client::init(const std::string& endpoint, const std::string& user, const Secure_String& password,
                      const std::shared_ptr<Office365_Auth>& auth, const char* mailbox)
{
  if (!auth && user.empty())
  {
    LOG_MSG(LM_ERROR, "EWS client for '%s' has neither a token source nor a user name\n", endpoint.c_str());
    return false;
  }
  // Basic credentials only make sense to an on-premises EWS server.
  const std::string name = auth ? auth->get().transport : EWS_Transport_Factory::default_name;
  EWS_Transport_Settings settings;
  settings.endpoint = endpoint;
  std::shared_ptr<Office365_Auth> tokens = auth;
  if (auth && name == graph_transport_name)
  {
    // Graph's mailbox API lives at the tenant's Graph endpoint and takes a Graph
    // token, whatever EWS endpoint and scope the caller knows the tenant by.
    const Office365_Auth_Entry& entry = auth->get();
    settings.endpoint = entry.ms_graph_endpoint;
    tokens = std::make_shared<Office365_Auth>(entry, graph_token_scope(entry));
  }
  std::unique_ptr<EWS_Transport> transport = EWS_Transport_Factory::create(name, settings);
  if (!transport)
    return false;
  transport_ = std::move(transport);
  auth_ = tokens;
  user_ = user;
  password_ = password;
  if (!auth_)
  {
    EWS_Credentials basic;
    basic.user = user_;
    basic.password.assign(password_.data(), password_.size());
    transport_->set_credentials(basic);
    std::fill(basic.password.begin(), basic.password.end(), '\0');
  }
  return impersonate(mailbox ? mailbox : "");
}

void EWS_Client::set_transport(std::unique_ptr<EWS_Transport> transport)
{
  transport_ = std::move(transport);
  if (transport_)
    transport_->set_mailbox(mailbox_);
}

void EWS_Client::set_log_callback(const std::shared_ptr<ACE_Log_Msg_Callback>& callback) { log_callback_ = callback; }

void EWS_Client::cancel()
{
  {
    std::lock_guard<std::mutex> guard(cancel_lock_);
    cancelled_ = true;
  }
  cancel_signal_.notify_all();
}

void EWS_Client::resume()
{
  std::lock_guard<std::mutex> guard(cancel_lock_);
  cancelled_ = false;
}

void EWS_Client::set_cancel_predicate(const std::function<bool()>& predicate) { cancel_predicate_ = predicate; }

bool EWS_Client::cancelled() const { return cancelled_ || (cancel_predicate_ && cancel_predicate_()); }

bool EWS_Client::sleep_unless_cancelled(long ms)
{
  // Wakes at once on cancel(), and every 200 ms to poll the predicate, so that a
  // back-off of minutes never holds a cancelled job.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  std::unique_lock<std::mutex> lock(cancel_lock_);
  for (;;)
  {
    if (cancelled_ || (cancel_predicate_ && cancel_predicate_()))
      return false;
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline)
      return true;
    cancel_signal_.wait_until(lock, std::min(deadline, now + std::chrono::milliseconds(200)));
  }
}

bool EWS_Client::impersonate(const std::string& mailbox)
{
  mailbox_.name = mailbox;
  const auto known = forms_.find(mailbox);
  mailbox_.form = known != forms_.end() ? known->second : EWS_MAILBOX_PRINCIPAL_NAME;
  if (!transport_)
  {
    LOG_MSG(LM_ERROR, "EWS client is not initialised, cannot act for '%s'\n", mailbox.c_str());
    return false;
  }
  transport_->set_mailbox(mailbox_);
  return true;
}

EWS_Transport_Limits EWS_Client::limits() const { return transport_ ? transport_->limits() : EWS_Transport_Limits(); }

bool EWS_Client::refresh_credentials()
{
  if (!auth_)
    return true;
  EWS_Credentials credentials;
  if (!auth_->get_token(credentials.bearer_token))
  {
    last_status_ = Host_Status::make(HOST_STATUS_UNAUTHORIZED, "no access token", auth_->last_error());
    return false;
  }
  transport_->set_credentials(credentials);
  return true;
}

bool EWS_Client::fail(const char* operation, const Host_Status& status)
{
  last_status_ = status;
  last_error_ = status.text();
  if (status.kind == HOST_STATUS_CANCELLED)
    LOG_MSG(LM_WARNING, "EWS %s for mailbox '%s' cancelled\n", operation, mailbox_.name.c_str());
  else
    LOG_MSG(LM_ERROR, "EWS %s for mailbox '%s' failed: %s\n", operation, mailbox_.name.c_str(), last_error_.c_str());
  return false;
}

bool EWS_Client::wait_or_fail(const char* operation, Retry_Policy& policy, const Host_Status& status)
{
  const long delay = policy.next_delay(status);
  if (delay < 0)
  {
    if (!policy.budget_exhausted())
      return fail(operation, status);
    last_status_ = status;
    last_error_ = status.text();
    LOG_MSG(LM_ERROR, "EWS %s for mailbox '%s' failed after %d retries, retry budget of %d seconds exhausted: %s\n",
            operation, mailbox_.name.c_str(), policy.retries(), EWS_Params::retry_budget(), last_error_.c_str());
    return false;
  }
  ++retries_;
  LOG_MSG(LM_WARNING, "EWS %s for mailbox '%s' must be retried (%s); retry %d in %q ms\n", operation,
          mailbox_.name.c_str(), status.text().c_str(), policy.retries(), static_cast<ACE_INT64>(delay));
  if (!sleep_unless_cancelled(delay))
    return fail(operation, Host_Status::make(HOST_STATUS_CANCELLED, "cancelled", "cancelled while waiting to retry"));
  return true;
}

bool EWS_Client::try_smtp_form(const char* operation, const Host_Status& status)
{
  if (mailbox_.name.empty() || mailbox_.form == EWS_MAILBOX_SMTP_ADDRESS || !transport_->is_unknown_mailbox(status))
    return false;
  // The name may be an SMTP address (primary or proxy) rather than a UPN.
  LOG_MSG(LM_INFO, "EWS %s: no mailbox has the user principal name '%s'; trying it as an SMTP address\n", operation,
          mailbox_.name.c_str());
  mailbox_.form = EWS_MAILBOX_SMTP_ADDRESS;
  transport_->set_mailbox(mailbox_);
  return true;
}

bool EWS_Client::within_request_budget(const char* operation)
{
  const EWS_Transport_Limits l = limits();
  if (l.max_requests_per_window <= 0 || mailbox_.name.empty())
    return true;
  EWS_Request_Budget& budget =
    EWS_Request_Budget::of(transport_->name(), l.max_requests_per_window, l.request_window_seconds);
  for (;;)
  {
    const long long now =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
    const long wait = budget.take(mailbox_.name, now);
    if (wait == 0)
      return true;
    LOG_MSG(LM_WARNING, "EWS %s for mailbox '%s' waits %q ms: the budget of %d requests per %d seconds is spent\n",
            operation, mailbox_.name.c_str(), static_cast<ACE_INT64>(wait), l.max_requests_per_window,
            l.request_window_seconds);
    if (!sleep_unless_cancelled(wait))
    {
      last_status_ =
        Host_Status::make(HOST_STATUS_CANCELLED, "cancelled", "cancelled while waiting for the request budget");
      return false;
    }
  }
}

template <typename Attempt_T>
bool EWS_Client::run(const char* operation, Attempt_T attempt)
{
  if (!transport_)
    return fail(operation, Host_Status::make(HOST_STATUS_PERMANENT, "", "the client is not initialised"));
  Log_Callback_Scope scope(log_callback_.get());
  transport_->set_cancel_check([this] { return cancelled(); });
  // Exchange Online suggests back-offs of minutes; the exponential back-off grows to
  // one minute at most between attempts.
  Retry_Policy policy(EWS_Params::retry_budget(), Retry_Policy::RETRY_TRANSIENT, EWS_Params::retry_base_delay_ms(),
                      60000);
  const Host_Status cancelled_status =
    Host_Status::make(HOST_STATUS_CANCELLED, "cancelled", "the client was cancelled");
  bool renewed = false;
  for (;;)
  {
    if (cancelled())
      return fail(operation, cancelled_status);
    if (!refresh_credentials())
      return fail(operation, last_status_);
    if (!within_request_budget(operation))
      return fail(operation, last_status_);
    const Host_Status status = attempt();
    if (status.ok())
    {
      if (!mailbox_.name.empty())
        forms_[mailbox_.name] = mailbox_.form;
      return true;
    }
    if (cancelled())
      return fail(operation, cancelled_status);
    if (status.kind == HOST_STATUS_UNAUTHORIZED && auth_ && !renewed)
    {
      // A token may be refused shortly before its expiry: ask for a new one once.
      renewed = true;
      auth_->invalidate();
      LOG_MSG(LM_WARNING, "EWS %s for mailbox '%s': access token refused, requesting a new one\n", operation,
              mailbox_.name.c_str());
      continue;
    }
    if (try_smtp_form(operation, status))
      continue;
    if (!wait_or_fail(operation, policy, status))
      return false;
  }
}

bool EWS_Client::list_folders(const std::string& folder_id, EWS_Folders& out, bool shallow)
{
  EWS_Folder_Ref parent;
  parent.id = folder_id;
  return list_folders_i(parent, out, shallow);
}

bool EWS_Client::list_folders(int distinguished, EWS_Folders& out, bool shallow)
{
  if (ews_distinguished_folder_name(distinguished) == nullptr)
    return fail("FindFolder", Host_Status::make(HOST_STATUS_PERMANENT, "",
                                                "unknown distinguished folder " + std::to_string(distinguished)));
  EWS_Folder_Ref parent;
  parent.distinguished = distinguished;
  return list_folders_i(parent, out, shallow);
}

bool EWS_Client::list_folders_i(const EWS_Folder_Ref& parent, EWS_Folders& out, bool shallow)
{
  EWS_Folders flat;
  std::vector<std::string> parent_ids;
  EWS_Page_Cursor at;
  for (;;)
  {
    EWS_Folder_Page page;
    const int size = std::min(EWS_Params::paging_size(), limits().max_page_size);
    if (!run("FindFolder",
             [&]
             {
               page = EWS_Folder_Page();
               return transport_->find_folders(parent, !shallow, at, size, page);
             }))
      return false;
    const size_t got = page.folders.size();
    std::move(page.folders.begin(), page.folders.end(), std::back_inserter(flat));
    parent_ids.insert(parent_ids.end(), page.parent_ids.begin(), page.parent_ids.end());
    if (page.last)
      break;
    if (got == 0 && page.next == at)
      return fail("FindFolder", Host_Status::make(HOST_STATUS_PERMANENT, "malformed answer",
                                                  "the server returned an empty page without finishing the listing"));
    at = page.next;
  }
  if (shallow)
    std::move(flat.begin(), flat.end(), std::back_inserter(out));
  else
    nest(flat, parent_ids, out);
  return true;
}

bool EWS_Client::list_items(const std::string& folder_id, const EWS_Item_Appender& appender, int offset, int limit)
{
  if (folder_id.empty())
    return fail("FindItem", Host_Status::make(HOST_STATUS_PERMANENT, "", "no folder id"));
  int got = 0;
  EWS_Page_Cursor at = EWS_Page_Cursor::at(std::max(0, offset));
  while (got < limit)
  {
    EWS_Item_Page page;
    const int max = std::min({limit - got, EWS_Params::paging_size(), limits().max_page_size});
    if (!run("FindItem",
             [&]
             {
               page = EWS_Item_Page();
               return transport_->find_items(folder_id, at, max, page);
             }))
      return false;
    const int count = static_cast<int>(std::min<size_t>(page.items.size(), static_cast<size_t>(limit - got)));
    for (int i = 0; i < count; ++i)
      appender(page.items[static_cast<size_t>(i)]);
    got += count;
    if (page.last)
      break;
    if (count == 0 && page.next == at)
      return fail("FindItem", Host_Status::make(HOST_STATUS_PERMANENT, "malformed answer",
                                                "the server returned an empty page without finishing the listing"));
    at = page.next;
  }
  return true;
}

namespace
{
// What an attempt at a batch amounts to once the call itself was answered: the
// items refused for passing reasons decide whether (and how long) to wait; a
// throttled one, with the wait the server suggested, goes first.
Host_Status pending_status(const std::vector<const Host_Status*>& statuses)
{
  const Host_Status* transient = nullptr;
  for (const Host_Status* s : statuses)
  {
    if (s->kind == HOST_STATUS_THROTTLED)
      return *s;
    if (s->kind == HOST_STATUS_TRANSIENT && transient == nullptr)
      transient = s;
  }
  return transient ? *transient : Host_Status();
}

Host_Status not_answered()
{
  return Host_Status::make(HOST_STATUS_TRANSIENT, "not answered", "the request ended before this item was answered");
}
}  // namespace

bool EWS_Client::export_batch(EWS_Export_Requests& requests, size_t begin, size_t end)
{
  const bool ok = run("ExportItems",
                      [&]
                      {
                        // Sends what is still missing: everything at first, later only the items
                        // that were not answered or were refused for reasons that pass.
                        std::vector<EWS_Export_Request*> pending;
                        for (size_t i = begin; i < end; ++i)
                          if (requests[i].status.retryable())
                          {
                            requests[i].status = not_answered();
                            pending.push_back(&requests[i]);
                          }
                        if (pending.empty())
                          return Host_Status();
                        const Host_Status call = transport_->export_items(pending);
                        if (!call.ok())
                          return call;
                        std::vector<const Host_Status*> statuses;
                        for (const EWS_Export_Request* r : pending)
                          statuses.push_back(&r->status);
                        return pending_status(statuses);
                      });
  if (ok)
    return true;
  // The batch failed as a whole: what is still open fails with it.
  for (size_t i = begin; i < end; ++i)
    if (requests[i].status.retryable())
      requests[i].status = last_status_;
  return false;
}

size_t EWS_Client::ready_siblings(size_t wanted)
{
  while (siblings_.size() < wanted)
  {
    std::unique_ptr<EWS_Transport> transport = transport_->make_sibling();
    if (!transport)
      break;
    std::unique_ptr<EWS_Client> sibling(new EWS_Client());
    sibling->transport_ = std::move(transport);
    sibling->auth_ = auth_;
    // A sibling stops whenever this client is cancelled; it is never cancelled alone.
    sibling->cancel_predicate_ = [this] { return cancelled(); };
    siblings_.push_back(std::move(sibling));
  }
  return std::min(wanted, siblings_.size());
}

bool EWS_Client::export_concurrently(EWS_Export_Requests& requests,
                                     const std::vector<std::pair<size_t, size_t>>& batches,
                                     const std::vector<std::string>& mailboxes, size_t siblings)
{
  for (size_t i = 0; i < siblings; ++i)
  {
    EWS_Client& sibling = *siblings_[i];
    sibling.log_callback_ = log_callback_;
    sibling.forms_ = forms_;
    sibling.mailbox_ = mailbox_;
    sibling.transport_->set_mailbox(mailbox_);
    sibling.retries_ = 0;
  }
  enum Outcome : char
  {
    NOT_TRIED = 0,
    EXPORTED = 1,
    FAILED = 2
  };
  std::vector<char> outcomes(batches.size(), NOT_TRIED);
  std::vector<Host_Status> statuses(batches.size());
  std::atomic<size_t> next{0};
  // Each lane takes the next batch not yet taken; a batch writes only its own
  // requests, so the lanes share nothing but the counter.
  const auto lane = [&](EWS_Client& client)
  {
    for (;;)
    {
      if (client.cancelled())
        return;
      const size_t b = next++;
      if (b >= batches.size())
        return;
      if (client.mailbox_.name != mailboxes[b])
        client.impersonate(mailboxes[b]);
      const bool ok = client.export_batch(requests, batches[b].first, batches[b].second);
      statuses[b] = client.last_status_;
      outcomes[b] = ok ? EXPORTED : FAILED;
    }
  };
  // Workers log where the calling thread does (the job's log, a test's capture).
  ACE_Log_Msg* log = ACE_LOG_MSG;
  ACE_Log_Msg_Callback* inherited = (log->flags() & ACE_Log_Msg::MSG_CALLBACK) ? log->msg_callback() : nullptr;
  std::vector<std::thread> workers;
  for (size_t i = 0; i < siblings; ++i)
  {
    try
    {
      EWS_Client* sibling = siblings_[i].get();
      workers.emplace_back(
        [&lane, sibling, inherited]
        {
          Log_Callback_Scope scope(inherited);
          lane(*sibling);
        });
    }
    catch (const std::system_error& e)
    {
      // The lanes already running take the batches this one would have.
      LOG_MSG(LM_WARNING, "EWS export runs on %d connections only: %s\n", static_cast<int>(i + 1), e.what());
      break;
    }
  }
  const std::string own = mailbox_.name;
  lane(*this);
  for (std::thread& worker : workers)
    worker.join();

  // What the siblings learnt: retries, and how the service knows each mailbox.
  for (size_t i = 0; i < siblings; ++i)
  {
    EWS_Client& sibling = *siblings_[i];
    retries_ += sibling.retries_;
    sibling.retries_ = 0;
    for (const auto& form : sibling.forms_)
      forms_[form.first] = form.second;
  }
  impersonate(own);
  bool all = true;
  for (size_t b = 0; b < batches.size(); ++b)
  {
    if (outcomes[b] == EXPORTED)
      continue;
    all = false;
    if (outcomes[b] == FAILED)
      last_status_ = statuses[b];
    else
      last_status_ = Host_Status::make(HOST_STATUS_CANCELLED, "cancelled", "the client was cancelled");
    last_error_ = last_status_.text();
  }
  return all;
}

bool EWS_Client::export_items(EWS_Export_Requests& requests)
{
  std::vector<long long> sizes;
  for (EWS_Export_Request& r : requests)
  {
    r.data = EWS_b64_Data();
    r.status = not_answered();
    sizes.push_back(r.size);
  }
  const EWS_Transport_Limits l = limits();
  const int most = std::min(EWS_Params::batch_size(), l.max_export_items);
  // Batches by count and bytes within each run of requests of one mailbox.
  const std::string own = mailbox_.name;
  const auto mailbox_of = [&](size_t i) { return requests[i].mailbox.empty() ? own : requests[i].mailbox; };
  std::vector<std::pair<size_t, size_t>> batches;
  std::vector<std::string> mailboxes;
  for (size_t begin = 0, end = 0; begin < requests.size(); begin = end)
  {
    const std::string mailbox = mailbox_of(begin);
    end = begin + 1;
    while (end < requests.size() && mailbox_of(end) == mailbox)
      ++end;
    const std::vector<long long> run(sizes.begin() + static_cast<std::ptrdiff_t>(begin),
                                     sizes.begin() + static_cast<std::ptrdiff_t>(end));
    for (const auto& batch : ews_batches(run, most, l.max_request_bytes))
    {
      batches.emplace_back(begin + batch.first, begin + batch.second);
      mailboxes.push_back(mailbox);
    }
  }
  // The service's own limit on requests at once for a mailbox bounds the lanes.
  int lanes = EWS_Params::export_concurrency();
  if (l.max_concurrent_requests > 0)
    lanes = std::min(lanes, l.max_concurrent_requests);
  const size_t wanted = std::min(static_cast<size_t>(lanes), batches.size());
  const size_t siblings = wanted > 1 && transport_ ? ready_siblings(wanted - 1) : 0;
  bool all = true;
  if (siblings > 0)
    all = export_concurrently(requests, batches, mailboxes, siblings);
  else
  {
    for (size_t b = 0; b < batches.size(); ++b)
    {
      if (mailbox_.name != mailboxes[b])
        impersonate(mailboxes[b]);
      // A failed batch does not stop the next ones; a cancelled client does.
      if (!export_batch(requests, batches[b].first, batches[b].second))
        all = false;
      if (last_status_.kind == HOST_STATUS_CANCELLED && cancelled())
        break;
    }
    if (mailbox_.name != own)
      impersonate(own);
  }
  for (size_t i = 0; i < requests.size(); ++i)
  {
    const EWS_Export_Request& r = requests[i];
    if (r.status.retryable() || r.status.ok())
      continue;
    LOG_MSG(LM_WARNING, "EWS item %s of mailbox '%s' could not be exported: %s\n", r.id.c_str(), mailbox_of(i).c_str(),
            r.status.text().c_str());
  }
  for (EWS_Export_Request& r : requests)
    if (r.status.retryable())
      r.status = last_status_;  // batches never tried after a cancel
  return all;
}

bool EWS_Client::create_folder(const std::string& parent_id, EWS_Folder_Creation_Request& request,
                               ewstype__DistinguishedFolderIdNameType fallback)
{
  EWS_Folder_Ref parent;
  parent.id = parent_id;
  parent.distinguished = fallback;
  // Set once an attempt may have created the folder without saying so.
  bool maybe_created = false;
  return run("CreateFolder",
             [&]
             {
               const Host_Status status = transport_->create_folder(parent, request);
               if (status.ok())
                 return status;
               if (maybe_created && transport_->is_folder_exists(status))
                 return find_created_folder(parent, request, status);
               if (transport_->outcome_unknown())
                 maybe_created = true;
               return status;
             });
}

Host_Status EWS_Client::find_created_folder(const EWS_Folder_Ref& parent, EWS_Folder_Creation_Request& request,
                                            const Host_Status& exists)
{
  EWS_Page_Cursor at;
  const int size = std::min(EWS_Params::paging_size(), limits().max_page_size);
  for (;;)
  {
    EWS_Folder_Page page;
    const Host_Status listed = transport_->find_folders(parent, false, at, size, page);
    if (!listed.ok())
      return listed;
    for (const EWS_Folder& f : page.folders)
      if (f.display_name == request.display_name)
      {
        request.id = f.id;
        request.change_key = f.change_key;
        LOG_MSG(LM_WARNING,
                "EWS CreateFolder for mailbox '%s': folder '%s' exists after an attempt whose answer was lost; "
                "taking it as the one that attempt created\n",
                mailbox_.name.c_str(), request.display_name.c_str());
        return Host_Status();
      }
    if (page.last || (page.folders.empty() && page.next == at))
      break;
    at = page.next;
  }
  // Exists, yet not listed below the parent: nothing this call can use.
  return exists;
}

bool EWS_Client::upload_batch(const std::string& parent_id, const std::vector<ustring>& items, size_t begin, size_t end,
                              std::vector<Host_Status>& statuses)
{
  const bool ok = run("UploadItems",
                      [&]
                      {
                        std::vector<const ustring*> pending;
                        std::vector<size_t> where;
                        for (size_t i = begin; i < end; ++i)
                          if (statuses[i].retryable())
                          {
                            pending.push_back(&items[i]);
                            where.push_back(i);
                          }
                        if (pending.empty())
                          return Host_Status();
                        std::vector<EWS_Upload_Result> results;
                        const Host_Status call = transport_->upload_items(parent_id, pending, results);
                        if (!call.ok())
                          return transport_->outcome_unknown() ? settle_upload(parent_id, where, statuses, call) : call;
                        std::vector<const Host_Status*> open;
                        for (size_t k = 0; k < where.size(); ++k)
                        {
                          statuses[where[k]] = k < results.size() ? results[k].status : not_answered();
                          if (k < results.size())
                            uploaded_ids_[where[k]] = results[k].id;
                          open.push_back(&statuses[where[k]]);
                        }
                        return pending_status(open);
                      });
  if (ok)
    return true;
  for (size_t i = begin; i < end; ++i)
    if (statuses[i].retryable())
      statuses[i] = last_status_;
  return false;
}

Host_Status EWS_Client::settle_upload(const std::string& parent_id, const std::vector<size_t>& where,
                                      std::vector<Host_Status>& statuses, const Host_Status& call)
{
  std::vector<std::string> landed;
  if (upload_reconciler_ && upload_reconciler_(parent_id, where.size(), landed))
  {
    if (landed.empty())
    {
      LOG_MSG(LM_WARNING,
              "EWS UploadItems for mailbox '%s': the answer was lost (%s) and none of its %Q items is in the "
              "folder; sending them again\n",
              mailbox_.name.c_str(), call.text().c_str(), static_cast<ACE_UINT64>(where.size()));
      return call;
    }
    if (landed.size() == where.size())
    {
      LOG_MSG(LM_WARNING,
              "EWS UploadItems for mailbox '%s': the answer was lost (%s) but its %Q items are in the folder; "
              "not sending them again\n",
              mailbox_.name.c_str(), call.text().c_str(), static_cast<ACE_UINT64>(where.size()));
      for (size_t k = 0; k < where.size(); ++k)
      {
        statuses[where[k]] = Host_Status();
        uploaded_ids_[where[k]] = landed[k];
      }
      return Host_Status();
    }
  }
  // Sending them again could make second copies: they fail, each named by the
  // caller's log, and the batch goes on.
  const Host_Status unknown = Host_Status::make(
    HOST_STATUS_PERMANENT, "outcome unknown",
    "the answer to the upload was lost (" + call.text() + ") and whether the item was created could not be told");
  for (size_t k : where)
    statuses[k] = unknown;
  return Host_Status();
}

bool EWS_Client::upload_items(const std::string& parent_id, const std::vector<ustring>& items)
{
  uploaded_ids_.assign(items.size(), std::string());
  std::vector<Host_Status> statuses(items.size(), not_answered());
  std::vector<long long> sizes;
  for (const ustring& item : items)
    sizes.push_back(static_cast<long long>(item.size()));
  const EWS_Transport_Limits l = limits();
  const int most = std::min(EWS_Params::batch_size(), l.max_upload_items);
  bool all = true;
  for (const auto& batch : ews_batches(sizes, most, l.max_request_bytes))
  {
    if (!upload_batch(parent_id, items, batch.first, batch.second, statuses))
      all = false;
    if (last_status_.kind == HOST_STATUS_CANCELLED && cancelled())
      break;
  }
  for (size_t i = 0; i < items.size(); ++i)
  {
    if (statuses[i].ok())
      continue;
    all = false;
    if (statuses[i].retryable())
      statuses[i] = last_status_;
    last_status_ = statuses[i];
    last_error_ = statuses[i].text();
    LOG_MSG(LM_ERROR, "EWS upload of item %Q into folder of mailbox '%s' failed: %s\n", static_cast<ACE_UINT64>(i),
            mailbox_.name.c_str(), last_error_.c_str());
  }
  return all;
}
