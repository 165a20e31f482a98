#include "host/ews/ews_soap_transport.h"

#include "host/ews/ews_export_stream.h"
#include "host/ews/ews_soap_status.h"
#include "host/ews/ews_xml.h"
#include "host/http/http_status.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <sstream>

using ews_xml::child;
using ews_xml::local_name;

const char* const EWS_Soap_Transport::server_version = "Exchange2013_SP1";

namespace
{
// The response messages of an answer, in order.
std::vector<pugi::xml_node> message_list(const pugi::xml_node& messages)
{
  std::vector<pugi::xml_node> list;
  for (pugi::xml_node m = messages.first_child(); m; m = m.next_sibling())
    if (m.type() == pugi::node_element)
      list.push_back(m);
  return list;
}

void add_folder_ref(pugi::xml_node parent, const EWS_Folder_Ref& ref)
{
  if (!ref.id.empty())
    parent.append_child("t:FolderId").append_attribute("Id") = ref.id.c_str();
  else
  {
    const char* name = ews_distinguished_folder_name(ref.distinguished);
    parent.append_child("t:DistinguishedFolderId").append_attribute("Id") = name ? name : "msgfolderroot";
  }
}

void add_field(pugi::xml_node props, const char* uri)
{
  props.append_child("t:FieldURI").append_attribute("FieldURI") = uri;
}

void add_page_view(pugi::xml_node op, const char* element, long offset, int max)
{
  pugi::xml_node view = op.append_child(element);
  view.append_attribute("MaxEntriesReturned") = max;
  view.append_attribute("Offset") = static_cast<long long>(offset);
  view.append_attribute("BasePoint") = "Beginning";
}

// The next position: the server's IndexedPagingOffset, never behind what was
// read (a server that repeats itself must not make a listing loop).
void read_paging(const pugi::xml_node& root, long offset, size_t count, EWS_Page_Cursor& next, bool& last)
{
  const long after = offset + static_cast<long>(count);
  const pugi::xml_attribute attr = root.attribute("IndexedPagingOffset");
  next = EWS_Page_Cursor::at(attr ? std::max<long>(attr.as_llong(), after) : after);
  last = root.attribute("IncludesLastItemInRange").as_bool(true);
}

EWS_Item read_item(const pugi::xml_node& element)
{
  EWS_Item item;
  item.type = ews_item_type_of(local_name(element));
  const pugi::xml_node item_id = child(element, "ItemId");
  item.id = item_id.attribute("Id").value();
  item.change_key = item_id.attribute("ChangeKey").value();
  item.subject = child(element, "Subject").text().get();
  item.display_name = child(element, "DisplayName").text().get();
  item.ctime = ews_xml::parse_time(child(element, "DateTimeCreated").text().get());
  item.mtime = ews_xml::parse_time(child(element, "LastModifiedTime").text().get());
  item.size = child(element, "Size").text().as_llong(0);
  return item;
}

std::string basic_credentials(const EWS_Credentials& c)
{
  const std::string pair = c.user + ":" + c.password;
  return "Basic " + EWS_b64_Data::encode(reinterpret_cast<const unsigned char*>(pair.data()), pair.size());
}
}  // namespace

EWS_Soap_Transport::EWS_Soap_Transport(const HTTP_Session_Ptr& session, const std::string& path, int transfer_timeout)
  : session_(session),
    path_(path.empty() ? "/EWS/Exchange.asmx" : path),
    transfer_timeout_(transfer_timeout > 0 ? transfer_timeout : 300)
{
}

std::unique_ptr<EWS_Transport> EWS_Soap_Transport::make_sibling() const
{
  if (!sibling_maker_)
    return nullptr;
  std::unique_ptr<EWS_Transport> sibling = sibling_maker_();
  if (sibling)
  {
    sibling->set_mailbox(mailbox_);
    sibling->set_credentials(credentials_);
  }
  return sibling;
}

EWS_Transport_Limits EWS_Soap_Transport::limits() const
{
  EWS_Transport_Limits l;
  l.max_page_size = 1000;    // EWSFindCountLimit: a larger page has no effect
  l.max_export_items = 100;  // Microsoft's recommended cap for ExportItems
  l.max_upload_items = 100;
  l.max_request_bytes = max_request_bytes;
  return l;
}

bool EWS_Soap_Transport::is_unknown_mailbox(const Host_Status& status) const
{
  return status.code == "ErrorNonExistentMailbox";
}

bool EWS_Soap_Transport::is_folder_exists(const Host_Status& status) const
{
  return status.code == "ErrorFolderExists";
}

