#include "ews_scripted_graph.h"

#include "host/ews/ews_b64_data.h"
#include "host/ews/ews_xml.h"
#include "host/http/http_encoding.h"

#include <nlohmann/json.hpp>

#include <map>

namespace
{
typedef nlohmann::ordered_json Json;

Scripted_Reply json_reply(int status, const Json& body)
{
  Scripted_Reply r;
  r.status = status;
  r.headers["Content-Type"] = "application/json";
  r.body = body.dump();
  return r;
}

Scripted_Reply error_reply(int status, const std::string& code, const std::string& message)
{
  Json body;
  body["error"] = {
    {"code", code}, {"message", message}, {"innerError", {{"request-id", "7d1e3c52-0000-4000-8000-000000000000"}}}};
  return json_reply(status, body);
}

std::string decoded(const std::string& text)
{
  std::string out;
  http_decode_string(text, HTTP_DECODE_PLUS_AS_SPACE, out);
  return out;
}

std::map<std::string, std::string> query_of(const std::string& query)
{
  std::map<std::string, std::string> out;
  size_t at = 0;
  while (at <= query.size() && !query.empty())
  {
    const size_t end = std::min(query.find('&', at), query.size());
    const std::string pair = query.substr(at, end - at);
    const size_t eq = pair.find('=');
    out[decoded(pair.substr(0, eq))] = eq == std::string::npos ? "" : decoded(pair.substr(eq + 1));
    at = end + 1;
  }
  return out;
}

std::string mailbox_id(size_t box) { return "MBX:" + std::to_string(box) + "e0643f21@a7809c93"; }

const char* folder_class(EWS_Folder_Type type)
{
  switch (type)
  {
  case EWS_FOLDER_TYPE_CALENDAR:
    return "IPF.Appointment";
  case EWS_FOLDER_TYPE_CONTACTS:
    return "IPF.Contact";
  case EWS_FOLDER_TYPE_TASKS:
    return "IPF.Task";
  default:
    return "IPF.Note";
  }
}

EWS_Folder_Type folder_type(const std::string& cls)
{
  if (cls == "IPF.Appointment")
    return EWS_FOLDER_TYPE_CALENDAR;
  if (cls == "IPF.Contact")
    return EWS_FOLDER_TYPE_CONTACTS;
  if (cls == "IPF.Task")
    return EWS_FOLDER_TYPE_TASKS;
  return EWS_FOLDER_TYPE_FOLDER;
}

Json folder_json(const EWS_Folder& f, const std::string& parent)
{
  Json j;
  j["@odata.type"] = "#microsoft.graph.mailboxFolder";
  j["id"] = f.id;
  j["displayName"] = f.display_name;
  j["parentFolderId"] = parent;
  j["childFolderCount"] = f.subfolders_count;
  j["totalItemCount"] = f.items_count;
  j["wellKnownName"] = f.display_name == "Inbox" ? Json("inbox") : Json(nullptr);
  j["type"] = folder_class(f.type);
  return j;
}
}  // namespace

Ews_Scripted_Graph::Ews_Scripted_Graph(std::shared_ptr<Ews_Fake_Service> service) : service_(std::move(service)) {}

