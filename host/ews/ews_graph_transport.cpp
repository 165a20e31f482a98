#include "host/ews/ews_graph_transport.h"

#include "host/ews/ews_graph_shapes.h"
#include "host/ews/ews_graph_status.h"
#include "host/ews/ews_xml.h"
#include "host/http/http_encoding.h"
#include "host/http/http_session_factory.h"
#include "host/http/http_status.h"
#include "host/http/uri_parser.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <ctime>

namespace
{
// The prefix of a deep listing's place in a cursor (a walk, not a Graph link).
const char* const walk_prefix = "walk:";

std::string segment(const std::string& text)
{
  std::string out;
  http_encode_string_i(text.c_str(), HTTP_ENCODE_MODE_NAME, out);
  return out;
}

std::string lower(std::string text)
{
  for (char& c : text)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// An OData string literal: quotes doubled.
std::string odata_literal(const std::string& text)
{
  std::string out;
  for (char c : text)
  {
    out += c;
    if (c == '\'')
      out += '\'';
  }
  return out;
}

const nlohmann::ordered_json* array_of(const nlohmann::ordered_json& answer, const char* key)
{
  const auto it = answer.find(key);
  return it != answer.end() && it->is_array() ? &*it : nullptr;
}

std::string next_link_of(const nlohmann::ordered_json& answer)
{
  const auto it = answer.find("@odata.nextLink");
  return it != answer.end() && it->is_string() ? it->get<std::string>() : std::string();
}

// Masks every occurrence of `secret` in `text`.
void hide(std::string& text, const std::string& secret)
{
  if (secret.empty())
    return;
  for (size_t at = text.find(secret); at != std::string::npos; at = text.find(secret, at + 3))
    text.replace(at, secret.size(), "***");
}

// A deep listing's place: the folder whose children are being read (empty: the
// listed parent itself), where in its children, and the folders still to read.
struct Walk
{
  std::string current;
  std::string link;
  long skip = 0;
  std::vector<std::string> queue;

  std::string encode() const
  {
    nlohmann::ordered_json j;
    j["c"] = current;
    j["l"] = link;
    j["s"] = skip;
    j["q"] = queue;
    return walk_prefix + j.dump();
  }
  bool decode(const std::string& text)
  {
    if (text.compare(0, std::strlen(walk_prefix), walk_prefix) != 0)
      return false;
    const auto j = nlohmann::ordered_json::parse(text.substr(std::strlen(walk_prefix)), nullptr, false);
    if (!j.is_object())
      return false;
    current = j.value("c", "");
    link = j.value("l", "");
    skip = j.value("s", 0L);
    queue = j.value("q", std::vector<std::string>());
    return true;
  }
};
}  // namespace

EWS_Graph_Transport::EWS_Graph_Transport(const HTTP_Session_Ptr& session, const std::string& base_path,
                                         const std::shared_ptr<EWS_Graph_Mailbox_Cache>& cache, int transfer_timeout)
  : session_(session),
    base_path_(base_path),
    cache_(cache ? cache : std::make_shared<EWS_Graph_Mailbox_Cache>()),
    transfer_timeout_(transfer_timeout > 0 ? transfer_timeout : 300)
{
  while (!base_path_.empty() && base_path_.back() == '/')
    base_path_.pop_back();
  URI origin;
  if (session_ && URI_Parser::parse(session_->base_url().c_str(), origin))
    session_origin_ = origin.origin();
}

std::unique_ptr<EWS_Transport> EWS_Graph_Transport::make_sibling() const
{
  return make_sibling_with(sibling_maker_, mailbox_, credentials_);
}

EWS_Transport_Limits EWS_Graph_Transport::limits() const
{
  EWS_Transport_Limits l;
  l.max_page_size = 1000;
  l.max_export_items = max_export_ids;
  // The import URL takes one item per request.
  l.max_upload_items = 1;
  l.max_request_bytes = max_request_bytes;
  // Outlook's limits per application and mailbox: 4 requests at once, 10 000
  // per 10 minutes.
  l.max_concurrent_requests = 4;
  l.max_requests_per_window = 10000;
  l.request_window_seconds = 600;
  return l;
}

void EWS_Graph_Transport::set_mailbox(const EWS_Mailbox& mailbox)
{
  if (mailbox.name != mailbox_.name || mailbox.form != mailbox_.form)
    mailbox_id_.clear();
  mailbox_ = mailbox;
}

bool EWS_Graph_Transport::is_unknown_mailbox(const Host_Status& status) const
{
  return status.code == EWS_Graph_Status::unknown_mailbox;
}

bool EWS_Graph_Transport::is_folder_exists(const Host_Status& status) const
{
  return EWS_Graph_Status::is_folder_exists(status);
}

long EWS_Graph_Transport::timeout_for(long long bytes) const
{
  // At least 256 KiB/s on top of the time a request without items may take.
  return transfer_timeout_ + static_cast<long>(bytes / (256 * 1024));
}

Host_Status EWS_Graph_Transport::call(HTTP_Session& session, HTTP_Request& http, nlohmann::ordered_json& answer,
                                      bool authorized, long long bytes)
{
  outcome_unknown_ = false;
  if (authorized && !credentials_.bearer_token.empty())
    http.headers().put("Authorization", "Bearer " + credentials_.bearer_token);
  http.headers().put("Accept", "application/json");
  http.transfer_timeout(timeout_for(bytes));
  std::string body;
  bool cancelled = false;
  HTTP_Response response;
  response.set_body_sink(
    [&](const char* data, size_t size, long)
    {
      if (cancel_check_ && cancel_check_())
      {
        cancelled = true;
        return false;
      }
      body.append(data, size);
      return true;
    });
  const bool sent = session.perform(http, response);
  http.headers().clear();
  if (cancelled)
    return Host_Status::make(HOST_STATUS_CANCELLED, "cancelled", "the request was cancelled while its answer arrived");
  if (!sent)
  {
    outcome_unknown_ = http_transport_outcome(session) == HTTP_OUTCOME_UNKNOWN;
    return http_transport_status(session);
  }
  if (response.status() < 200 || response.status() >= 300)
  {
    outcome_unknown_ = http_answer_outcome(response) == HTTP_OUTCOME_UNKNOWN;
    return EWS_Graph_Status::of_answer(response);
  }
  answer = nlohmann::ordered_json::parse(body, nullptr, false);
  if (!answer.is_object())
  {
    // The service answered 2xx: it acted on the request.
    outcome_unknown_ = true;
    return malformed_answer("an answer that is not a JSON object");
  }
  return Host_Status();
}

Host_Status EWS_Graph_Transport::get(const std::string& target, nlohmann::ordered_json& answer)
{
  if (!session_)
    return Host_Status::make(HOST_STATUS_PERMANENT, "connection", "no HTTP session to the Graph endpoint");
  const size_t mark = target.find('?');
  HTTP_Request http(HTTP_METHOD_GET, target.substr(0, mark).c_str(), true);
  if (mark != std::string::npos)
    http.query_string_buffer() = target.substr(mark + 1);
  return call(*session_, http, answer, true);
}

Host_Status EWS_Graph_Transport::post(const std::string& target, const std::string& body,
                                      nlohmann::ordered_json& answer, bool repeatable, long long bytes)
{
  if (!session_)
    return Host_Status::make(HOST_STATUS_PERMANENT, "connection", "no HTTP session to the Graph endpoint");
  HTTP_Request http(HTTP_METHOD_POST, target.c_str(), true);
  http.body() = body;
  // A creating request is repeated only by the client, which decides after a
  // failure whose outcome is open.
  http.repeatable(repeatable);
  http.headers().put("Content-Type", "application/json");
  return call(*session_, http, answer, true, bytes);
}

Host_Status EWS_Graph_Transport::resolve_mailbox(std::string& id)
{
  if (mailbox_.name.empty())
    return Host_Status::make(HOST_STATUS_PERMANENT, "no mailbox",
                             "the Graph transport acts for a named mailbox only; none was given");
  const bool smtp = mailbox_.form == EWS_MAILBOX_SMTP_ADDRESS;
  const std::string key = (smtp ? "smtp:" : "upn:") + lower(mailbox_.name);
  if (cache_->find_id(key, id))
    return Host_Status();
  const std::string users = base_path_ + "/v1.0/users/";
  std::string user = mailbox_.name;
  nlohmann::ordered_json answer;
  if (smtp)
  {
    // /users/{id} takes an object id or a principal name: an address, primary
    // or proxy, is looked up first.
    const std::string address = odata_literal(mailbox_.name);
    std::string filter;
    http_encode_string_i(("mail eq '" + address + "' or proxyAddresses/any(p:p eq 'smtp:" + address + "')").c_str(),
                         HTTP_ENCODE_MODE_QUERY_COMPONENT, filter);
    Host_Status found = get(base_path_ + "/v1.0/users?$select=id&$filter=" + filter, answer);
    if (!found.ok())
      return found;
    const nlohmann::ordered_json* value = array_of(answer, "value");
    if (value == nullptr)
      return malformed_answer("a users answer without a \"value\" array");
    if (value->empty() || !(*value)[0].is_object() || !(*value)[0].value("id", "").size())
      return Host_Status::make(HOST_STATUS_PERMANENT, EWS_Graph_Status::unknown_mailbox,
                               "no user has the SMTP address '" + mailbox_.name + "'");
    user = (*value)[0]["id"].get<std::string>();
  }
  Host_Status status = get(users + segment(user) + "/settings/exchange", answer);
  if (status.kind == HOST_STATUS_PERMANENT && status.code != "connection" &&
      (status.code.find("ResourceNotFound") != std::string::npos || status.code == "HTTP 404"))
    return Host_Status::make(HOST_STATUS_PERMANENT, EWS_Graph_Status::unknown_mailbox,
                             "no user has the principal name '" + mailbox_.name + "' (" + status.text() + ")");
  if (!status.ok())
    return status;
  id = answer.value("primaryMailboxId", "");
  if (id.empty())
    return Host_Status::make(HOST_STATUS_PERMANENT, EWS_Graph_Status::unknown_mailbox,
                             "user '" + mailbox_.name + "' has no Exchange mailbox");
  cache_->put_id(key, id);
  return Host_Status();
}

Host_Status EWS_Graph_Transport::mailbox_path(std::string& path)
{
  if (mailbox_id_.empty())
  {
    const Host_Status status = resolve_mailbox(mailbox_id_);
    if (!status.ok())
      return status;
  }
  path = base_path_ + "/v1.0/admin/exchange/mailboxes/" + segment(mailbox_id_);
  return Host_Status();
}

std::string EWS_Graph_Transport::children_path(const std::string& mailbox, const EWS_Folder_Ref& parent) const
{
  if (!parent.id.empty())
    return mailbox + "/folders/" + segment(parent.id) + "/childFolders";
  const char* well_known = EWS_Graph_Shapes::well_known_name(parent.distinguished);
  // The folders collection holds the folders right below the message folder root.
  return well_known ? mailbox + "/folders/" + well_known + "/childFolders" : mailbox + "/folders";
}

Host_Status EWS_Graph_Transport::list_page(const std::string& path, const std::string& link, long skip, int max,
                                           nlohmann::ordered_json& answer, std::string& next_link, const char* options)
{
  std::string target;
  if (!link.empty())
  {
    // A next link is followed verbatim, on the same server only: it must not
    // carry the token elsewhere.
    URI uri;
    if (!URI_Parser::parse(link.c_str(), uri) || uri.origin() != session_origin_)
      return Host_Status::make(HOST_STATUS_PERMANENT, "malformed answer",
                               "a next link that does not lead to the Graph endpoint");
    target = uri.path() + (uri.query().empty() ? std::string() : "?" + uri.query());
  }
  else
  {
    target = path + "?$top=" + std::to_string(max);
    if (skip > 0)
      target += "&$skip=" + std::to_string(skip);
    if (options != nullptr && *options != '\0')
      target += std::string("&") + options;
  }
  const Host_Status status = get(target, answer);
  if (!status.ok())
    return status;
  if (array_of(answer, "value") == nullptr)
    return malformed_answer("a listing answer without a \"value\" array");
  next_link = next_link_of(answer);
  return status;
}

Host_Status EWS_Graph_Transport::find_folders(const EWS_Folder_Ref& parent, bool deep, const EWS_Page_Cursor& at,
                                              int max, EWS_Folder_Page& page)
{
  std::string mailbox;
  Host_Status status = mailbox_path(mailbox);
  if (!status.ok())
    return status;
  if (deep)
    return find_folders_deep(mailbox, parent, at, max, page);
  nlohmann::ordered_json answer;
  std::string link;
  status = list_page(children_path(mailbox, parent), at.next_link, at.offset, max, answer, link);
  if (!status.ok())
    return status;
  for (const auto& json : answer["value"])
  {
    EWS_Folder folder;
    std::string parent_id;
    if (!EWS_Graph_Shapes::read_folder(json, folder, parent_id))
      return malformed_answer("a folder without an id");
    if (page.folders.size() == static_cast<size_t>(max))
    {
      // A next link asked for more than this call wants: the rest is read
      // again from its position, so that nothing is skipped.
      page.next = EWS_Page_Cursor::at(at.offset + max);
      page.last = false;
      return status;
    }
    page.folders.push_back(folder);
    page.parent_ids.push_back(parent_id);
  }
  page.next = EWS_Page_Cursor::at(at.offset + static_cast<long>(page.folders.size()));
  page.next.next_link = link;
  page.last = link.empty();
  return status;
}

Host_Status EWS_Graph_Transport::find_folders_deep(const std::string& mailbox, const EWS_Folder_Ref& parent,
                                                   const EWS_Page_Cursor& at, int max, EWS_Folder_Page& page)
{
  Walk walk;
  if (!at.next_link.empty() && !walk.decode(at.next_link))
    return Host_Status::make(HOST_STATUS_PERMANENT, "cursor", "a deep folder listing cursor that cannot be read");
  if (at.next_link.empty())
    walk.skip = at.offset;
  EWS_Folder_Ref listed = parent;
  if (!walk.current.empty())
  {
    listed = EWS_Folder_Ref();
    listed.id = walk.current;
  }
  nlohmann::ordered_json answer;
  std::string link;
  const Host_Status status = list_page(children_path(mailbox, listed), walk.link, walk.skip, max, answer, link);
  if (!status.ok())
    return status;
  for (const auto& json : answer["value"])
  {
    EWS_Folder folder;
    std::string parent_id;
    if (!EWS_Graph_Shapes::read_folder(json, folder, parent_id))
      return malformed_answer("a folder without an id");
    if (parent_id.empty())
      parent_id = walk.current;
    // A folder that says it has no subfolders is not listed again.
    if (!folder.subfolders_counted || folder.subfolders_count > 0)
      walk.queue.push_back(folder.id);
    page.folders.push_back(folder);
    page.parent_ids.push_back(parent_id);
  }
  walk.skip += static_cast<long>(answer["value"].size());
  walk.link = link;
  if (link.empty())
  {
    if (walk.queue.empty())
    {
      page.last = true;
      page.next = at;
      return status;
    }
    walk.current = walk.queue.front();
    walk.queue.erase(walk.queue.begin());
    walk.skip = 0;
  }
  page.last = false;
  page.next.next_link = walk.encode();
  return status;
}

Host_Status EWS_Graph_Transport::find_items(const std::string& folder_id, const EWS_Page_Cursor& at, int max,
                                            EWS_Item_Page& page)
{
  std::string mailbox;
  Host_Status status = mailbox_path(mailbox);
  if (!status.ok())
    return status;
  nlohmann::ordered_json answer;
  std::string link;
  // A mailboxItem has no subject property; the subject (PidTagSubject, a
  // string property with tag 0x0037) comes as an expanded single-value
  // extended property. The next link carries the option on.
  static const char subject_option[] =
    "$expand=singleValueExtendedProperties(%24filter%3Did%20eq%20%27String%200x0037%27)";
  status = list_page(mailbox + "/folders/" + segment(folder_id) + "/items", at.next_link, at.offset, max, answer, link,
                     subject_option);
  if (!status.ok())
    return status;
  for (const auto& json : answer["value"])
  {
    EWS_Item item;
    if (!EWS_Graph_Shapes::read_item(json, item))
      return malformed_answer("an item without an id");
    if (page.items.size() == static_cast<size_t>(max))
    {
      page.next = EWS_Page_Cursor::at(at.offset + max);
      page.last = false;
      return status;
    }
    page.items.push_back(item);
  }
  page.next = EWS_Page_Cursor::at(at.offset + static_cast<long>(page.items.size()));
  page.next.next_link = link;
  page.last = link.empty();
  return status;
}

Host_Status EWS_Graph_Transport::export_items(const std::vector<EWS_Export_Request*>& requests)
{
  std::string mailbox;
  Host_Status status = mailbox_path(mailbox);
  if (!status.ok())
    return status;
  nlohmann::ordered_json body;
  body["itemIds"] = nlohmann::ordered_json::array();
  long long expected = 0;
  for (const EWS_Export_Request* r : requests)
  {
    body["itemIds"].push_back(r->id);
    expected += r->size > 0 ? r->size : 0;
  }
  nlohmann::ordered_json answer;
  status = post(mailbox + "/exportItems", body.dump(), answer, true, expected / 3 * 4);
  if (!status.ok())
    return status;
  const nlohmann::ordered_json* value = array_of(answer, "value");
  if (value == nullptr)
    return malformed_answer("an exportItems answer without a \"value\" array");
  size_t answered = 0;
  std::vector<bool> taken(requests.size(), false);
  for (size_t i = 0; i < value->size(); ++i)
  {
    const nlohmann::ordered_json& element = (*value)[i];
    const std::string id = element.is_object() ? element.value("itemId", "") : std::string();
    // Elements name their item (the first request of that id not yet answered);
    // one without a name stands at its request's place.
    size_t k = requests.size();
    for (size_t j = 0; j < requests.size() && k == requests.size(); ++j)
      if (!taken[j] && !id.empty() && requests[j]->id == id)
        k = j;
    if (k == requests.size() && id.empty() && i < requests.size() && !taken[i])
      k = i;
    if (k == requests.size())
      continue;
    taken[k] = true;
    EWS_Export_Request* request = requests[k];
    ++answered;
    const nlohmann::ordered_json* error = EWS_Graph_Status::member(element, "error");
    const nlohmann::ordered_json* data = EWS_Graph_Status::member(element, "data");
    if (error && error->is_object())
      request->status = EWS_Graph_Status::of_item_error(*error);
    else if (data == nullptr || !data->is_string())
      request->status = Host_Status::make(HOST_STATUS_PERMANENT, "no data", "the item was answered without data");
    else
    {
      const std::string& text = data->get_ref<const std::string&>();
      if (EWS_b64_Data::decode(text.data(), text.size(), request->data))
        request->status = Host_Status();
      else
      {
        request->data = EWS_b64_Data();
        request->status =
          Host_Status::make(HOST_STATUS_PERMANENT, "undecodable data", "the item's exported data is not base64");
      }
    }
  }
  if (answered < requests.size())
    return malformed_answer("exportItems answered " + std::to_string(answered) + " of " +
                            std::to_string(requests.size()) + " items");
  return Host_Status();
}

Host_Status EWS_Graph_Transport::create_folder(const EWS_Folder_Ref& parent, EWS_Folder_Creation_Request& request)
{
  std::string mailbox;
  Host_Status status = mailbox_path(mailbox);
  if (!status.ok())
    return status;
  nlohmann::ordered_json body;
  body["displayName"] = request.display_name;
  body["type"] = EWS_Graph_Shapes::folder_class_of(request.type);
  nlohmann::ordered_json answer;
  status = post(children_path(mailbox, parent), body.dump(), answer, false);
  if (!status.ok())
    return status;
  EWS_Folder folder;
  std::string parent_id;
  if (!EWS_Graph_Shapes::read_folder(answer, folder, parent_id))
    return Host_Status::make(HOST_STATUS_PERMANENT, "malformed answer", "a created folder answered without an id");
  request.id = folder.id;
  request.change_key.clear();
  return status;
}

Host_Status EWS_Graph_Transport::import_session(const std::string& mailbox,
                                                EWS_Graph_Mailbox_Cache::Import_Session& session)
{
  if (cache_->find_session(mailbox_id_, std::time(nullptr), session))
    return Host_Status();
  nlohmann::ordered_json answer;
  const Host_Status status = post(mailbox + "/createImportSession", std::string(), answer, true);
  if (!status.ok())
    return status;
  session.url = answer.value("importUrl", "");
  const std::string expires = answer.value("expirationDateTime", "");
  session.expires = ews_xml::parse_time(expires.c_str());
  if (session.url.empty())
    return malformed_answer("an import session without an importUrl");
  // Without a readable expiry the session is used for a few minutes only.
  if (session.expires <= 0)
    session.expires = std::time(nullptr) + EWS_Graph_Mailbox_Cache::session_margin + 300;
  cache_->put_session(mailbox_id_, session);
  return status;
}

Host_Status EWS_Graph_Transport::import_item(const std::string& mailbox, const std::string& folder_id,
                                             const ustring& data, EWS_Upload_Result& result)
{
  for (int attempt = 0;; ++attempt)
  {
    EWS_Graph_Mailbox_Cache::Import_Session session;
    Host_Status status = import_session(mailbox, session);
    if (!status.ok())
      return status;
    URI uri;
    if (!URI_Parser::parse(session.url.c_str(), uri))
      return Host_Status::make(HOST_STATUS_PERMANENT, "malformed answer", "an import URL that is not a URL");
    if (!import_server_ || import_origin_ != uri.origin())
    {
      HTTP_Session_Factory::Session_Options options;
      options.transfer_timeout = transfer_timeout_;
      std::string error;
      import_server_ = HTTP_Session_Factory::create(uri, options, error);
      import_origin_ = uri.origin();
      if (!import_server_)
        return Host_Status::make(HOST_STATUS_PERMANENT, "connection", "no connection to the import server: " + error);
    }
    nlohmann::ordered_json body;
    body["FolderId"] = folder_id;
    body["Mode"] = "create";
    body["Data"] = EWS_b64_Data::encode(data.data(), data.size());
    HTTP_Request http(HTTP_METHOD_POST, uri.path().c_str(), true);
    http.query_string_buffer() = uri.query();
    http.body() = body.dump();
    http.repeatable(false);
    http.headers().put("Content-Type", "application/json");
    // The URL authenticates the request: no Authorization header goes with it.
    nlohmann::ordered_json answer;
    status = call(*import_server_, http, answer, false, static_cast<long long>(data.size()) / 3 * 4);
    // Should the service quote the request back, its token stays out of the status.
    hide(status.message, uri.query());
    const bool refused = status.kind == HOST_STATUS_UNAUTHORIZED || status.code == "HTTP 403";
    if (refused)
    {
      // An expired or revoked session: a new one, once per item.
      cache_->drop_session(mailbox_id_, session.url);
      if (attempt == 0)
        continue;
      return Host_Status::make(HOST_STATUS_TRANSIENT, status.code,
                               "the import session was refused twice: " + status.message);
    }
    if (!status.ok())
      return status;
    result.id = answer.value("itemId", "");
    if (result.id.empty())
    {
      outcome_unknown_ = true;
      return malformed_answer("an import answered without an itemId");
    }
    return status;
  }
}

Host_Status EWS_Graph_Transport::upload_items(const std::string& parent_id, const std::vector<const ustring*>& items,
                                              std::vector<EWS_Upload_Result>& results)
{
  std::string mailbox;
  const Host_Status resolved = mailbox_path(mailbox);
  if (!resolved.ok())
    return resolved;
  std::vector<EWS_Upload_Result> done(items.size());
  for (size_t i = 0; i < items.size(); ++i)
  {
    const Host_Status status = import_item(mailbox, parent_id, *items[i], done[i]);
    if (status.ok())
      continue;
    // The request as a whole failed before any item was taken: the client decides.
    if (i == 0 && (status.retryable() || status.kind == HOST_STATUS_UNAUTHORIZED ||
                   status.kind == HOST_STATUS_CANCELLED || outcome_unknown_))
      return status;
    if (outcome_unknown_)
      done[i].status = Host_Status::make(HOST_STATUS_PERMANENT, "outcome unknown",
                                         "the answer to the import was lost (" + status.text() + ")");
    else
      done[i].status = status;
    // The items after one that failed for a passing reason are sent again later.
    if (status.retryable() || outcome_unknown_)
    {
      for (size_t k = i + 1; k < items.size(); ++k)
        done[k].status = status;
      break;
    }
  }
  outcome_unknown_ = false;
  results = done;
  return Host_Status();
}
