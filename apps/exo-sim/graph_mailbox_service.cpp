#include "apps/exo-sim/graph_mailbox_service.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <limits>
#include <thread>

#include "apps/exo-sim/ascii_case.h"
#include "apps/exo-sim/url_encode.h"
#include "apps/exo-sim/base64_codec.h"
#include "apps/exo-sim/graph_ids.h"
#include "apps/exo-sim/graph_service.h"
#include "apps/exo-sim/odata_filter.h"
#include "apps/exo-sim/sim_hash.h"

namespace exo_sim
{

namespace
{

const int k_default_page = 10;  // Outlook's default page size
const int k_max_page = 1000;    // a larger $top gives pages of this size
const size_t k_max_export_ids = 20;
const char* const k_graph_root = "https://graph.microsoft.com/v1.0/";

// Path segments; an OData key segment `folders('id')` (the form of Graph's next links) counts as
// the two segments `folders` and `id`.
std::vector<std::string> split_path(const std::string& s)
{
  std::vector<std::string> out;
  size_t pos = 0;
  while (pos <= s.size())
  {
    size_t slash = s.find('/', pos);
    std::string segment = s.substr(pos, slash == std::string::npos ? std::string::npos : slash - pos);
    size_t open = segment.find("('");
    if (open != std::string::npos && segment.size() > open + 3 && segment.compare(segment.size() - 2, 2, "')") == 0)
    {
      out.push_back(segment.substr(0, open));
      segment = segment.substr(open + 2, segment.size() - open - 4);
    }
    out.push_back(segment);
    if (slash == std::string::npos)
      break;
    pos = slash + 1;
  }
  if (!out.empty() && out.back().empty())
    out.pop_back();  // a trailing slash
  return out;
}

std::string iso_time(int64_t seconds)
{
  std::time_t t = static_cast<std::time_t>(seconds);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char when[32];
  std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return when;
}

nlohmann::ordered_json null_if_empty(const std::string& s)
{
  return s.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(s);
}

bool parse_count(const std::string& text, int& out)
{
  if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos)
    return false;
  out = std::stoi(text);
  return true;
}

// The OData query options of a listing.
struct Paging
{
  int top = k_default_page;
  int skip = 0;
  bool count = false;
  bool include_hidden = false;
  std::string filter;
  std::vector<std::string> select;
  bool expand_subject = false;  // $expand of the PidTagSubject extended property (items only)
  std::vector<std::pair<std::string, std::string>> carried;  // every option but $skip, for the next link
};

// False with `why` when a folder call asks for the item subject expansion.
bool no_expansion(const Paging& p, std::string& why)
{
  if (p.expand_subject)
    why = "The query option '$expand' is not supported by exo-sim for folders.";
  return !p.expand_subject;
}

// True for `$expand=singleValueExtendedProperties($filter=id eq 'String 0x0037')`, the
// one expansion the simulator answers (an item's subject), however it is spaced,
// parenthesised or cased, and with the tag as "0x37" or "0x0037".
bool is_subject_expansion(const std::string& value)
{
  std::string v;
  for (char c : ascii_lower(value))
    if (c != ' ' && c != '(' && c != ')')
      v += c;
  const std::string head = "singlevalueextendedproperties$filter=ideq'string0x";
  if (v.compare(0, head.size(), head) != 0 || v.back() != '\'')
    return false;
  const std::string tag = v.substr(head.size(), v.size() - head.size() - 1);
  return tag == "37" || tag == "037" || tag == "0037";
}

// False with `why` for a bad value or an option the simulator does not evaluate ($orderby,
// $expand, $search): answering those unordered or unfiltered would hand a client wrong data.
bool parse_paging(const std::vector<std::pair<std::string, std::string>>& params, Paging& p, std::string& why)
{
  for (const auto& kv : params)
  {
    std::string key = ascii_lower(kv.first);
    if (key != "$skip")
      p.carried.push_back(kv);
    if (key == "$top")
    {
      if (!parse_count(kv.second, p.top) || p.top < 1)
      {
        why = "Invalid value '" + kv.second + "' for query option $top.";
        return false;
      }
      p.top = std::min(p.top, k_max_page);
    }
    else if (key == "$skip")
    {
      if (!parse_count(kv.second, p.skip))
      {
        why = "Invalid value '" + kv.second + "' for query option $skip.";
        return false;
      }
    }
    else if (key == "$count")
    {
      if (kv.second != "true" && kv.second != "false")
      {
        why = "Invalid value '" + kv.second + "' for query option $count.";
        return false;
      }
      p.count = kv.second == "true";
    }
    else if (key == "$select")
    {
      size_t pos = 0;
      while (pos <= kv.second.size())
      {
        size_t comma = kv.second.find(',', pos);
        std::string name = kv.second.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
        name.erase(0, name.find_first_not_of(' '));
        name.erase(name.find_last_not_of(' ') + 1);
        if (!name.empty())
          p.select.push_back(name);
        if (comma == std::string::npos)
          break;
        pos = comma + 1;
      }
    }
    else if (key == "includehiddenfolders")
    {
      p.include_hidden = ascii_lower(kv.second) == "true";
    }
    else if (key == "$filter")
    {
      p.filter = kv.second;
    }
    else if (key == "$expand" && is_subject_expansion(kv.second))
    {
      p.expand_subject = true;
    }
    else if (key == "$orderby" || key == "$expand" || key == "$search")
    {
      why = "The query option '" + kv.first + "' is not supported by exo-sim.";
      return false;
    }
  }
  return true;
}

// Keeps the selected properties (unknown names are ignored), plus `id`, the annotations and (as in
// Microsoft's examples) a folder's `parentMailboxUrl`.
nlohmann::ordered_json apply_select(const nlohmann::ordered_json& object, const std::vector<std::string>& select)
{
  if (select.empty())
    return object;
  nlohmann::ordered_json out = nlohmann::ordered_json::object();
  for (auto it = object.begin(); it != object.end(); ++it)
  {
    const std::string& key = it.key();
    bool wanted = key == "id" || key == "parentMailboxUrl" || key.rfind("@odata.", 0) == 0 ||
                  std::any_of(select.begin(), select.end(),
                              [&](const std::string& s) { return ascii_lower(s) == ascii_lower(key); });
    if (wanted)
      out[key] = it.value();
  }
  return out;
}

// A single entity's body: its @odata.context, then its properties.
nlohmann::ordered_json entity(const std::string& context, const nlohmann::ordered_json& properties)
{
  nlohmann::ordered_json out;
  out["@odata.context"] = context;
  for (auto it = properties.begin(); it != properties.end(); ++it)
    out[it.key()] = it.value();
  return out;
}

// The operation a mailbox call names, for the counters and the request log.
std::string op_name(const std::string& method, const std::vector<std::string>& s)
{
  std::string first = s.size() > 1 ? ascii_lower(s[1]) : "", last = s.size() > 2 ? ascii_lower(s.back()) : "";
  if (first == "exportitems")
    return "exportItems";
  if (first == "createimportsession")
    return "createImportSession";
  if (first != "folders")
    return "mailboxes";
  if (s.size() == 2)
    return method == "POST" ? "createFolder" : "listFolders";
  if (s.size() == 3)
    return "getFolder";
  if (last == "childfolders")
    return method == "POST" ? "createFolder" : "listChildFolders";
  return last == "items" ? "listItems" : "mailboxes";
}

// `path` is the listing's path from /v1.0 on, in the key-segment form Graph's next links use.
std::string next_link(const Graph_Mailbox_Request& request, const std::string& path, const Paging& p, int skip)
{
  std::string link = "http://" + request.host + path + "?";
  for (const auto& kv : p.carried)
    link += url_encode(kv.first, ",") + "=" + url_encode(kv.second, ",") + "&";
  return link + "%24skip=" + std::to_string(skip);
}

}  // namespace

