#include "sim_harness.h"

#include <curl/curl.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <stdexcept>

namespace exo_sim_test
{

const char* const k_tenant_id = "8d7a4f52-6c1b-4e0a-9f3d-2b5c7e9a1d04";
const char* const k_client_id = "3f2b8c1e-5a4d-4c6f-8e7b-9a0d1c2e3f45";
const char* const k_client_secret = "exo-sim-demo-secret";
const char* const k_ews_scope = "https://outlook.office365.com/.default";
const char* const k_graph_scope = "https://graph.microsoft.com/.default";
const char* const k_admin = "admin@demo.exosim.test";
const char* const M = "http://schemas.microsoft.com/exchange/services/2006/messages";
const char* const T = "http://schemas.microsoft.com/exchange/services/2006/types";

namespace
{

size_t append_cb(char* data, size_t size, size_t n, void* out)
{
  static_cast<std::string*>(out)->append(data, size * n);
  return size * n;
}

std::string lower(std::string s)
{
  for (auto& c : s)
    if (c >= 'A' && c <= 'Z')
      c = char(c - 'A' + 'a');
  return s;
}

std::string ns_of(const pugi::xml_node& node)
{
  std::string name = node.name();
  auto colon = name.find(':');
  std::string attr = colon == std::string::npos ? "xmlns" : "xmlns:" + name.substr(0, colon);
  for (pugi::xml_node n = node; n && n.type() == pugi::node_element; n = n.parent())
    if (n.attribute(attr.c_str()))
      return n.attribute(attr.c_str()).value();
  return "";
}

std::string local_of(const pugi::xml_node& node)
{
  const char* colon = std::strchr(node.name(), ':');
  return colon ? colon + 1 : node.name();
}

}  // namespace

std::string Http_Result::header(const std::string& name) const
{
  std::string want = lower(name) + ":";
  size_t pos = 0;
  while (pos < headers.size())
  {
    size_t eol = headers.find("\r\n", pos);
    std::string line = headers.substr(pos, eol == std::string::npos ? std::string::npos : eol - pos);
    if (lower(line).compare(0, want.size(), want) == 0)
    {
      std::string v = line.substr(want.size());
      return v.substr(v.find_first_not_of(' ') == std::string::npos ? v.size() : v.find_first_not_of(' '));
    }
    if (eol == std::string::npos)
      break;
    pos = eol + 2;
  }
  return "";
}

Http_Result http_request(const std::string& method, const std::string& url, const std::string& body,
                         const std::vector<std::string>& headers)
{
  Http_Result r;
  CURL* curl = curl_easy_init();
  curl_slist* list = nullptr;
  for (const auto& h : headers)
    list = curl_slist_append(list, h.c_str());
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, list);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, append_cb);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &r.body);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, append_cb);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &r.headers);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, 60L);
  if (method == "POST")
  {
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  }
  r.curl_code = curl_easy_perform(curl);
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &r.status);
  curl_slist_free_all(list);
  curl_easy_cleanup(curl);
  return r;
}

exo_sim::Sim_Options tiny_options()
{
  exo_sim::Sim_Options o;
  exo_sim::data_profile_preset("tiny", o.profile);
  o.profile.page_size = 10;
  o.profile.large_item_mib = 1;
  o.threads = 8;
  o.tenant.registrations.push_back({k_client_id, k_client_secret});
  return o;
}

Sim_Fixture::Sim_Fixture(const exo_sim::Sim_Options& options)
{
  server_.reset(new exo_sim::Sim_Server(options, nullptr));
  std::string error;
  if (!server_->load_state(error))
    throw std::runtime_error(error);
  port_ = server_->bind();
  if (port_ <= 0)
    throw std::runtime_error("cannot bind");
  thread_ = std::thread([this] { server_->run(); });
  while (!server_->is_running())
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
}

Sim_Fixture::~Sim_Fixture()
{
  server_->stop();
  thread_.join();
}

Http_Result Sim_Fixture::token_request(const std::string& form, const std::string& tenant)
{
  return http_request("POST", base() + "/" + tenant + "/oauth2/v2.0/token", form,
                      {"Content-Type: application/x-www-form-urlencoded"});
}

