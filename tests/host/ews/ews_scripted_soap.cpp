#include "ews_scripted_soap.h"

#include "host/ews/ews_xml.h"

#include <pugixml.hpp>

#include <sstream>

using ews_xml::child;
using ews_xml::local_name;

namespace
{
const char* const envelope_start =
  "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
  "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\">\n"
  "  <s:Header>\n"
  "    <h:ServerVersionInfo MajorVersion=\"15\" MinorVersion=\"20\" MajorBuildNumber=\"7\" MinorBuildNumber=\"0\" "
  "Version=\"V2018_01_08\" xmlns:h=\"http://schemas.microsoft.com/exchange/services/2006/types\"/>\n"
  "  </s:Header>\n"
  "  <s:Body>\n";
const char* const envelope_end = "  </s:Body>\n</s:Envelope>\n";

std::string escape(const std::string& text)
{
  std::string out;
  for (char c : text)
    switch (c)
    {
    case '<':
      out += "&lt;";
      break;
    case '>':
      out += "&gt;";
      break;
    case '&':
      out += "&amp;";
      break;
    case '"':
      out += "&quot;";
      break;
    default:
      out += c;
    }
  return out;
}

Scripted_Reply xml_reply(int status, const std::string& body)
{
  Scripted_Reply r;
  r.status = status;
  r.headers["Content-Type"] = "text/xml; charset=utf-8";
  r.body = envelope_start + body + envelope_end;
  return r;
}

Scripted_Reply fault(const std::string& code, const std::string& text, long back_off_ms)
{
  std::string body =
    "    <s:Fault>\n"
    "      <faultcode xmlns:a=\"http://schemas.microsoft.com/exchange/services/2006/types\">a:" +
    code +
    "</faultcode>\n"
    "      <faultstring xml:lang=\"en-US\">" +
    escape(text) +
    "</faultstring>\n"
    "      <detail>\n"
    "        <e:ResponseCode xmlns:e=\"http://schemas.microsoft.com/exchange/services/2006/errors\">\n"
    "          " +
    code +
    "\n"
    "        </e:ResponseCode>\n"
    "        <e:Message xmlns:e=\"http://schemas.microsoft.com/exchange/services/2006/errors\">\n"
    "          " +
    escape(text) +
    "\n"
    "        </e:Message>\n";
  if (back_off_ms >= 0)
    body +=
      "        <t:MessageXml xmlns:t=\"http://schemas.microsoft.com/exchange/services/2006/types\">\n"
      "          <t:Value Name=\"BackOffMilliseconds\">\n"
      "            " +
      std::to_string(back_off_ms) +
      "\n"
      "          </t:Value>\n"
      "        </t:MessageXml>\n";
  body += "      </detail>\n    </s:Fault>\n";
  return xml_reply(500, body);
}

// One response message; `inner` nests a back-off in an inner error.
std::string message(const std::string& op, const Host_Status& s, const std::string& content, bool inner = false)
{
  std::string m = "        <" + op + "ResponseMessage ResponseClass=\"" + (s.ok() ? "Success" : "Error") + "\">\n";
  if (s.ok())
    return m + "          <ResponseCode>NoError</ResponseCode>\n" + content + "        </" + op + "ResponseMessage>\n";
  m += "          <MessageText>\n            " + escape(s.message) +
       "\n          </MessageText>\n"
       "          <ResponseCode>\n            " +
       s.code +
       "\n          </ResponseCode>\n"
       "          <DescriptiveLinkKey>0</DescriptiveLinkKey>\n";
  if (inner)
    m +=
      "          <MessageXml>\n"
      "            <t:Value Name=\"InnerErrorResponseCode\">ErrorServerBusy</t:Value>\n"
      "            <t:Value Name=\"InnerErrorMessageText\">The server cannot service this request right "
      "now.</t:Value>\n"
      "            <t:InnerError>\n"
      "              <t:Value Name=\"BackOffMilliseconds\">" +
      std::to_string(s.retry_after_ms) +
      "</t:Value>\n"
      "            </t:InnerError>\n"
      "          </MessageXml>\n";
  else if (s.retry_after_ms >= 0)
    m +=
      "          <MessageXml>\n"
      "            <t:Value Name=\"BackOffMilliseconds\">" +
      std::to_string(s.retry_after_ms) +
      "</t:Value>\n"
      "          </MessageXml>\n";
  return m + "        </" + op + "ResponseMessage>\n";
}

std::string response(const std::string& op, const std::string& messages)
{
  return "    <" + op +
         "Response xmlns=\"http://schemas.microsoft.com/exchange/services/2006/messages\" "
         "xmlns:t=\"http://schemas.microsoft.com/exchange/services/2006/types\">\n"
         "      <ResponseMessages>\n" +
         messages + "      </ResponseMessages>\n    </" + op + "Response>\n";
}

std::string base64_lines(const ustring& data)
{
  const std::string text = EWS_b64_Data::encode(data.data(), data.size());
  std::string out;
  for (size_t i = 0; i < text.size(); i += 76)
    out += text.substr(i, 76) + "\n";
  return out;
}

EWS_Folder_Ref folder_ref(const pugi::xml_node& parent)
{
  EWS_Folder_Ref ref;
  const pugi::xml_node id = child(parent, "FolderId");
  if (id)
    ref.id = id.attribute("Id").value();
  else if (std::string(child(parent, "DistinguishedFolderId").attribute("Id").value()) != "msgfolderroot")
    ref.id = "no-such-distinguished-folder";
  return ref;
}

std::string paging(const EWS_Page_Cursor& next, bool last, size_t total)
{
  return "IndexedPagingOffset=\"" + std::to_string(next.offset) + "\" TotalItemsInView=\"" + std::to_string(total) +
         "\" IncludesLastItemInRange=\"" + (last ? "true" : "false") + "\"";
}
}  // namespace