Graph_Mailbox_Service::Graph_Mailbox_Service(Mailbox_Store& store, Token_Service& tokens, Fault_Injector& faults,
                                             Sim_Stats& stats, int import_session_lifetime)
  : store_(store), tokens_(tokens), faults_(faults), stats_(stats), sessions_(import_session_lifetime)
{
}

std::string Graph_Mailbox_Service::mailbox_id(int mailbox) const
{
  // A bijection of the mailbox index on 32 bits (add, multiply by an odd number, xor-shift), so no
  // two mailboxes share an id, keyed by the seed.
  uint32_t a = uint32_t(mailbox) + uint32_t(mix64(store_.seed(), 0x4d4258));
  a = (a ^ (a >> 16)) * 0x85ebca6bU;
  a = (a ^ (a >> 13)) * 0xc2b2ae35U;
  a ^= a >> 16;
  unsigned b = unsigned(hash_text(store_.tenant().tenant_id) & 0xffffffffULL);
  char id[32];
  std::snprintf(id, sizeof id, "MBX:%08x@%08x", unsigned(a), b);
  return id;
}

int Graph_Mailbox_Service::find_mailbox_id(const std::string& id) const
{
  std::string want = ascii_lower(id);
  for (int m = 0; m < store_.mailbox_count(); ++m)
    if (ascii_lower(mailbox_id(m)) == want)
      return m;
  return -1;
}