std::string Sim_Fixture::token(const std::string& scope)
{
  char* enc = curl_easy_escape(nullptr, scope.c_str(), int(scope.size()));
  std::string form = std::string("client_id=") + k_client_id + "&client_secret=" + k_client_secret +
                     "&grant_type=client_credentials&scope=" + enc;
  curl_free(enc);
  Http_Result r = token_request(form);
  auto j = nlohmann::ordered_json::parse(r.body, nullptr, false);
  if (r.status != 200 || j.is_discarded())
    throw std::runtime_error("token request failed: " + r.body);
  return j["access_token"].get<std::string>();
}

std::string soap_envelope(const std::string& header, const std::string& body)
{
  return std::string(
           "<?xml version=\"1.0\" encoding=\"utf-8\"?>"
           "<soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\" "
           "xmlns:t=\"") +
         T + "\" xmlns:m=\"" + M + "\"><soap:Header>" + header + "</soap:Header><soap:Body>" + body +
         "</soap:Body></soap:Envelope>";
}

std::string impersonation_header(const std::string& mailbox, const std::string& version, const std::string& form)
{
  std::string h;
  if (!version.empty())
    h += "<t:RequestServerVersion Version=\"" + version + "\"/>";
  if (!mailbox.empty())
    h += "<t:ExchangeImpersonation><t:ConnectingSID><t:" + form + ">" + mailbox + "</t:" + form +
         "></t:ConnectingSID></t:ExchangeImpersonation>";
  return h;
}

Http_Result Sim_Fixture::ews_raw(const std::string& envelope, const std::vector<std::string>& headers)
{
  return http_request("POST", base() + "/EWS/Exchange.asmx", envelope, headers);
}

Http_Result Sim_Fixture::ews(const std::string& body, const std::string& mailbox, const std::string& token,
                             const std::string& version, bool anchor)
{
  if (token.empty() && ews_token_.empty())
    ews_token_ = this->token(k_ews_scope);
  std::vector<std::string> headers = {"Content-Type: text/xml; charset=utf-8",
                                      "Authorization: Bearer " + (token.empty() ? ews_token_ : token)};
  if (anchor)
    headers.push_back("X-AnchorMailbox: " + mailbox);
  return ews_raw(soap_envelope(impersonation_header(mailbox, version), body), headers);
}

Http_Result Sim_Fixture::ews_as(const std::string& form, const std::string& address, const std::string& body,
                                const std::string& anchor)
{
  if (ews_token_.empty())
    ews_token_ = token(k_ews_scope);
  return ews_raw(
    soap_envelope(impersonation_header(address, "Exchange2016", form), body),
    {"Content-Type: text/xml; charset=utf-8", "Authorization: Bearer " + ews_token_, "X-AnchorMailbox: " + anchor});
}

Http_Result Sim_Fixture::graph_users(const std::string& query, bool eventual, const std::string& token)
{
  if (token.empty() && graph_token_.empty())
    graph_token_ = this->token(k_graph_scope);
  std::vector<std::string> headers = {"Authorization: Bearer " + (token.empty() ? graph_token_ : token)};
  if (eventual)
    headers.push_back("ConsistencyLevel: eventual");
  return http_request("GET", base() + "/v1.0/users" + (query.empty() ? "" : "?" + query), "", headers);
}

nlohmann::ordered_json Sim_Fixture::status()
{
  Http_Result r = http_request("GET", base() + "/_sim/status", "", {});
  return nlohmann::ordered_json::parse(r.body);
}

std::string distinguished(const std::string& id) { return "<t:DistinguishedFolderId Id=\"" + id + "\"/>"; }
std::string folder_id(const std::string& id) { return "<t:FolderId Id=\"" + id + "\"/>"; }

std::string find_folder_body(const std::string& parent_xml, const std::string& traversal, const std::string& shape,
                             const std::string& view)
{
  return "<m:FindFolder Traversal=\"" + traversal + "\"><m:FolderShape><t:BaseShape>" + shape +
         "</t:BaseShape></m:FolderShape>" + view + "<m:ParentFolderIds>" + parent_xml +
         "</m:ParentFolderIds></m:FindFolder>";
}