pugi::xml_node EWS_Soap_Transport::start_envelope(pugi::xml_document& doc, const char* operation) const
{
  pugi::xml_node decl = doc.append_child(pugi::node_declaration);
  decl.append_attribute("version") = "1.0";
  decl.append_attribute("encoding") = "utf-8";
  pugi::xml_node env = doc.append_child("soap:Envelope");
  env.append_attribute("xmlns:soap") = ews_xml::soap_ns;
  env.append_attribute("xmlns:t") = ews_xml::types_ns;
  env.append_attribute("xmlns:m") = ews_xml::messages_ns;
  pugi::xml_node header = env.append_child("soap:Header");
  header.append_child("t:RequestServerVersion").append_attribute("Version") = server_version;
  if (!mailbox_.name.empty())
  {
    // PrimarySmtpAddress is not used: it matches the primary address only, and
    // names from the directory are user principal names.
    const char* form = mailbox_.form == EWS_MAILBOX_SMTP_ADDRESS ? "t:SmtpAddress" : "t:PrincipalName";
    header.append_child("t:ExchangeImpersonation")
      .append_child("t:ConnectingSID")
      .append_child(form)
      .text()
      .set(mailbox_.name.c_str());
  }
  return env.append_child("soap:Body").append_child((std::string("m:") + operation).c_str());
}

Host_Status EWS_Soap_Transport::read_http_failure(const HTTP_Response& response, const pugi::xml_document& answer,
                                                  bool parsed) const
{
  const long status = response.status();
  const std::string code = "HTTP " + std::to_string(status);
  if (status == 401)
  {
    const std::string* diagnostics = response.headers().get("x-ms-diagnostics");
    return Host_Status::make(HOST_STATUS_UNAUTHORIZED, code,
                             diagnostics ? *diagnostics : "the credentials were refused");
  }
  if (status == 429 || status == 503)
    return Host_Status::make(HOST_STATUS_THROTTLED, code, "the service is busy", http_retry_after_ms(response));
  if (parsed)
  {
    // A SOAP fault: its detail carries the EWS response code and any back-off.
    const pugi::xml_node body = child(answer.document_element(), ews_xml::soap_ns, "Body");
    const pugi::xml_node fault = child(body, ews_xml::soap_ns, "Fault");
    if (fault)
    {
      EWS_Soap_Message m = ews_read_fault(fault);
      const bool coded = !m.code.empty();
      if (!coded)
        m.code = code;
      Host_Status st = m.status();
      // A 5xx fault without an EWS code is a passing server failure.
      if (st.kind == HOST_STATUS_PERMANENT && status >= 500 && !coded)
        st.kind = HOST_STATUS_TRANSIENT;
      return st;
    }
  }
  if (status >= 500)
    return Host_Status::make(HOST_STATUS_TRANSIENT, code, "server error");
  return Host_Status::make(HOST_STATUS_PERMANENT, code, trim_space(response.body().substr(0, 256)));
}

void EWS_Soap_Transport::prepare(HTTP_Request& http, const pugi::xml_document& doc) const
{
  std::ostringstream text;
  doc.save(text, "", pugi::format_raw);
  http.body() = text.str();
  http.headers().put("Content-Type", "text/xml; charset=utf-8");
  http.headers().put("Accept", "text/xml");
  if (!credentials_.bearer_token.empty())
    http.headers().put("Authorization", "Bearer " + credentials_.bearer_token);
  else if (!credentials_.user.empty())
    http.headers().put("Authorization", basic_credentials(credentials_));
  // Routes the request to the mailbox's server; the service accepts the user's
  // principal name or any of its SMTP addresses here.
  if (!mailbox_.name.empty())
    http.headers().put("X-AnchorMailbox", mailbox_.name);
}

Host_Status EWS_Soap_Transport::call(const pugi::xml_document& request, const char* operation,
                                     pugi::xml_document& answer, pugi::xml_node& messages, long long bytes,
                                     bool repeatable)
{
  outcome_unknown_ = false;
  if (!session_)
    return Host_Status::make(HOST_STATUS_PERMANENT, "connection", "no HTTP session to the EWS endpoint");
  HTTP_Request http(HTTP_METHOD_POST, path_.c_str(), true);
  prepare(http, request);
  http.transfer_timeout(timeout_for(bytes));
  // A creating request is repeated only by the client, which decides after a
  // failure whose outcome is open; libcurl must not repeat it on its own.
  http.repeatable(repeatable);
  HTTP_Response response;
  const bool sent = session_->perform(http, response);
  http.headers().clear();
  if (!sent)
  {
    outcome_unknown_ = http_transport_outcome(*session_) == HTTP_OUTCOME_UNKNOWN;
    return http_transport_status(*session_);
  }

  const bool parsed = answer.load_buffer(response.body().data(), response.body().size());
  if (response.status() != 200)
  {
    outcome_unknown_ = http_answer_outcome(response) == HTTP_OUTCOME_UNKNOWN;
    return read_http_failure(response, answer, parsed);
  }
  const pugi::xml_node body = child(answer.document_element(), ews_xml::soap_ns, "Body");
  const pugi::xml_node op_response = child(body, (std::string(operation) + "Response").c_str());
  messages = child(op_response, "ResponseMessages");
  if (!parsed || !messages)
  {
    // A cut answer ("=== Truncated Data ===" during failovers) is worth retrying,
    // but the service answered 200: it acted on the request.
    outcome_unknown_ = true;
    return malformed_answer(std::string("incomplete or unreadable ") + operation + " answer");
  }
  return Host_Status();
}