Sim_Reply Graph_Mailbox_Service::error(const Call& call, int status, const std::string& code,
                                       const std::string& message) const
{
  return Graph_Service::error(status, code, message, call.request->client_request_id);
}

std::string Graph_Mailbox_Service::context(const Call& call, const std::string& tail) const
{
  return std::string(k_graph_root) + "$metadata#admin/exchange/mailboxes/" + mailbox_id(call.mailbox) + tail;
}

std::string Graph_Mailbox_Service::mailbox_url(const Call& call) const
{
  return "http://" + call.request->host + "/v1.0/admin/exchange/mailboxes/" + mailbox_id(call.mailbox);
}

nlohmann::ordered_json Graph_Mailbox_Service::folder_json(const Call& call, const Folder_View& v) const
{
  nlohmann::ordered_json j;
  j["@odata.type"] = "#microsoft.graph.mailboxFolder";
  j["id"] = graph_id_from_ews(v.id);
  j["displayName"] = v.name;
  j["parentFolderId"] = null_if_empty(v.parent_id.empty() ? "" : graph_id_from_ews(v.parent_id));
  j["parentMailboxUrl"] = mailbox_url(call);
  j["childFolderCount"] = v.child_count;
  j["totalItemCount"] = v.total_count;
  j["wellKnownName"] = null_if_empty(v.well_known);
  j["type"] = null_if_empty(v.folder_class);
  return j;
}

nlohmann::ordered_json Graph_Mailbox_Service::item_json(const Item_View& v, bool with_subject) const
{
  nlohmann::ordered_json j;
  j["@odata.type"] = "#microsoft.graph.mailboxItem";
  j["@odata.etag"] = "W/\"" + v.change_key + "\"";
  j["id"] = graph_id_from_ews(v.id);
  j["createdDateTime"] = iso_time(v.meta.created);
  j["lastModifiedDateTime"] = iso_time(v.meta.modified);
  j["changeKey"] = v.change_key;
  j["categories"] = nlohmann::ordered_json::array();
  j["type"] = v.meta.item_class;
  j["size"] = v.meta.size;
  // An expanded extended property that the item does not have is left out, as Graph does.
  if (with_subject && !v.meta.subject.empty())
    j["singleValueExtendedProperties"] =
      nlohmann::ordered_json::array({nlohmann::ordered_json{{"id", "String 0x37"}, {"value", v.meta.subject}}});
  return j;
}

Sim_Reply Graph_Mailbox_Service::exchange_settings(const Graph_Mailbox_Request& request, const std::string& user)
{
  Sim_Reply r = settings_call(request, user);
  r.op = "exchangeSettings";
  return r;
}