Scripted_Reply Ews_Scripted_Soap::answer(const Scripted_Request& request)
{
  pugi::xml_document doc;
  if (!doc.load_string(request.body.c_str()))
    return fault("ErrorSchemaValidation", "The request failed schema validation.", -1);
  const pugi::xml_node envelope = doc.document_element();
  const pugi::xml_node sid = child(child(child(envelope, "Header"), "ExchangeImpersonation"), "ConnectingSID");
  const pugi::xml_node op = child(envelope, "Body").first_child();
  const std::string name = local_name(op);
  ++service_->calls[name];

  EWS_Mailbox mailbox;
  const pugi::xml_node form = sid.first_child();
  last_form = form ? local_name(form) : "";
  mailbox.name = form.text().get();
  mailbox.form = last_form == "PrincipalName" ? EWS_MAILBOX_PRINCIPAL_NAME : EWS_MAILBOX_SMTP_ADDRESS;
  const auto anchor = request.headers.find("x-anchormailbox");
  Fake_Ews_Mailbox* box = service_->find(mailbox);
  if (last_form == "PrimarySmtpAddress" && box && box->smtp != mailbox.name)
    box = nullptr;
  if (box && !mailbox.name.empty() && (anchor == request.headers.end() || anchor->second != mailbox.name))
    return fault("ErrorInvalidRequest", "X-AnchorMailbox does not name the impersonated mailbox.", -1);

  Host_Status call;
  const bool scripted = service_->take_call_fault(call) && !call.ok();
  const bool cut = scripted && call.code == "cut after 2";
  if (scripted && !cut)
  {
    if (call.code.compare(0, 5, "HTTP ") == 0)
    {
      Scripted_Reply r;
      r.status = std::stoi(call.code.substr(5));
      if (call.retry_after_ms >= 0)
        r.headers["Retry-After"] = std::to_string(call.retry_after_ms / 1000);
      return r;
    }
    if (call.code == "inner ErrorServerBusy")
    {
      const Host_Status outer = Host_Status::make(HOST_STATUS_TRANSIENT, "ErrorInternalServerError",
                                                  "An internal server error occurred.", call.retry_after_ms);
      return xml_reply(200, response(name, message(name, outer, "", true)));
    }
    return fault(call.code, call.message, call.retry_after_ms);
  }
  if (box == nullptr)
    return fault("ErrorNonExistentMailbox", "The SMTP address has no mailbox associated with it.", -1);

  std::string messages;
  if (name == "FindFolder" || name == "FindItem")
  {
    const pugi::xml_node view = child(op, name == "FindFolder" ? "IndexedPageFolderView" : "IndexedPageItemView");
    const long offset = view.attribute("Offset").as_int();
    const int max = view.attribute("MaxEntriesReturned").as_int(1000);
    const EWS_Folder_Ref parent = folder_ref(child(op, "ParentFolderIds"));
    std::string content;
    Host_Status s;
    if (name == "FindFolder")
    {
      EWS_Folder_Page page;
      s = service_->find_folders(*box, parent, std::string(op.attribute("Traversal").value()) == "Deep", offset, max,
                                 page);
      content =
        "          <RootFolder " + paging(page.next, page.last, page.folders.size()) + ">\n            <t:Folders>\n";
      for (size_t i = 0; i < page.folders.size(); ++i)
      {
        const EWS_Folder& f = page.folders[i];
        const std::string element = std::string("t:") + ews_folder_element(f.type);
        content += "              <" + element + "><t:FolderId Id=\"" + f.id + "\" ChangeKey=\"" + f.change_key +
                   "\"/><t:ParentFolderId Id=\"" + page.parent_ids[i] + "\"/><t:DisplayName>" + escape(f.display_name) +
                   "</t:DisplayName><t:TotalCount>" + std::to_string(f.items_count) +
                   "</t:TotalCount><t:ChildFolderCount>" + std::to_string(f.subfolders_count) +
                   "</t:ChildFolderCount></" + element + ">\n";
      }
      content += "            </t:Folders>\n          </RootFolder>\n";
    }
    else
    {
      EWS_Item_Page page;
      s = service_->find_items(*box, parent.id, offset, max, page);
      content =
        "          <RootFolder " + paging(page.next, page.last, page.items.size()) + ">\n            <t:Items>\n";
      for (const EWS_Item& i : page.items)
        content += "              <t:Message><t:ItemId Id=\"" + i.id + "\" ChangeKey=\"" + i.change_key +
                   "\"/><t:Subject>" + escape(i.subject) + "</t:Subject><t:Size>" + std::to_string(i.size) +
                   "</t:Size><t:DateTimeCreated>" + ews_xml::format_time(i.ctime) +
                   "</t:DateTimeCreated></t:Message>\n";
      content += "            </t:Items>\n          </RootFolder>\n";
    }
    messages = message(name, s, s.ok() ? content : "");
  }
  else if (name == "ExportItems")
  {
    size_t count = 0;
    for (pugi::xml_node id = child(op, "ItemIds").first_child(); id; id = id.next_sibling())
    {
      if (id.type() != pugi::node_element)
        continue;
      ++count;
      const std::string item = id.attribute("Id").value();
      ustring data;
      const Host_Status s = service_->export_item(*box, item, data);
      const std::string text = service_->damaged.count(item) ? "@@@@ this is not base64 @@@@\n" : base64_lines(data);
      messages += message(name, s,
                          "          <ItemId Id=\"" + item + "\" ChangeKey=\"CK" + item + "\"/>\n          <Data>\n" +
                            text + "          </Data>\n");
    }
    service_->export_batches.push_back(count);
  }
  else if (name == "CreateFolder")
  {
    EWS_Folder_Creation_Request r;
    const pugi::xml_node folder = child(op, "Folders").first_child();
    r.display_name = child(folder, "DisplayName").text().get();
    r.type = ews_folder_type_of(local_name(folder));
    const Host_Status s = service_->create_folder(*box, folder_ref(child(op, "ParentFolderId")), r);
    messages = message(name, s,
                       s.ok() ? "          <Folders><t:Folder><t:FolderId Id=\"" + r.id + "\" ChangeKey=\"" +
                                  r.change_key + "\"/></t:Folder></Folders>\n"
                              : "          <Folders/>\n");
  }
  else if (name == "UploadItems")
  {
    for (pugi::xml_node item = child(op, "Items").first_child(); item; item = item.next_sibling())
    {
      if (item.type() != pugi::node_element)
        continue;
      const std::string folder = child(item, "ParentFolderId").attribute("Id").value();
      const char* text = child(item, "Data").text().get();
      EWS_b64_Data data;
      EWS_Upload_Result r;
      if (!EWS_b64_Data::decode(text, std::char_traits<char>::length(text), data))
        r.status = Host_Status::make(HOST_STATUS_PERMANENT, "ErrorCorruptData", "The item data is corrupt.");
      else
        r = service_->upload_item(*box, folder, ustring(data.ptr.get(), static_cast<size_t>(data.size)));
      messages +=
        message(name, r.status, r.status.ok() ? "          <ItemId Id=\"" + r.id + "\" ChangeKey=\"CK\"/>\n" : "");
    }
  }
  else
    return fault("ErrorInvalidRequest", "The request is invalid.", -1);
  Scripted_Reply reply = xml_reply(200, response(name, messages));
  if (cut)
  {
    // As during a failover: the answer stops inside the third message.
    size_t at = 0;
    for (int i = 0; i < 3 && at != std::string::npos; ++i)
      at = reply.body.find("ResponseMessage ResponseClass", at + 1);
    if (at != std::string::npos)
      reply.body = reply.body.substr(0, at + 40) + "\n=== Truncated Data ===";
  }
  return reply;
}
