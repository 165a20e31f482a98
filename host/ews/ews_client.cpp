#include "host/ews/ews_client.h"

#include "host/ews/ews_params.h"
#include "host/ews/ews_retry_policy.h"
#include "host/ews/ews_soap_transport.h"
#include "host/http/http_session_factory.h"
#include "host/http/uri_parser.h"
#include "host/base/log.h"

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Callback.h>

#include <algorithm>
#include <map>
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
  std::function<void(size_t)> build = [&](size_t i) {
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

EWS_Client::EWS_Client() = default;

EWS_Client::~EWS_Client() = default;

bool EWS_Client::init(const std::string& endpoint, const std::string& user, const Secure_String& password,
                      const std::shared_ptr<Office365_Auth>& auth, const char* mailbox)
{
  URI uri;
  if (!URI_Parser::parse(endpoint.c_str(), uri))
  {
    LOG_MSG(LM_ERROR, "Invalid EWS endpoint '%s'\n", endpoint.c_str());
    return false;
  }
  if (!auth && user.empty())
  {
    LOG_MSG(LM_ERROR, "EWS client for '%s' has neither a token source nor a user name\n", endpoint.c_str());
    return false;
  }
  HTTP_Session_Ptr session = HTTP_Session_Factory::create(uri.host(false), uri.port(), uri.is_ssl(), 120, 300);
  if (!session)
    return false;
  std::string path = uri.path();
  if (!uri.query().empty())
    path += "?" + uri.query();
  transport_.reset(new EWS_Soap_Transport(session, path));
  endpoint_ = endpoint;
  auth_ = auth;
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

void EWS_Client::set_log_callback(const std::shared_ptr<ACE_Log_Msg_Callback>& callback)
{
  log_callback_ = callback;
}

bool EWS_Client::impersonate(const std::string& mailbox)
{
  mailbox_ = mailbox;
  if (!transport_)
  {
    LOG_MSG(LM_ERROR, "EWS client is not initialised, cannot act for '%s'\n", mailbox.c_str());
    return false;
  }
  transport_->set_mailbox(mailbox_);
  return true;
}

bool EWS_Client::refresh_credentials()
{
  if (!auth_)
    return true;
  EWS_Credentials credentials;
  if (!auth_->get_token(credentials.bearer_token))
  {
    last_error_ = "no access token: " + auth_->last_error();
    return false;
  }
  transport_->set_credentials(credentials);
  return true;
}

bool EWS_Client::fail(const char* operation, const std::string& why)
{
  last_error_ = why;
  LOG_MSG(LM_ERROR, "EWS %s for mailbox '%s' failed: %s\n", operation, mailbox_.c_str(), why.c_str());
  return false;
}

bool EWS_Client::wait_or_fail(const char* operation, EWS_Retry_Policy& policy, const Host_Status& status)
{
  const long delay = policy.next_delay(status);
  if (delay < 0)
  {
    if (!policy.budget_exhausted())
      return fail(operation, status.text());
    last_error_ = status.text();
    LOG_MSG(LM_ERROR, "EWS %s for mailbox '%s' failed after %d retries, retry budget of %d seconds exhausted: %s\n",
            operation, mailbox_.c_str(), policy.retries(), EWS_Params::retry_budget(), last_error_.c_str());
    return false;
  }
  ++retries_;
  LOG_MSG(LM_WARNING, "EWS %s for mailbox '%s' must be retried (%s); retry %d in %q ms\n", operation,
          mailbox_.c_str(), status.text().c_str(), policy.retries(), static_cast<ACE_INT64>(delay));
  std::this_thread::sleep_for(std::chrono::milliseconds(delay));
  return true;
}

template <typename Attempt>
bool EWS_Client::run(const char* operation, Attempt attempt)
{
  if (!transport_)
    return fail(operation, "the client is not initialised");
  Log_Callback_Scope scope(log_callback_.get());
  EWS_Retry_Policy policy(EWS_Params::retry_budget(), EWS_Params::retry_base_delay_ms());
  bool renewed = false;
  for (;;)
  {
    if (!refresh_credentials())
      return fail(operation, last_error_);
    const Host_Status status = attempt();
    if (status.ok())
      return true;
    if (status.kind == HOST_STATUS_UNAUTHORIZED && auth_ && !renewed)
    {
      // A token may be refused shortly before its expiry: ask for a new one once.
      renewed = true;
      auth_->invalidate();
      LOG_MSG(LM_WARNING, "EWS %s for mailbox '%s': access token refused, requesting a new one\n", operation,
              mailbox_.c_str());
      continue;
    }
    if (status.kind == HOST_STATUS_UNAUTHORIZED)
      return fail(operation, status.text());
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
    return fail("FindFolder", "unknown distinguished folder " + std::to_string(distinguished));
  EWS_Folder_Ref parent;
  parent.distinguished = distinguished;
  return list_folders_i(parent, out, shallow);
}

bool EWS_Client::list_folders_i(const EWS_Folder_Ref& parent, EWS_Folders& out, bool shallow)
{
  EWS_Folders flat;
  std::vector<std::string> parent_ids;
  int offset = 0;
  for (;;)
  {
    EWS_Folder_Page page;
    const int size = EWS_Params::paging_size();
    if (!run("FindFolder", [&] {
          page = EWS_Folder_Page();
          return transport_->find_folders(parent, !shallow, offset, size, page);
        }))
      return false;
    const size_t got = page.folders.size();
    std::move(page.folders.begin(), page.folders.end(), std::back_inserter(flat));
    parent_ids.insert(parent_ids.end(), page.parent_ids.begin(), page.parent_ids.end());
    if (page.last)
      break;
    if (got == 0 && page.next_offset <= offset)
      return fail("FindFolder", "the server returned an empty page without finishing the listing");
    offset = std::max(page.next_offset, offset + static_cast<int>(got));
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
    return fail("FindItem", "no folder id");
  int got = 0;
  int position = std::max(0, offset);
  while (got < limit)
  {
    EWS_Item_Page page;
    const int max = std::min(limit - got, EWS_Params::paging_size());
    if (!run("FindItem", [&] {
          page = EWS_Item_Page();
          return transport_->find_items(folder_id, position, max, page);
        }))
      return false;
    const int count = static_cast<int>(std::min<size_t>(page.items.size(), static_cast<size_t>(limit - got)));
    for (int i = 0; i < count; ++i)
      appender(page.items[static_cast<size_t>(i)]);
    got += count;
    if (page.last)
      break;
    if (count == 0)
      return fail("FindItem", "the server returned an empty page without finishing the listing");
    position = std::max(page.next_offset, position + count);
  }
  return true;
}

bool EWS_Client::export_chunk(EWS_Export_Requests& requests, size_t begin, size_t end)
{
  for (size_t i = begin; i < end; ++i)
  {
    requests[i].data = EWS_b64_Data();
    requests[i].error.clear();
  }
  const bool ok = run("ExportItems", [&] {
    // Send what is still missing: everything at first (and after a failed
    // request), later only the items the server refused for reasons that pass
    // (throttling inside a batch, damaged data).
    EWS_Export_Requests pending;
    std::vector<size_t> where;
    for (size_t i = begin; i < end; ++i)
    {
      const std::string& error = requests[i].error;
      if (!requests[i].data.ptr && (error.empty() || ews_is_transient_code(error) || error == "invalid export data"))
      {
        pending.push_back(requests[i]);
        where.push_back(i);
      }
    }
    if (pending.empty())
      return Host_Status();
    const Host_Status status = transport_->export_items(pending);
    for (size_t k = 0; k < pending.size() && k < where.size(); ++k)
      requests[where[k]] = pending[k];
    return status;
  });
  if (!ok)
    return false;
  for (size_t i = begin; i < end; ++i)
    if (!requests[i].data.ptr)
      LOG_MSG(LM_WARNING, "EWS item %s of mailbox '%s' could not be exported: %s\n", requests[i].id.c_str(),
              mailbox_.c_str(), requests[i].error.c_str());
  return true;
}

bool EWS_Client::export_items(EWS_Export_Requests& requests)
{
  const size_t batch = static_cast<size_t>(EWS_Params::batch_size());
  for (size_t begin = 0; begin < requests.size(); begin += batch)
    if (!export_chunk(requests, begin, std::min(requests.size(), begin + batch)))
      return false;
  return true;
}

bool EWS_Client::create_folder(const std::string& parent_id, EWS_Folder_Creation_Request& request,
                               ewstype__DistinguishedFolderIdNameType fallback)
{
  EWS_Folder_Ref parent;
  parent.id = parent_id;
  parent.distinguished = fallback;
  return run("CreateFolder", [&] { return transport_->create_folder(parent, request); });
}

bool EWS_Client::upload_items(const std::string& parent_id, const std::vector<ustring>& items)
{
  uploaded_ids_.assign(items.size(), std::string());
  std::vector<std::string> errors(items.size());
  const bool ok = run("UploadItems", [&] {
    std::vector<const ustring*> pending;
    std::vector<size_t> where;
    for (size_t i = 0; i < items.size(); ++i)
      if (uploaded_ids_[i].empty() && (errors[i].empty() || ews_is_transient_code(errors[i].substr(0, errors[i].find(':')))))
      {
        pending.push_back(&items[i]);
        where.push_back(i);
      }
    if (pending.empty())
      return Host_Status();
    std::vector<std::string> ids;
    std::vector<std::string> errs;
    const Host_Status status = transport_->upload_items(parent_id, pending, ids, errs);
    for (size_t k = 0; k < where.size() && k < ids.size(); ++k)
    {
      uploaded_ids_[where[k]] = ids[k];
      errors[where[k]] = errs[k];
    }
    // Items refused for good are reported below; only passing refusals are retried.
    return status.kind == HOST_STATUS_PERMANENT && !ids.empty() ? Host_Status() : status;
  });
  if (!ok)
    return false;
  bool all = true;
  for (size_t i = 0; i < items.size(); ++i)
    if (uploaded_ids_[i].empty())
    {
      all = false;
      last_error_ = errors[i];
      LOG_MSG(LM_ERROR, "EWS upload of item %Q into folder of mailbox '%s' failed: %s\n",
              static_cast<ACE_UINT64>(i), mailbox_.c_str(),
              errors[i].c_str());
    }
  return all;
}