Sim_Reply Graph_Mailbox_Service::settings_call(const Graph_Mailbox_Request& request, const std::string& user)
{
  Call call;
  call.request = &request;
  std::string reason;
  if (!tokens_.check(request.authorization, k_audience_graph, reason))
    return Graph_Service::unauthorized(reason, request.client_request_id);
  int m = store_.find_mailbox(user, Address_Form::principal_name);
  for (int k = 0; m < 0 && k < store_.mailbox_count(); ++k)
    if (ascii_lower(store_.graph_user(k)["id"].get<std::string>()) == ascii_lower(user))
      m = k;
  if (m < 0)
    return error(call, 404, "Request_ResourceNotFound",
                 "Resource '" + user +
                   "' does not exist or one of its queried reference-property objects are not "
                   "present.");
  nlohmann::ordered_json j;
  j["@odata.context"] =
    std::string(k_graph_root) + "$metadata#users('" + url_encode(user, ",") + "')/settings/exchange/$entity";
  j["primaryMailboxId"] = mailbox_id(m);
  Sim_Reply r;
  r.body = j.dump();
  r.mailbox = store_.mailbox_smtp(m);
  return r;
}

template <typename Work_T_>
Sim_Reply Graph_Mailbox_Service::in_slot(const Call& call, Work_T_ work)
{
  Fault_Settings settings = faults_.settings();
  std::string smtp = store_.mailbox_smtp(call.mailbox);
  int in_flight = 0;
  if (!gate_.enter(smtp, settings.graph_max_concurrency, in_flight))
  {
    stats_.count("faults.graph_concurrency");
    Sim_Reply r = error(call, 429, "ApplicationThrottled", "Application is over its MailboxConcurrency limit.");
    r.headers.push_back({"Retry-After", std::to_string(settings.retry_after)});
    return r;
  }
  stats_.raise("graph_concurrency_high_water." + smtp, in_flight);
  Sim_Reply r;
  try
  {
    if (settings.latency_ms > 0)
      std::this_thread::sleep_for(std::chrono::milliseconds(settings.latency_ms));
    r = work();
  }
  catch (...)
  {
    gate_.leave(smtp);
    throw;
  }
  gate_.leave(smtp);
  if (r.status < 300 && faults_.roll("graph_drop", settings.graph_drop_rate))
  {
    stats_.count("faults.graph_drop");
    r.drop = true;
  }
  return r;
}

Sim_Reply Graph_Mailbox_Service::mailboxes(const Graph_Mailbox_Request& request, const std::string& rest)
{
  std::vector<std::string> segments = split_path(rest);
  Sim_Reply r = mailbox_call(request, segments);
  r.op = op_name(request.method, segments);
  return r;
}

std::string Graph_Mailbox_Service::operation(const std::string& method, const std::string& rest)
{
  return op_name(method, split_path(rest));
}

Sim_Reply Graph_Mailbox_Service::mailbox_call(const Graph_Mailbox_Request& request,
                                              const std::vector<std::string>& segments)
{
  Call call;
  call.request = &request;
  std::string reason;
  if (!tokens_.check(request.authorization, k_audience_graph, reason))
    return Graph_Service::unauthorized(reason, request.client_request_id);
  if (segments.empty())
    return error(call, 400, "BadRequest", "Resource not found for the segment 'mailboxes'.");
  call.mailbox = find_mailbox_id(segments[0]);
  if (call.mailbox < 0)
    return error(call, 404, "ErrorInvalidMailbox", "The mailbox '" + segments[0] + "' was not found.");
  call.segments.assign(segments.begin() + 1, segments.end());
  Sim_Reply r = in_slot(call, [&] { return route(call); });
  r.mailbox = store_.mailbox_smtp(call.mailbox);
  return r;
}