std::string find_item_body(const std::string& parent_xml, int offset, int max, const std::string& shape,
                           const std::string& traversal)
{
  return "<m:FindItem Traversal=\"" + traversal + "\"><m:ItemShape><t:BaseShape>" + shape +
         "</t:BaseShape><t:AdditionalProperties><t:FieldURI FieldURI=\"item:Subject\"/>"
         "<t:FieldURI FieldURI=\"item:DateTimeCreated\"/><t:FieldURI FieldURI=\"item:LastModifiedTime\"/>"
         "</t:AdditionalProperties></m:ItemShape><m:IndexedPageItemView MaxEntriesReturned=\"" +
         std::to_string(max) + "\" Offset=\"" + std::to_string(offset) +
         "\" BasePoint=\"Beginning\"/><m:ParentFolderIds>" + parent_xml + "</m:ParentFolderIds></m:FindItem>";
}

std::string export_items_body(const std::vector<std::string>& ids)
{
  std::string b = "<m:ExportItems><m:ItemIds>";
  for (const auto& id : ids)
    b += "<t:ItemId Id=\"" + id + "\"/>";
  return b + "</m:ItemIds></m:ExportItems>";
}

std::string upload_item_xml(const std::string& parent_id, const std::string& base64_data, const std::string& action)
{
  return "<t:Item CreateAction=\"" + action + "\"><t:ParentFolderId Id=\"" + parent_id + "\"/><t:Data>" + base64_data +
         "</t:Data></t:Item>";
}

std::string create_folder_body(const std::string& parent_xml, const std::string& name, const std::string& element)
{
  return "<m:CreateFolder><m:ParentFolderId>" + parent_xml + "</m:ParentFolderId><m:Folders><t:" + element +
         "><t:DisplayName>" + name + "</t:DisplayName></t:" + element + "></m:Folders></m:CreateFolder>";
}

std::vector<pugi::xml_node> Soap_Doc::all(const char* ns, const char* local) const
{
  std::vector<pugi::xml_node> out;
  std::function<void(pugi::xml_node)> walk = [&](pugi::xml_node n)
  {
    for (pugi::xml_node c = n.first_child(); c; c = c.next_sibling())
    {
      if (c.type() != pugi::node_element)
        continue;
      if (local_of(c) == local && ns_of(c) == ns)
        out.push_back(c);
      walk(c);
    }
  };
  walk(doc);
  return out;
}

pugi::xml_node Soap_Doc::first(const char* ns, const char* local) const
{
  auto v = all(ns, local);
  return v.empty() ? pugi::xml_node() : v[0];
}

void parse_soap(const std::string& text, Soap_Doc& out)
{
  out.ok = static_cast<bool>(out.doc.load_buffer(text.data(), text.size()));
}

std::string folder_id_by_name(Sim_Fixture& sim, const std::string& name, const std::string& mailbox)
{
  Http_Result r = sim.ews(find_folder_body(distinguished("msgfolderroot"), "Deep"), mailbox);
  Soap_Doc d;
  parse_soap(r.body, d);
  for (const char* el : {"Folder", "CalendarFolder", "ContactsFolder", "TasksFolder"})
    for (const auto& f : d.all(T, el))
      for (pugi::xml_node c = f.first_child(); c; c = c.next_sibling())
        if (local_of(c) == "DisplayName" && name == c.text().get())
          for (pugi::xml_node k = f.first_child(); k; k = k.next_sibling())
            if (local_of(k) == "FolderId")
              return k.attribute("Id").value();
  return "";
}

std::vector<std::string> all_item_ids(Sim_Fixture& sim, const std::string& folder, int page, const std::string& mailbox)
{
  std::vector<std::string> ids;
  int offset = 0;
  for (int guard = 0; guard < 10000; ++guard)
  {
    Soap_Doc d;
    parse_soap(sim.ews(find_item_body(folder_id(folder), offset, page), mailbox).body, d);
    pugi::xml_node root = d.first(M, "RootFolder");
    if (!root)
      break;
    for (const auto& id : d.all(T, "ItemId"))
      ids.push_back(id.attribute("Id").value());
    offset = root.attribute("IndexedPagingOffset").as_int();
    if (std::string(root.attribute("IncludesLastItemInRange").value()) == "true")
      break;
  }
  return ids;
}

}  // namespace exo_sim_test