Scripted_Reply Ews_Scripted_Graph::answer_graph(const Scripted_Request& request)
{
  targets.push_back(request.target);
  const auto auth = request.headers.find("authorization");
  if (auth == request.headers.end() || auth->second.compare(0, 7, "Bearer ") != 0)
  {
    graph_missed_authorization = true;
    return error_reply(401, "InvalidAuthenticationToken", "Access token is empty.");
  }
  Host_Status fault;
  if (service_->take_call_fault(fault) && !fault.ok())
  {
    Scripted_Reply r = fault.code.compare(0, 5, "HTTP ") == 0
                         ? error_reply(std::stoi(fault.code.substr(5)), "UnknownError", fault.message)
                         : error_reply(429, fault.code, fault.message);
    if (fault.retry_after_ms >= 0)
      r.headers["Retry-After"] = std::to_string((fault.retry_after_ms + 999) / 1000);
    return r;
  }
  const size_t mark = request.target.find('?');
  const std::string path = decoded(request.target.substr(0, mark));
  const std::string query = mark == std::string::npos ? "" : request.target.substr(mark + 1);

  const std::string users = "/v1.0/users";
  const std::string mailboxes = "/v1.0/admin/exchange/mailboxes/";
  if (path == users)
  {
    // $filter=mail eq 'a' or proxyAddresses/any(p:p eq 'smtp:a')
    const std::string filter = query_of(query)["$filter"];
    const size_t open = filter.find('\'');
    const std::string address = filter.substr(open + 1, filter.find('\'', open + 1) - open - 1);
    EWS_Mailbox name;
    name.name = address;
    name.form = EWS_MAILBOX_SMTP_ADDRESS;
    Json body;
    body["value"] = Json::array();
    for (size_t i = 0; i < 2 && !address.empty(); ++i)
      if (service_->find(name) == &service_->mailbox(i))
        body["value"].push_back({{"id", "uid-" + std::to_string(i)}});
    return json_reply(200, body);
  }
  if (path.compare(0, users.size() + 1, users + "/") == 0 && path.size() > 18 &&
      path.compare(path.size() - 18, 18, "/settings/exchange") == 0)
  {
    const std::string user = path.substr(users.size() + 1, path.size() - users.size() - 1 - 18);
    for (size_t i = 0; i < 2; ++i)
    {
      EWS_Mailbox name;
      name.name = user;
      if (user == "uid-" + std::to_string(i) || service_->find(name) == &service_->mailbox(i))
        return json_reply(200, {{"@odata.context", "https://graph.microsoft.com/v1.0/$metadata#users('" + user +
                                                     "')/settings/exchange/$entity"},
                                {"primaryMailboxId", mailbox_id(i)}});
    }
    return error_reply(404, "Request_ResourceNotFound",
                       "Resource '" + user +
                         "' does not exist or one of its queried reference-property objects "
                         "are not present.");
  }
  if (path.compare(0, mailboxes.size(), mailboxes) == 0)
  {
    const std::string rest = path.substr(mailboxes.size());
    const std::string id = rest.substr(0, rest.find('/'));
    for (size_t i = 0; i < 2; ++i)
      if (id == mailbox_id(i))
        return answer_mailbox(request, i, rest.substr(id.size()), query);
    return error_reply(404, "ErrorInvalidMailboxItemId", "Mailbox not found.");
  }
  return error_reply(400, "BadRequest", "Resource not found for the segment.");
}

Scripted_Reply Ews_Scripted_Graph::answer_mailbox(const Scripted_Request& request, size_t box_index,
                                                  const std::string& rest, const std::string& query)
{
  Fake_Ews_Mailbox& box = service_->mailbox(box_index);
  const std::string base = graph.url() + "/v1.0/admin/exchange/mailboxes/" + mailbox_id(box_index);
  // "/folders", "/folders/{x}/childFolders", "/folders/{x}/items"
  std::string folder = Ews_Fake_Service::root_id;
  std::string what = rest;
  if (rest.compare(0, 9, "/folders/") == 0)
  {
    const size_t slash = rest.find('/', 9);
    folder = rest.substr(9, slash == std::string::npos ? std::string::npos : slash - 9);
    what = slash == std::string::npos ? "" : rest.substr(slash);
    if (folder == "inbox")
      folder = service_->folder_id(box_index, Ews_Fake_Service::root_id, "Inbox");
    else if (folder == "msgfolderroot")
      folder = Ews_Fake_Service::root_id;
  }
  else if (rest == "/folders")
    what = "/childFolders";

  if (request.method == "GET" && (what == "/childFolders" || what == "/items"))
  {
    std::map<std::string, std::string> q = query_of(query);
    const long skip = q.count("$skip") ? std::stol(q["$skip"]) : 0;
    int top = q.count("$top") ? std::stoi(q["$top"]) : server_page_size;
    top = std::min(top, server_page_size);
    Json body;
    body["value"] = Json::array();
    bool more = false;
    EWS_Folder_Ref ref;
    ref.id = folder == Ews_Fake_Service::root_id ? "" : folder;
    if (what == "/childFolders")
    {
      EWS_Folder_Page page;
      const Host_Status s = service_->find_folders(box, ref, false, skip, top, page);
      if (!s.ok())
        return error_reply(404, s.code, s.message);
      for (size_t i = 0; i < page.folders.size(); ++i)
        body["value"].push_back(folder_json(page.folders[i], page.parent_ids[i]));
      more = !page.last;
    }
    else
    {
      EWS_Item_Page page;
      const Host_Status s = service_->find_items(box, folder, skip, top, page);
      if (!s.ok())
        return error_reply(404, s.code, s.message);
      for (const EWS_Item& item : page.items)
        body["value"].push_back({{"@odata.type", "#microsoft.graph.mailboxItem"},
                                 {"id", item.id},
                                 {"createdDateTime", ews_xml::format_time(item.ctime)},
                                 {"lastModifiedDateTime", ews_xml::format_time(item.mtime)},
                                 {"changeKey", item.change_key},
                                 {"categories", Json::array()},
                                 {"type", "IPM.Note"},
                                 {"size", item.size}});
      more = !page.last;
    }
    if (more)
      body["@odata.nextLink"] = base + (rest == "/folders" ? "/folders" : "/folders/" + folder + what) +
                                "?%24top=" + std::to_string(top) +
                                "&%24skip=" + std::to_string(skip + static_cast<long>(body["value"].size()));
    return json_reply(200, body);
  }
  if (request.method == "POST" && what == "/childFolders")
  {
    const Json in = Json::parse(request.body, nullptr, false);
    if (!in.is_object() || !in.contains("displayName") || !in.contains("type"))
      return error_reply(400, "ErrorInvalidRequest", "displayName and type are required.");
    EWS_Folder_Ref ref;
    ref.id = folder == Ews_Fake_Service::root_id ? "" : folder;
    EWS_Folder_Creation_Request r;
    r.display_name = in["displayName"].get<std::string>();
    r.type = folder_type(in["type"].get<std::string>());
    const Host_Status s = service_->create_folder(box, ref, r);
    if (!s.ok())
      return error_reply(s.code == "ErrorFolderExists" ? 409 : 404, s.code, s.message);
    EWS_Folder created;
    created.id = r.id;
    created.display_name = r.display_name;
    created.type = r.type;
    return json_reply(201, folder_json(created, folder));
  }
  if (request.method == "POST" && rest == "/exportItems")
  {
    const Json in = Json::parse(request.body, nullptr, false);
    if (!in.is_object() || !in.contains("itemIds") || in["itemIds"].size() > 20)
      return error_reply(400, "ErrorInvalidRequest", "itemIds: at most 20 ids.");
    service_->export_batches.push_back(in["itemIds"].size());
    Json body;
    body["@odata.context"] =
      "https://graph.microsoft.com/v1.0/$metadata#Collection(microsoft.graph.exportItemResponse)";
    body["value"] = Json::array();
    for (const auto& id : in["itemIds"])
    {
      ustring data;
      const Host_Status s = service_->export_item(box, id.get<std::string>(), data);
      Json element = {{"itemId", id}};
      if (!s.ok())
        // The archive redirects page writes the member "Error".
        element["Error"] = {{"message", s.message}, {"code", s.code}};
      else
      {
        element["changeKey"] = "CQAAABYAAACQ2fKdhq8oSKEDSVrdi3lRAAEu4C+G";
        element["data"] = service_->damaged.count(id.get<std::string>())
                            ? std::string("not*base64")
                            : EWS_b64_Data::encode(data.data(), data.size());
      }
      body["value"].push_back(element);
    }
    return json_reply(200, body);
  }
  if (request.method == "POST" && rest == "/createImportSession")
  {
    ++sessions_made;
    const time_t expires = std::time(nullptr) + session_lifetime;
    session_expiry_.push_back(expires);
    return json_reply(
      200, {{"@odata.context", "https://graph.microsoft.com/v1.0/$metadata#microsoft.graph.mailboxItemImportSession"},
            {"importUrl", import.url() + "/api/gv1.0/Mailboxes('" + mailbox_id(box_index) +
                            "')/importItem?authtoken=SECRET-" + std::to_string(sessions_made)},
            {"expirationDateTime", ews_xml::format_time(expires)}});
  }
  return error_reply(400, "BadRequest", "Unsupported request " + request.method + " " + rest);
}