Sim_Reply Graph_Mailbox_Service::route(Call& call)
{
  const auto& s = call.segments;
  const std::string& method = call.request->method;
  std::string first = s.empty() ? "" : ascii_lower(s[0]);
  bool get = method == "GET", post = method == "POST";
  if (first == "exportitems" && s.size() == 1 && post)
    return export_items(call);
  if (first == "createimportsession" && s.size() == 1 && post)
    return create_import_session(call);
  if (first == "folders")
  {
    int msgroot = 0;
    if (s.size() == 1)
    {
      if (!store_.resolve_distinguished(call.mailbox, "msgfolderroot", msgroot))
        return error(call, 404, "ErrorItemNotFound", "The specified object was not found in the store.");
      if (get)
        return list_folders(call, msgroot);
      if (post)
        return create_folder(call, msgroot);
    }
    else if (s.size() <= 3)
    {
      Sim_Reply r;
      int folder = 0;
      std::string sub = s.size() == 3 ? ascii_lower(s[2]) : "";
      bool known = sub.empty() || sub == "childfolders" || sub == "items";
      if (known && !resolve_folder(call, s[1], folder, r))
        return r;
      if (sub.empty() && get)
        return get_folder(call, folder);
      if (sub == "childfolders" && get)
        return list_folders(call, folder);
      if (sub == "childfolders" && post)
        return create_folder(call, folder);
      if (sub == "items" && get)
        return list_items(call, folder);
      if (known)
        return error(call, 405, "BadRequest", "The HTTP method '" + method + "' is not allowed for this resource.");
    }
  }
  std::string last = s.empty() ? "mailboxes" : s.back();
  return error(call, 400, "BadRequest", "Resource not found for the segment '" + last + "'.");
}

bool Graph_Mailbox_Service::resolve_folder(const Call& call, const std::string& folder_id, int& folder,
                                           Sim_Reply& reply)
{
  std::string ews_id;
  if (ews_id_from_graph(folder_id, ews_id))
  {
    Lookup l = store_.resolve_folder_id(call.mailbox, ews_id, folder);
    if (l == Lookup::ok)
      return true;
    reply = l == Lookup::malformed
              ? error(call, 400, "ErrorInvalidIdMalformed", "Id is malformed.")
              : error(call, 404, "ErrorItemNotFound", "The specified object was not found in the store.");
    return false;
  }
  if (store_.resolve_distinguished(call.mailbox, ascii_lower(folder_id), folder))
    return true;
  reply = error(call, 400, "ErrorInvalidIdMalformed", "Id is malformed.");
  return false;
}

Sim_Reply Graph_Mailbox_Service::list_folders(const Call& call, int parent)
{
  Paging p;
  Odata_Filter filter;
  std::string why;
  if (!parse_paging(call.request->params, p, why) || !no_expansion(p, why) ||
      (!p.filter.empty() &&
       !filter.parse(
         p.filter,
         {"id", "displayName", "parentFolderId", "childFolderCount", "totalItemCount", "wellKnownName", "type"}, why)))
    return error(call, 400, "BadRequest", why);
  std::vector<nlohmann::ordered_json> folders;
  for (const auto& f : store_.list_folders(call.mailbox, parent, false))
  {
    nlohmann::ordered_json j = folder_json(call, f);
    if ((p.include_hidden || !f.hidden) && filter.matches(j))
      folders.push_back(std::move(j));
  }
  bool top_level = call.segments.size() == 1;
  std::string tail = top_level ? "/folders" : "/folders('" + call.segments[1] + "')/childFolders";
  nlohmann::ordered_json out;
  out["@odata.context"] = context(call, tail);
  if (p.count)
    out["@odata.count"] = folders.size();
  int total = int(folders.size());
  int end = int(std::min<long>(total, long(p.skip) + p.top));
  if (end < total)
    out["@odata.nextLink"] =
      next_link(*call.request, "/v1.0/admin/exchange/mailboxes/" + mailbox_id(call.mailbox) + tail, p, end);
  out["value"] = nlohmann::ordered_json::array();
  for (int k = p.skip; k < end; ++k)
    out["value"].push_back(apply_select(folders[size_t(k)], p.select));
  Sim_Reply r;
  r.body = out.dump();
  r.items = std::max(0, end - p.skip);
  return r;
}