Host_Status EWS_Soap_Transport::find_folders(const EWS_Folder_Ref& parent, bool deep, const EWS_Page_Cursor& at,
                                             int max, EWS_Folder_Page& page)
{
  pugi::xml_document doc;
  pugi::xml_node op = start_envelope(doc, "FindFolder");
  op.append_attribute("Traversal") = deep ? "Deep" : "Shallow";
  pugi::xml_node shape = op.append_child("m:FolderShape");
  shape.append_child("t:BaseShape").text().set("Default");
  if (deep)
    add_field(shape.append_child("t:AdditionalProperties"), "folder:ParentFolderId");
  add_page_view(op, "m:IndexedPageFolderView", at.offset, max);
  add_folder_ref(op.append_child("m:ParentFolderIds"), parent);

  pugi::xml_document answer;
  pugi::xml_node messages;
  Host_Status status = call(doc, "FindFolder", answer, messages);
  if (!status.ok())
    return status;
  const std::vector<pugi::xml_node> list = message_list(messages);
  if (list.empty())
    return malformed_answer("FindFolder answer without a message");
  status = ews_read_message(list[0]).status();
  if (!status.ok())
    return status;
  const pugi::xml_node root = child(list[0], "RootFolder");
  for (pugi::xml_node f = child(root, "Folders").first_child(); f; f = f.next_sibling())
  {
    if (f.type() != pugi::node_element)
      continue;
    page.folders.emplace_back(f);
    page.parent_ids.push_back(child(f, "ParentFolderId").attribute("Id").value());
  }
  read_paging(root, at.offset, page.folders.size(), page.next, page.last);
  return status;
}

Host_Status EWS_Soap_Transport::find_items(const std::string& folder_id, const EWS_Page_Cursor& at, int max,
                                           EWS_Item_Page& page)
{
  pugi::xml_document doc;
  pugi::xml_node op = start_envelope(doc, "FindItem");
  op.append_attribute("Traversal") = "Shallow";
  pugi::xml_node shape = op.append_child("m:ItemShape");
  shape.append_child("t:BaseShape").text().set("IdOnly");
  pugi::xml_node props = shape.append_child("t:AdditionalProperties");
  add_field(props, "item:Subject");
  add_field(props, "item:DateTimeCreated");
  add_field(props, "item:LastModifiedTime");
  add_field(props, "item:Size");
  add_page_view(op, "m:IndexedPageItemView", at.offset, max);
  EWS_Folder_Ref ref;
  ref.id = folder_id;
  add_folder_ref(op.append_child("m:ParentFolderIds"), ref);

  pugi::xml_document answer;
  pugi::xml_node messages;
  Host_Status status = call(doc, "FindItem", answer, messages);
  if (!status.ok())
    return status;
  const std::vector<pugi::xml_node> list = message_list(messages);
  if (list.empty())
    return malformed_answer("FindItem answer without a message");
  status = ews_read_message(list[0]).status();
  if (!status.ok())
    return status;
  const pugi::xml_node root = child(list[0], "RootFolder");
  for (pugi::xml_node i = child(root, "Items").first_child(); i; i = i.next_sibling())
    if (i.type() == pugi::node_element)
      page.items.push_back(read_item(i));
  read_paging(root, at.offset, page.items.size(), page.next, page.last);
  return status;
}

long EWS_Soap_Transport::timeout_for(long long bytes) const
{
  // At least 256 KiB/s on top of the time a request without items may take.
  return transfer_timeout_ + static_cast<long>(bytes / (256 * 1024));
}