Scripted_Reply Ews_Scripted_Graph::answer_import(const Scripted_Request& request)
{
  if (request.headers.count("authorization"))
    import_had_authorization = true;
  const size_t token_at = request.target.find("authtoken=SECRET-");
  const int session = token_at == std::string::npos ? 0 : std::atoi(request.target.c_str() + token_at + 17);
  if (session <= revoked_before_ || session > static_cast<int>(session_expiry_.size()) ||
      session_expiry_[static_cast<size_t>(session) - 1] <= std::time(nullptr))
    return error_reply(401, "InvalidAuthenticationToken", "The import session is not valid.");
  size_t box_index = 0;
  while (box_index < 2 && request.target.find(mailbox_id(box_index)) == std::string::npos)
    ++box_index;
  if (box_index == 2)
    return json_reply(409, {{"Message", "Invalid import session."}});
  const Json in = Json::parse(request.body, nullptr, false);
  EWS_b64_Data data;
  if (!in.is_object() || in.value("Mode", "") != "create" || !in.contains("FolderId") || !in.contains("Data") ||
      in.contains("ItemId"))
    return error_reply(400, "ErrorInvalidRequest", "FolderId, Mode create and Data are required.");
  const std::string text = in["Data"].get<std::string>();
  if (!EWS_b64_Data::decode(text.data(), text.size(), data))
    return error_reply(400, "ErrorInvalidRequest", "Data is not base64.");
  ++imports;
  const EWS_Upload_Result r = service_->upload_item(service_->mailbox(box_index), in["FolderId"].get<std::string>(),
                                                    ustring(data.ptr.get(), static_cast<size_t>(data.size)));
  // Quoting the request back, as some services do in their errors.
  if (!r.status.ok())
    return error_reply(404, r.status.code, r.status.message + " (" + request.target + ")");
  return json_reply(200, {{"itemId", r.id}, {"changeKey", "kNnynYavKEihA0la3Yt5UQABUftGQg=="}});
}