Sim_Reply Graph_Mailbox_Service::get_folder(const Call& call, int folder)
{
  Paging p;
  std::string why;
  if (!parse_paging(call.request->params, p, why) || !no_expansion(p, why))
    return error(call, 400, "BadRequest", why);
  nlohmann::ordered_json out = entity(context(call, "/folders/$entity"),
                                      apply_select(folder_json(call, store_.folder(call.mailbox, folder)), p.select));
  Sim_Reply r;
  r.body = out.dump();
  return r;
}

Sim_Reply Graph_Mailbox_Service::list_items(const Call& call, int folder)
{
  Paging p;
  Odata_Filter filter;
  std::string why;
  if (!parse_paging(call.request->params, p, why) ||
      (!p.filter.empty() &&
       !filter.parse(p.filter, {"id", "changeKey", "createdDateTime", "lastModifiedDateTime", "type", "size"}, why)))
    return error(call, 400, "BadRequest", why);
  int total = 0;
  std::vector<nlohmann::ordered_json> page;
  if (filter.empty())
  {
    for (const auto& v : store_.list_items(call.mailbox, folder, false, p.skip, p.top, total))
      page.push_back(item_json(v, p.expand_subject));
  }
  else
  {  // the folder's matching items, then the page of them
    std::vector<nlohmann::ordered_json> matching;
    for (const auto& v : store_.list_items(call.mailbox, folder, false, 0, std::numeric_limits<int>::max(), total))
    {
      nlohmann::ordered_json j = item_json(v, p.expand_subject);
      if (filter.matches(j))
        matching.push_back(std::move(j));
    }
    total = int(matching.size());
    for (int k = p.skip; k < total && k < p.skip + p.top; ++k)
      page.push_back(std::move(matching[size_t(k)]));
  }
  std::string tail = "/folders('" + call.segments[1] + "')/items";
  nlohmann::ordered_json out;
  out["@odata.context"] = context(call, tail);
  if (p.count)
    out["@odata.count"] = total;
  long end = long(p.skip) + long(page.size());
  if (end < total)
    out["@odata.nextLink"] =
      next_link(*call.request, "/v1.0/admin/exchange/mailboxes/" + mailbox_id(call.mailbox) + tail, p, int(end));
  out["value"] = nlohmann::ordered_json::array();
  for (const auto& j : page)
    out["value"].push_back(apply_select(j, p.select));
  stats_.count("items_found", long(page.size()));
  Sim_Reply r;
  r.body = out.dump();
  r.items = long(page.size());
  return r;
}

Sim_Reply Graph_Mailbox_Service::create_folder(const Call& call, int parent)
{
  auto body = nlohmann::ordered_json::parse(call.request->body, nullptr, false);
  if (body.is_discarded() || !body.is_object())
    return error(call, 400, "BadRequest", "The request body is not a JSON object.");
  auto text = [&](const char* key)
  { return body.contains(key) && body[key].is_string() ? body[key].get<std::string>() : std::string(); };
  std::string name = text("displayName"), type = text("type");
  if (name.empty() || type.empty())
    return error(call, 400, "ErrorInvalidRequest", "The properties 'displayName' and 'type' are required.");
  Folder_View view;
  if (!store_.create_folder(call.mailbox, parent, name, type, view))
    return error(call, 409, "ErrorFolderExists", "A folder with the specified name already exists.");
  stats_.count("folders_created");
  nlohmann::ordered_json out = entity(context(call, "/folders/$entity"), folder_json(call, view));
  Sim_Reply r;
  r.status = 201;
  r.body = out.dump();
  r.items = 1;
  return r;
}