Host_Status EWS_Soap_Transport::export_items(const std::vector<EWS_Export_Request*>& requests)
{
  if (!session_)
    return Host_Status::make(HOST_STATUS_PERMANENT, "connection", "no HTTP session to the EWS endpoint");
  pugi::xml_document doc;
  pugi::xml_node ids = start_envelope(doc, "ExportItems").append_child("m:ItemIds");
  long long expected = 0;
  for (const EWS_Export_Request* r : requests)
  {
    pugi::xml_node id = ids.append_child("t:ItemId");
    id.append_attribute("Id") = r->id.c_str();
    if (!r->change_key.empty())
      id.append_attribute("ChangeKey") = r->change_key.c_str();
    expected += r->size > 0 ? r->size : 0;
  }
  HTTP_Request http(HTTP_METHOD_POST, path_.c_str(), true);
  prepare(http, doc);
  http.transfer_timeout(timeout_for(expected / 3 * 4));

  // The answer is parsed as it arrives and never kept whole.
  EWS_Export_Stream stream(requests);
  bool cancelled = false;
  HTTP_Response response;
  // Only a 2xx body reaches the sink; a fault's body stays in response.body().
  response.set_body_sink(
    [&](const char* data, size_t size, long)
    {
      if (cancel_check_ && cancel_check_())
      {
        cancelled = true;
        return false;
      }
      // Past a damaged spot the rest is read and dropped; the items before it stand.
      stream.feed(data, size);
      return true;
    });
  const bool sent = session_->perform(http, response);
  http.headers().clear();
  if (cancelled)
    return Host_Status::make(HOST_STATUS_CANCELLED, "cancelled", "the export was cancelled while it arrived");
  if (!sent)
    return stream.answered() > 0
             ? malformed_answer("ExportItems answer broke off after " + std::to_string(stream.answered()) + " of " +
                                std::to_string(requests.size()) + " items: " + session_->error())
             : http_transport_status(*session_);
  if (response.status() != 200)
  {
    pugi::xml_document answer;
    const std::string& body = response.body();
    return read_http_failure(response, answer, answer.load_buffer(body.data(), body.size()));
  }
  // A cut answer ("=== Truncated Data ===" during failovers) is worth retrying
  // for the items it did not reach.
  if (!stream.finish() || stream.answered() != requests.size())
    return malformed_answer("ExportItems answer cut after " + std::to_string(stream.answered()) + " of " +
                            std::to_string(requests.size()) + " items");
  return Host_Status();
}

Host_Status EWS_Soap_Transport::create_folder(const EWS_Folder_Ref& parent, EWS_Folder_Creation_Request& request)
{
  pugi::xml_document doc;
  pugi::xml_node op = start_envelope(doc, "CreateFolder");
  add_folder_ref(op.append_child("m:ParentFolderId"), parent);
  pugi::xml_node folder =
    op.append_child("m:Folders").append_child((std::string("t:") + ews_folder_element(request.type)).c_str());
  folder.append_child("t:DisplayName").text().set(request.display_name.c_str());

  pugi::xml_document answer;
  pugi::xml_node messages;
  Host_Status status = call(doc, "CreateFolder", answer, messages, 0, false);
  if (!status.ok())
    return status;
  const std::vector<pugi::xml_node> list = message_list(messages);
  if (list.empty())
  {
    outcome_unknown_ = true;
    return malformed_answer("CreateFolder answer without a message");
  }
  status = ews_read_message(list[0]).status();
  if (!status.ok())
    return status;
  pugi::xml_node id;
  for (pugi::xml_node f = child(list[0], "Folders").first_child(); f && !id; f = f.next_sibling())
    id = child(f, "FolderId");
  if (!id || !*id.attribute("Id").value())
    return Host_Status::make(HOST_STATUS_PERMANENT, "malformed answer", "CreateFolder answer without a folder id");
  request.id = id.attribute("Id").value();
  request.change_key = id.attribute("ChangeKey").value();
  return status;
}

Host_Status EWS_Soap_Transport::upload_items(const std::string& parent_id, const std::vector<const ustring*>& items,
                                             std::vector<EWS_Upload_Result>& results)
{
  pugi::xml_document doc;
  pugi::xml_node list_node = start_envelope(doc, "UploadItems").append_child("m:Items");
  long long bytes = 0;
  for (const ustring* data : items)
  {
    bytes += static_cast<long long>(data->size()) / 3 * 4;
    pugi::xml_node item = list_node.append_child("t:Item");
    item.append_attribute("CreateAction") = "CreateNew";
    item.append_child("t:ParentFolderId").append_attribute("Id") = parent_id.c_str();
    item.append_child("t:Data").text().set(EWS_b64_Data::encode(data->data(), data->size()).c_str());
  }
  pugi::xml_document answer;
  pugi::xml_node messages;
  Host_Status status = call(doc, "UploadItems", answer, messages, bytes, false);
  if (!status.ok())
    return status;
  const std::vector<pugi::xml_node> list = message_list(messages);
  if (list.size() != items.size())
  {
    outcome_unknown_ = true;
    return malformed_answer("UploadItems answer count differs");
  }
  results.assign(items.size(), EWS_Upload_Result());
  for (size_t i = 0; i < list.size(); ++i)
  {
    results[i].status = ews_read_message(list[i]).status();
    if (results[i].status.ok())
      results[i].id = child(list[i], "ItemId").attribute("Id").value();
  }
  return status;
}