Sim_Reply Graph_Mailbox_Service::export_items(const Call& call)
{
  auto body = nlohmann::ordered_json::parse(call.request->body, nullptr, false);
  if (body.is_discarded() || !body.is_object() || !body.contains("itemIds") || !body["itemIds"].is_array() ||
      body["itemIds"].empty())
    return error(call, 400, "ErrorInvalidRequest", "The request body must carry a non-empty 'itemIds' array.");
  const auto& ids = body["itemIds"];
  if (ids.size() > k_max_export_ids)
    return error(call, 400, "ErrorInvalidRequest",
                 "The request can export at most " + std::to_string(k_max_export_ids) + " items.");
  for (const auto& id : ids)
    if (!id.is_string())
      return error(call, 400, "ErrorInvalidRequest", "Every element of 'itemIds' must be a string.");
  Sim_Reply r;
  auto stream = std::make_shared<Export_Stream>();
  nlohmann::ordered_json head;
  head["@odata.context"] = std::string(k_graph_root) + "$metadata#Collection(microsoft.graph.exportItemResponse)";
  std::string open = head.dump();
  open.pop_back();  // the closing brace; the value array follows
  stream->add_text(open + ",\"value\":[");
  for (size_t k = 0; k < ids.size(); ++k)
  {
    const std::string id = ids[k].get<std::string>();
    if (k > 0)
      stream->add_text(",");
    auto failed = [&](const std::string& code, const std::string& message)
    {
      nlohmann::ordered_json e;
      e["itemId"] = id;
      e["error"]["code"] = code;
      e["error"]["message"] = message;
      stream->add_text(e.dump());
    };
    std::string ews_id, code, blob;
    if (!ews_id_from_graph(id, ews_id))
    {
      failed("ErrorInvalidIdMalformed", "Id is malformed.");
      continue;
    }
    // The same items fail as through EWS; --fail-item may name them by either id.
    if (faults_.item_fails(ews_id, code) ||
        (faults_.settings().fail_items.count(id) > 0 && faults_.item_fails(id, code)))
    {
      stats_.count("faults.item_export");
      failed(code, "The item could not be exported.");
      continue;
    }
    Item_View view;
    bool generated = false;
    Lookup l = store_.export_item(call.mailbox, ews_id, blob, view, generated);
    if (l != Lookup::ok)
    {
      if (l == Lookup::malformed)
        failed("ErrorInvalidIdMalformed", "Id is malformed.");
      else
        failed("ErrorItemNotFound", "The specified object was not found in the store.");
      continue;
    }
    nlohmann::ordered_json itemId = id, changeKey = view.change_key;
    stream->add_text("{\"itemId\":" + itemId.dump() + ",\"changeKey\":" + changeKey.dump() + ",\"data\":\"");
    if (generated)
      stream->add_generated(store_.seed(), view.id, view.meta);
    else
      stream->add_text(base64_encode(blob));
    stream->add_text("\"}");
    ++r.items;
  }
  stream->add_text("]}");
  stats_.count("items_exported", r.items);
  r.stream = stream;
  return r;
}

Sim_Reply Graph_Mailbox_Service::create_import_session(const Call& call)
{
  std::string expiration;
  std::string token = sessions_.create(call.mailbox, expiration);
  nlohmann::ordered_json out;
  out["@odata.context"] = std::string(k_graph_root) + "$metadata#microsoft.graph.mailboxItemImportSession";
  out["importUrl"] = "http://" + call.request->host + "/api/gv1.0/Mailboxes('" + mailbox_id(call.mailbox) +
                     "')/importItem?authtoken=" + token;
  out["expirationDateTime"] = expiration;
  Sim_Reply r;
  r.body = out.dump();
  return r;
}

Sim_Reply Graph_Mailbox_Service::import_item(const Graph_Mailbox_Request& request, const std::string& mailbox_id)
{
  Sim_Reply r = import_call(request, mailbox_id);
  r.op = "importItem";
  return r;
}

Sim_Reply Graph_Mailbox_Service::import_call(const Graph_Mailbox_Request& request, const std::string& mailbox_id)
{
  Call call;
  call.request = &request;
  std::string token;
  for (const auto& kv : request.params)
    if (kv.first == "authtoken")
      token = kv.second;
  call.mailbox = find_mailbox_id(mailbox_id);
  Session_Check check = token.empty() ? Session_Check::unknown : sessions_.check(token, call.mailbox);
  if (token.empty())
    return error(call, 401, "InvalidAuthenticationToken", "The import URL carries no session token.");
  if (check == Session_Check::expired)
    return error(call, 401, "InvalidAuthenticationToken", "The import session has expired.");
  if (check != Session_Check::ok)
    return error(call, 403, "ErrorAccessDenied", "The import session is not valid for this mailbox.");
  Sim_Reply r = in_slot(call, [&] { return import_one(call); });
  r.mailbox = store_.mailbox_smtp(call.mailbox);
  return r;
}

Sim_Reply Graph_Mailbox_Service::import_one(const Call& call)
{
  auto body = nlohmann::ordered_json::parse(call.request->body, nullptr, false);
  if (body.is_discarded() || !body.is_object())
    return error(call, 400, "ErrorInvalidRequest", "The request body is not a JSON object.");
  auto text = [&](const char* key)
  { return body.contains(key) && body[key].is_string() ? body[key].get<std::string>() : std::string(); };
  std::string folder_id = text("FolderId"), mode = text("Mode"), data = text("Data");
  std::string item_id = text("ItemId"), change_key = text("ChangeKey");
  if (folder_id.empty() || data.empty() || (mode != "create" && mode != "update"))
    return error(call, 400, "ErrorInvalidRequest", "'FolderId', 'Data' and 'Mode' (create or update) are required.");
  if (mode == "create" && (body.contains("ItemId") || body.contains("ChangeKey")))
    return error(call, 400, "ErrorInvalidRequest", "'ItemId' and 'ChangeKey' are not allowed with Mode 'create'.");
  if (mode == "update" && (item_id.empty() || change_key.empty()))
    return error(call, 400, "ErrorInvalidRequest", "Mode 'update' requires 'ItemId' and 'ChangeKey'.");
  int folder = 0;
  std::string ews_folder;
  Lookup l = ews_id_from_graph(folder_id, ews_folder) ? store_.resolve_folder_id(call.mailbox, ews_folder, folder)
                                                      : Lookup::malformed;
  if (l != Lookup::ok)
    return l == Lookup::malformed
             ? error(call, 400, "ErrorInvalidIdMalformed", "Id is malformed.")
             : error(call, 404, "ErrorItemNotFound", "The specified object was not found in the store.");
  std::string blob;
  if (!base64_decode(data, blob) || blob.empty())
    return error(call, 400, "ErrorCorruptData", "'Data' is not a base64 item stream.");
  Item_View view;
  if (mode == "create")
  {
    store_.upload_new(call.mailbox, folder, blob, false, view);
  }
  else
  {
    std::string ews_item, old_blob;
    Item_View current;
    bool generated = false;
    l = ews_id_from_graph(item_id, ews_item) ? store_.export_item(call.mailbox, ews_item, old_blob, current, generated)
                                             : Lookup::malformed;
    if (l == Lookup::ok && current.parent_id != ews_folder)
      l = Lookup::not_found;
    if (l != Lookup::ok)
      return l == Lookup::malformed
               ? error(call, 400, "ErrorInvalidIdMalformed", "Id is malformed.")
               : error(call, 404, "ErrorItemNotFound", "The specified object was not found in the store.");
    if (current.change_key != change_key)
      return error(call, 409, "ErrorIrresolvableConflict",
                   "The change key passed in the request does not match the current change key for the item.");
    l = store_.upload_update(call.mailbox, folder, ews_item, blob, view);
    if (l != Lookup::ok)  // generated items are read-only
      return error(call, 403, "ErrorAccessDenied", "The item cannot be updated.");
  }
  stats_.count("items_uploaded");
  nlohmann::ordered_json out;
  out["@odata.context"] =
    "http://" + call.request->host + "/api/gv1.0/$metadata#microsoft.graph.importMailboxItemResponse";
  out["itemId"] = graph_id_from_ews(view.id);
  out["changeKey"] = view.change_key;
  Sim_Reply r;
  r.body = out.dump();
  r.items = 1;
  return r;
}

}  // namespace exo_sim
