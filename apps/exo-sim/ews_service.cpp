#include "apps/exo-sim/ews_service.h"

#include <algorithm>
#include <chrono>
#include <set>
#include <thread>

#include "apps/exo-sim/ascii_case.h"
#include "apps/exo-sim/base64_codec.h"
#include "apps/exo-sim/id_formats.h"
#include "apps/exo-sim/soap_format.h"
#include "apps/exo-sim/xml_ns.h"

namespace exo_sim
{

namespace
{

const int k_max_page = 1000;  // EWSFindCountLimit: larger pages have no effect

// The schema versions Exchange Online accepts in RequestServerVersion, oldest first (the
// ExchangeVersionType enumeration of its schema). Anything else is ErrorInvalidServerVersion.
const std::vector<std::string>& schema_versions()
{
  static const std::vector<std::string> versions = {
    "Exchange2007", "Exchange2007_SP1", "Exchange2009",     "Exchange2010", "Exchange2010_SP1", "Exchange2010_SP2",
    "Exchange2012", "Exchange2013",     "Exchange2013_SP1", "Exchange2015", "Exchange2016",     "V2015_10_05",
    "V2016_01_06",  "V2016_04_13",      "V2016_07_13",      "V2016_10_10",  "V2017_01_07",      "V2017_04_14",
    "V2017_07_11",  "V2017_10_09",      "V2018_01_08"};
  return versions;
}

// Position of a version in schema_versions(), or -1.
int version_rank(const std::string& version)
{
  const auto& v = schema_versions();
  auto it = std::find(v.begin(), v.end(), version);
  return it == v.end() ? -1 : int(it - v.begin());
}

// The first schema version that has an operation (ExportItems and UploadItems came with
// Exchange 2010 SP1, ConvertId with Exchange 2007 SP1, the rest with Exchange 2007).
int operation_version_rank(const std::string& op)
{
  if (op == "ExportItems" || op == "UploadItems")
    return version_rank("Exchange2010_SP1");
  if (op == "ConvertId")
    return version_rank("Exchange2007_SP1");
  return 0;
}

std::string id_element(const char* name, const std::string& id, const std::string& change_key)
{
  return std::string("<") + name + " Id=\"" + xml_escape(id) + "\" ChangeKey=\"" + xml_escape(change_key) + "\"/>";
}

// A ChangeKey attribute, when present, must be one: base64 of at least the 8-byte header change
// keys start with. Anything else is ErrorInvalidChangeKey, whatever the id.
bool change_key_ok(const pugi::xml_node& id)
{
  pugi::xml_attribute a = id.attribute("ChangeKey");
  std::string bytes;
  return !a || (base64_decode(a.value(), bytes) && bytes.size() >= 8);
}

bool parse_int_attr(const pugi::xml_node& node, const char* name, int& out)
{
  pugi::xml_attribute a = node.attribute(name);
  if (!a)
    return false;
  std::string v = a.value();
  if (v.empty() || v.size() > 9 || v.find_first_not_of("0123456789") != std::string::npos)
    return false;
  out = std::stoi(v);
  return true;
}

// Which properties a FolderShape / ItemShape asks for: the base shape's set plus FieldURIs.
struct Shape
{
  std::string base;
  std::set<std::string> fields;  // "folder:DisplayName", "item:Subject", ...
  bool hidden_flag = false;      // PR_ATTR_HIDDEN extended property
  bool has(const std::string& f) const { return fields.count(f) > 0; }
};

bool read_shape(const pugi::xml_node& shape_node, Shape& shape)
{
  pugi::xml_node base = xml_child(shape_node, k_ns_types, "BaseShape");
  shape.base = base.text().get();
  if (shape.base != "IdOnly" && shape.base != "Default" && shape.base != "AllProperties")
    return false;
  pugi::xml_node extra = xml_child(shape_node, k_ns_types, "AdditionalProperties");
  for (const auto& f : xml_children(extra, k_ns_types, "FieldURI"))
    shape.fields.insert(f.attribute("FieldURI").value());
  for (const auto& f : xml_children(extra, k_ns_types, "ExtendedFieldURI"))
  {
    std::string tag = ascii_lower(f.attribute("PropertyTag").value());
    if (tag == "4340" || tag == "0x10f4")
      shape.hidden_flag = true;
  }
  return true;
}

struct Page
{
  bool indexed = false;
  int offset = 0;
  int max = k_max_page;
  bool from_end = false;

  // The entries [start, end) of `total` this page covers, counting from the start or,
  // with BasePoint="End", back from the end; `more` when entries remain beyond it.
  void window(int total, int& start, int& end, bool& more) const
  {
    if (from_end)
    {
      end = std::max(0, total - offset);
      start = std::max(0, end - max);
      more = start > 0;
    }
    else
    {
      start = std::min(offset, total);
      end = std::min(total, start + max);
      more = end < total;
    }
  }
};

bool read_page(const pugi::xml_node& view, Page& page)
{
  if (!view)
    return true;
  page.indexed = true;
  if (!parse_int_attr(view, "Offset", page.offset))
    return false;
  if (view.attribute("MaxEntriesReturned") && !parse_int_attr(view, "MaxEntriesReturned", page.max))
    return false;
  if (page.max < 1)
    return false;
  page.max = std::min(page.max, k_max_page);
  std::string base = view.attribute("BasePoint").value();
  if (!base.empty() && base != "Beginning" && base != "End")
    return false;
  page.from_end = base == "End";
  return true;
}

const char* folder_element(const std::string& folder_class)
{
  auto is = [&](const char* c) { return folder_class == c || folder_class.rfind(std::string(c) + ".", 0) == 0; };
  if (is("IPF.Appointment"))
    return "CalendarFolder";
  if (is("IPF.Contact"))
    return "ContactsFolder";
  if (is("IPF.Task"))
    return "TasksFolder";
  return "Folder";
}

std::string folder_xml(const Folder_View& f, const Shape& s)
{
  bool def = s.base != "IdOnly";
  bool all = s.base == "AllProperties";
  const char* el = folder_element(f.folder_class);
  std::string out = std::string("<t:") + el + ">" + id_element("t:FolderId", f.id, f.change_key);
  if ((all || s.has("folder:ParentFolderId")) && !f.parent_id.empty())
    out += id_element("t:ParentFolderId", f.parent_id, "AQAAAA==");
  if (all || s.has("folder:FolderClass"))
    out += "<t:FolderClass>" + xml_escape(f.folder_class) + "</t:FolderClass>";
  if (def || s.has("folder:DisplayName"))
    out += "<t:DisplayName>" + xml_escape(f.name) + "</t:DisplayName>";
  if (def || s.has("folder:TotalCount"))
    out += "<t:TotalCount>" + std::to_string(f.total_count) + "</t:TotalCount>";
  if (def || s.has("folder:ChildFolderCount"))
    out += "<t:ChildFolderCount>" + std::to_string(f.child_count) + "</t:ChildFolderCount>";
  if (s.hidden_flag)
    out += std::string("<t:ExtendedProperty><t:ExtendedFieldURI PropertyTag=\"0x10f4\" PropertyType=\"Boolean\"/>") +
           "<t:Value>" + (f.hidden ? "true" : "false") + "</t:Value></t:ExtendedProperty>";
  bool has_unread = std::string(el) == "Folder" || std::string(el) == "TasksFolder";
  if (has_unread && (def || s.has("folder:UnreadCount")))
    out += "<t:UnreadCount>0</t:UnreadCount>";
  return out + "</t:" + el + ">";
}

std::string item_xml(const Item_View& item, const Shape& s)
{
  bool def = s.base != "IdOnly";
  auto want = [&](const char* field) { return def || s.has(field); };
  const std::string el = item_element_for_class(item.meta.item_class);
  std::string out = "<t:" + el + ">" + id_element("t:ItemId", item.id, item.change_key);
  std::string created = ews_time(item.meta.created);
  if (want("item:ParentFolderId"))
    out += id_element("t:ParentFolderId", item.parent_id, "AQAAAA==");
  if (want("item:ItemClass"))
    out += "<t:ItemClass>" + xml_escape(item.meta.item_class) + "</t:ItemClass>";
  // An item without a subject has no Subject property at all.
  if (want("item:Subject") && !item.meta.subject.empty())
    out += "<t:Subject>" + xml_escape(item.meta.subject) + "</t:Subject>";
  if (def)
    out += "<t:Sensitivity>Normal</t:Sensitivity>";
  if (want("item:DateTimeReceived"))
    out += "<t:DateTimeReceived>" + created + "</t:DateTimeReceived>";
  if (want("item:Size"))
    out += "<t:Size>" + std::to_string(item.meta.size) + "</t:Size>";
  if (def)
    out += "<t:Importance>Normal</t:Importance><t:IsSubmitted>false</t:IsSubmitted><t:IsDraft>false</t:IsDraft>";
  if (want("item:DateTimeSent"))
    out += "<t:DateTimeSent>" + created + "</t:DateTimeSent>";
  if (want("item:DateTimeCreated"))
    out += "<t:DateTimeCreated>" + created + "</t:DateTimeCreated>";
  if (want("item:HasAttachments"))
    out += "<t:HasAttachments>false</t:HasAttachments>";
  if (want("item:LastModifiedTime"))
    out += "<t:LastModifiedTime>" + ews_time(item.meta.modified) + "</t:LastModifiedTime>";
  return out + "</t:" + el + ">";
}

std::string root_folder_open(const Page& page, int next_offset, int total, bool last)
{
  std::string out = "<m:RootFolder";
  if (page.indexed)
    out += " IndexedPagingOffset=\"" + std::to_string(next_offset) + "\"";
  out += " TotalItemsInView=\"" + std::to_string(total) + "\" IncludesLastItemInRange=\"" + (last ? "true" : "false") +
         "\">";
  return out;
}

std::string success_open(const std::string& op)
{
  return "<m:" + op + "ResponseMessage ResponseClass=\"Success\"><m:ResponseCode>NoError</m:ResponseCode>";
}

std::string error_for(const std::string& op, const std::string& code, const std::string& inner = "")
{
  return soap_error_message(op, code, soap_code_text(code), inner);
}

// RAII release of a per-mailbox concurrency slot.
class Mailbox_Slot
{
public:
  Mailbox_Slot(Fault_Injector& faults, const std::string& mailbox) : faults_(faults), mailbox_(mailbox) {}
  ~Mailbox_Slot() { faults_.leave_mailbox(mailbox_); }
  Mailbox_Slot(const Mailbox_Slot&) = delete;
  Mailbox_Slot& operator=(const Mailbox_Slot&) = delete;

private:
  Fault_Injector& faults_;
  std::string mailbox_;
};

}  // namespace

Ews_Service::Ews_Service(Mailbox_Store& store, Token_Service& tokens, Fault_Injector& faults, Sim_Stats& stats)
  : store_(store), tokens_(tokens), faults_(faults), stats_(stats)
{
}

Sim_Reply Ews_Service::soap_fault_reply(const std::string& code, const std::string& message,
                                        const std::vector<std::pair<std::string, std::string>>& values)
{
  Sim_Reply r;
  r.status = 500;
  r.content_type = "text/xml; charset=utf-8";
  r.body = soap_fault(code, message, values);
  r.code = code;
  return r;
}

Sim_Reply Ews_Service::unauthorized(const std::string& reason)
{
  Sim_Reply r;
  r.status = 401;
  r.content_type = "text/html";
  r.code = "Unauthorized";
  r.headers.push_back({"WWW-Authenticate",
                       "Bearer client_id=\"00000002-0000-0ff1-ce00-000000000000\", "
                       "token_types=\"app_asserted_user_v1 service_asserted_app_v1\", "
                       "authorization_uri=\"https://login.microsoftonline.com/common/oauth2/authorize\""});
  r.headers.push_back({"WWW-Authenticate", "Basic Realm=\"\""});
  r.headers.push_back({"x-ms-diagnostics", "2000001;reason=\"" + reason + "\";error_category=\"invalid_token\""});
  return r;
}

bool Ews_Service::authenticate(const Ews_Request& request, int& basic_mailbox, Sim_Reply& reply)
{
  basic_mailbox = -1;
  if (request.authorization.compare(0, 6, "Basic ") == 0)
  {
    std::string pair;
    if (base64_decode(request.authorization.substr(6), pair))
    {
      auto colon = pair.find(':');
      std::string user = pair.substr(0, colon);
      std::string password = colon == std::string::npos ? "" : pair.substr(colon + 1);
      for (const auto& acc : store_.tenant().basic_accounts)
      {
        if (ascii_lower(acc.user) == ascii_lower(user) && acc.password == password && colon != std::string::npos)
        {
          basic_mailbox = store_.find_mailbox(acc.user, Address_Form::principal_name);
          if (basic_mailbox < 0)
            basic_mailbox = store_.find_mailbox(acc.user);
          if (basic_mailbox >= 0)
            return true;
        }
      }
    }
    reply = unauthorized("The user name or password is incorrect.");
    return false;
  }
  std::string reason;
  if (tokens_.check(request.authorization, k_audience_ews, reason))
    return true;
  reply = unauthorized(reason);
  return false;
}

bool Ews_Service::check_version(const pugi::xml_node& header, Call& call, Sim_Reply& reply)
{
  // A request without the header targets the first schema version.
  pugi::xml_node v = xml_child(header, k_ns_types, "RequestServerVersion");
  call.version = v ? version_rank(v.attribute("Version").value()) : 0;
  if (call.version >= 0)
    return true;
  reply = soap_fault_reply("ErrorInvalidServerVersion", soap_code_text("ErrorInvalidServerVersion"));
  return false;
}

bool Ews_Service::impersonate(const pugi::xml_node& header, const Ews_Request& request, int basic_mailbox, Call& call,
                              Sim_Reply& reply)
{
  pugi::xml_node imp = xml_child(header, k_ns_types, "ExchangeImpersonation");
  if (!imp)
  {
    if (basic_mailbox >= 0)
    {
      call.mailbox = basic_mailbox;
      return true;
    }
    reply = soap_fault_reply("ErrorInvalidExchangeImpersonationHeaderData",
                             soap_code_text("ErrorInvalidExchangeImpersonationHeaderData"));
    return false;
  }
  // Each form of ConnectingSID names the user one way only: PrincipalName by the user principal
  // name, PrimarySmtpAddress by the primary SMTP address (never a proxy address), SmtpAddress by
  // any SMTP address of the mailbox. Security identifiers are not modelled: no SID names a user.
  pugi::xml_node sid = xml_child(imp, k_ns_types, "ConnectingSID");
  struct Form
  {
    const char* element;
    Address_Form form;
  };
  const Form forms[] = {{"PrincipalName", Address_Form::principal_name},
                        {"PrimarySmtpAddress", Address_Form::primary_smtp},
                        {"SmtpAddress", Address_Form::any_smtp},
                        {"SID", Address_Form::principal_name}};
  pugi::xml_node named;
  Address_Form form = Address_Form::any_smtp;
  for (const auto& f : forms)
  {
    pugi::xml_node n = xml_child(sid, k_ns_types, f.element);
    if (n && !named)
    {
      named = n;
      form = f.form;
    }
  }
  std::string address = named.text().get();
  if (address.empty())
  {
    reply = soap_fault_reply("ErrorInvalidExchangeImpersonationHeaderData",
                             "The impersonation header must name a mailbox by PrincipalName, SID, PrimarySmtpAddress "
                             "or SmtpAddress.");
    return false;
  }
  bool by_sid = xml_local_name(named) == "SID";
  call.mailbox = by_sid ? -1 : store_.find_mailbox(address, form);
  if (call.mailbox < 0)
  {
    reply = soap_fault_reply("ErrorNonExistentMailbox", soap_code_text("ErrorNonExistentMailbox"),
                             {{xml_local_name(named) == "PrincipalName" ? "PrincipalName" : "SmtpAddress", address}});
    return false;
  }
  // X-AnchorMailbox routes the request; it may name the user by principal name or any SMTP address.
  int anchored = store_.find_mailbox(request.anchor_mailbox, Address_Form::any_smtp);
  if (anchored < 0)
    anchored = store_.find_mailbox(request.anchor_mailbox, Address_Form::principal_name);
  if (anchored != call.mailbox)
    stats_.count("anchor_mailbox_missing");
  return true;
}

Sim_Reply Ews_Service::handle(const Ews_Request& request)
{
  Sim_Reply reply;
  if (faults_.roll("ews_503", faults_.settings().ews_503_rate))
  {
    stats_.count("faults.ews_503");
    reply.status = 503;
    reply.content_type = "text/html";
    reply.body = "<html><body><h1>Service Unavailable</h1></body></html>";
    reply.code = "ServiceUnavailable";
    return reply;
  }
  int basic_mailbox = -1;
  if (!authenticate(request, basic_mailbox, reply))
    return reply;

  pugi::xml_document doc;
  pugi::xml_parse_result parsed = doc.load_buffer(request.body.data(), request.body.size());
  pugi::xml_node envelope = doc.document_element();
  pugi::xml_node header = xml_child(envelope, k_ns_soap, "Header");
  pugi::xml_node body = xml_child(envelope, k_ns_soap, "Body");
  Call call;
  call.op = body.first_child();
  while (call.op && call.op.type() != pugi::node_element)
    call.op = call.op.next_sibling();
  if (!parsed || !xml_is(envelope, k_ns_soap, "Envelope") || !call.op)
  {
    std::string why = !parsed ? parsed.description() : "The request is not a SOAP 1.1 envelope with a body.";
    return soap_fault_reply("ErrorSchemaValidation", "The request failed schema validation: " + why,
                            {{"Violation", why}});
  }
  const std::string op_name = xml_local_name(call.op);
  if (!check_version(header, call, reply) || !impersonate(header, request, basic_mailbox, call, reply))
  {
    reply.op = op_name;
    return reply;
  }
  std::string smtp = store_.mailbox_smtp(call.mailbox);
  Fault_Settings settings = faults_.settings();
  if (!faults_.enter_mailbox(smtp))
  {
    stats_.count("faults.max_concurrency");
    reply = soap_fault_reply(
      "ErrorServerBusy",
      "The server cannot service this request right now. Try again later., This operation exceeds the throttling "
      "budget for policy part 'MaxConcurrency', policy value '" +
        std::to_string(settings.max_concurrency) + "',  Budget type: 'Ews'.  Suggested backoff time " +
        std::to_string(settings.busy_backoff_ms) + " ms.",
      {{"BackOffMilliseconds", std::to_string(settings.busy_backoff_ms)}});
    reply.mailbox = smtp;
    reply.op = op_name;
    return reply;
  }
  Mailbox_Slot slot(faults_, smtp);
  // The added latency is spent holding the mailbox's concurrency slot, like a slow call would.
  if (settings.latency_ms > 0)
    std::this_thread::sleep_for(std::chrono::milliseconds(settings.latency_ms));
  if (faults_.roll("busy", settings.busy_rate))
  {
    stats_.count("faults.busy");
    reply = soap_fault_reply("ErrorServerBusy", soap_code_text("ErrorServerBusy"),
                             {{"BackOffMilliseconds", std::to_string(settings.busy_backoff_ms)}});
  }
  else
  {
    reply = dispatch(call);
    if (reply.status == 200)
      reply.code = "NoError";
  }
  reply.mailbox = smtp;
  reply.op = op_name;
  if (reply.status == 200 && faults_.roll("drop", settings.drop_rate))
  {
    stats_.count("faults.drop");
    reply.drop = true;
  }
  return reply;
}

Sim_Reply Ews_Service::dispatch(Call& call)
{
  std::string op = xml_local_name(call.op);
  Sim_Reply reply;
  if (xml_namespace(call.op) != k_ns_messages)
  {
    reply = soap_fault_reply("ErrorInvalidRequest", soap_code_text("ErrorInvalidRequest"));
  }
  else if (call.version < operation_version_rank(op))
  {
    reply = soap_fault_reply("ErrorIncorrectSchemaVersion",
                             "The request is valid but does not specify the correct server version in the "
                             "RequestServerVersion SOAP header. Ensure that the RequestServerVersion SOAP header is "
                             "set with the correct RequestServerVersionValue.");
  }
  else if (op == "GetFolder")
  {
    reply = get_folder(call);
  }
  else if (op == "ConvertId")
  {
    reply = convert_id(call);
  }
  else if (op == "FindFolder")
  {
    reply = find_folder(call);
  }
  else if (op == "FindItem")
  {
    reply = find_item(call);
  }
  else if (op == "ExportItems")
  {
    reply = export_items(call);
  }
  else if (op == "UploadItems")
  {
    reply = upload_items(call);
  }
  else if (op == "CreateFolder")
  {
    reply = create_folder(call);
  }
  else
  {
    reply = soap_fault_reply("ErrorInvalidRequest",
                             "The request is invalid. Operation '" + op + "' is not supported by this server.");
  }
  reply.service = "ews";
  reply.op = op;
  return reply;
}

bool Ews_Service::resolve_folder(const pugi::xml_node& id, int default_mailbox, int& mailbox, int& folder,
                                 std::string& code)
{
  mailbox = default_mailbox;
  if (xml_is(id, k_ns_types, "FolderId"))
  {
    if (!change_key_ok(id))
    {
      code = "ErrorInvalidChangeKey";
      return false;
    }
    Lookup l = store_.resolve_folder_id(mailbox, id.attribute("Id").value(), folder);
    code = l == Lookup::malformed ? "ErrorInvalidIdMalformed" : "ErrorFolderNotFound";
    return l == Lookup::ok;
  }
  if (xml_is(id, k_ns_types, "DistinguishedFolderId"))
  {
    pugi::xml_node box = xml_child(xml_child(id, k_ns_types, "Mailbox"), k_ns_types, "EmailAddress");
    if (box)
    {
      mailbox = store_.find_mailbox(box.text().get());
      if (mailbox < 0)
      {
        code = "ErrorNonExistentMailbox";
        return false;
      }
    }
    code = "ErrorFolderNotFound";
    return store_.resolve_distinguished(mailbox, id.attribute("Id").value(), folder);
  }
  code = "ErrorInvalidIdMalformed";
  return false;
}

Sim_Reply Ews_Service::get_folder(Call& call)
{
  const std::string op = "GetFolder";
  Shape shape;
  std::vector<pugi::xml_node> ids = xml_elements(xml_child(call.op, k_ns_messages, "FolderIds"));
  if (!read_shape(xml_child(call.op, k_ns_messages, "FolderShape"), shape) || ids.empty())
    return soap_fault_reply("ErrorSchemaValidation", soap_code_text("ErrorSchemaValidation"));
  Sim_Reply reply;
  reply.content_type = "text/xml; charset=utf-8";
  std::string body = soap_operation_open(op);
  for (const auto& id : ids)
  {
    int mailbox = 0, folder = 0;
    std::string code;
    if (!resolve_folder(id, call.mailbox, mailbox, folder, code))
    {
      body += error_for(op, code, "<m:Folders/>");
      continue;
    }
    body += success_open(op) + "<m:Folders>" + folder_xml(store_.folder(mailbox, folder), shape) +
            "</m:Folders></m:" + op + "ResponseMessage>";
    ++reply.items;
  }
  reply.body = soap_envelope(body + soap_operation_close(op));
  return reply;
}

Sim_Reply Ews_Service::convert_id(Call& call)
{
  const std::string op = "ConvertId";
  std::string destination = call.op.attribute("DestinationFormat").value();
  std::vector<pugi::xml_node> sources = xml_elements(xml_child(call.op, k_ns_messages, "SourceIds"));
  if (!id_format_known(destination) || sources.empty())
    return soap_fault_reply("ErrorSchemaValidation", soap_code_text("ErrorSchemaValidation"));
  Sim_Reply reply;
  reply.content_type = "text/xml; charset=utf-8";
  std::string body = soap_operation_open(op);
  for (const auto& source : sources)
  {
    // The conversion is lexical: the mailbox address is checked for form only, and the object is
    // not looked up. Public folder ids are not modelled.
    std::string format = source.attribute("Format").value();
    std::string mailbox = source.attribute("Mailbox").value();
    std::string tagged;
    if (!xml_is(source, k_ns_types, "AlternateId") || !id_format_known(format))
      return soap_fault_reply("ErrorSchemaValidation", soap_code_text("ErrorSchemaValidation"));
    auto at = mailbox.find('@');
    if (at == std::string::npos || at == 0 || at + 1 == mailbox.size())
    {
      body += error_for(op, "ErrorInvalidSmtpAddress");
      continue;
    }
    if (!id_from_format(format, source.attribute("Id").value(), tagged))
    {
      body += error_for(op, "ErrorInvalidIdMalformed");
      continue;
    }
    body += success_open(op) + "<m:AlternateId xsi:type=\"t:AlternateIdType\" Format=\"" + destination + "\" Id=\"" +
            xml_escape(id_to_format(destination, tagged)) + "\" Mailbox=\"" + xml_escape(mailbox) + "\"/></m:" + op +
            "ResponseMessage>";
    ++reply.items;
  }
  reply.body = soap_envelope(body + soap_operation_close(op));
  return reply;
}

Sim_Reply Ews_Service::find_folder(Call& call)
{
  const std::string op = "FindFolder";
  std::string traversal = call.op.attribute("Traversal").value();
  Shape shape;
  Page page;
  pugi::xml_node parents = xml_child(call.op, k_ns_messages, "ParentFolderIds");
  if ((traversal != "Shallow" && traversal != "Deep" && traversal != "SoftDeleted") ||
      !read_shape(xml_child(call.op, k_ns_messages, "FolderShape"), shape) ||
      !read_page(xml_child(call.op, k_ns_messages, "IndexedPageFolderView"), page) || xml_elements(parents).empty())
    return soap_fault_reply("ErrorSchemaValidation", soap_code_text("ErrorSchemaValidation"));
  Sim_Reply reply;
  reply.content_type = "text/xml; charset=utf-8";
  std::string body = soap_operation_open(op);
  for (const auto& id : xml_elements(parents))
  {
    int mailbox = 0, folder = 0;
    std::string code;
    if (!resolve_folder(id, call.mailbox, mailbox, folder, code))
    {
      body += error_for(op, code);
      continue;
    }
    std::vector<Folder_View> all;
    if (traversal != "SoftDeleted")
      all = store_.list_folders(mailbox, folder, traversal == "Deep");
    int total = int(all.size()), start = 0, end = 0;
    bool more = false;
    page.window(total, start, end, more);
    body += success_open(op) + root_folder_open(page, page.offset + (end - start), total, !more) + "<t:Folders>";
    for (int k = start; k < end; ++k)
      body += folder_xml(all[size_t(k)], shape);
    body += "</t:Folders></m:RootFolder></m:" + op + "ResponseMessage>";
    reply.items += end - start;
  }
  reply.body = soap_envelope(body + soap_operation_close(op));
  return reply;
}

Sim_Reply Ews_Service::find_item(Call& call)
{
  const std::string op = "FindItem";
  std::string traversal = call.op.attribute("Traversal").value();
  Shape shape;
  Page page;
  pugi::xml_node parents = xml_child(call.op, k_ns_messages, "ParentFolderIds");
  if ((traversal != "Shallow" && traversal != "Associated" && traversal != "SoftDeleted") ||
      !read_shape(xml_child(call.op, k_ns_messages, "ItemShape"), shape) ||
      !read_page(xml_child(call.op, k_ns_messages, "IndexedPageItemView"), page) || xml_elements(parents).empty())
    return soap_fault_reply("ErrorSchemaValidation", soap_code_text("ErrorSchemaValidation"));
  Fault_Settings settings = faults_.settings();
  Sim_Reply reply;
  reply.content_type = "text/xml; charset=utf-8";
  std::string body = soap_operation_open(op);
  for (const auto& id : xml_elements(parents))
  {
    int mailbox = 0, folder = 0;
    std::string code;
    if (!resolve_folder(id, call.mailbox, mailbox, folder, code))
    {
      body += error_for(op, code);
      continue;
    }
    int total = 0;
    store_.list_items(mailbox, folder, traversal == "Associated", 0, 0, total);
    if (traversal == "SoftDeleted")
      total = 0;
    int start = 0, end = 0;
    bool more = false;
    page.window(total, start, end, more);
    int count = end - start;
    // Under load Exchange returns a short page although more items remain.
    if (count > 1 && faults_.roll("partial_page", settings.partial_page_rate))
    {
      stats_.count("faults.partial_page");
      count = (count + 1) / 2;
      more = true;
    }
    std::vector<Item_View> items;
    if (count > 0)
      items = store_.list_items(mailbox, folder, traversal == "Associated", start, count, total);
    body += success_open(op) + root_folder_open(page, page.offset + int(items.size()), total, !more) + "<t:Items>";
    for (const auto& item : items)
      body += item_xml(item, shape);
    body += "</t:Items></m:RootFolder></m:" + op + "ResponseMessage>";
    reply.items += long(items.size());
  }
  stats_.count("items_found", reply.items);
  reply.body = soap_envelope(body + soap_operation_close(op));
  return reply;
}

Sim_Reply Ews_Service::export_items(Call& call)
{
  const std::string op = "ExportItems";
  pugi::xml_node ids = xml_child(call.op, k_ns_messages, "ItemIds");
  std::vector<pugi::xml_node> list = xml_children(ids, k_ns_types, "ItemId");
  if (list.empty())
    return soap_fault_reply("ErrorSchemaValidation", soap_code_text("ErrorSchemaValidation"));
  Sim_Reply reply;
  reply.content_type = "text/xml; charset=utf-8";
  auto stream = std::make_shared<Export_Stream>();
  stream->add_text(soap_envelope_open() + soap_operation_open(op));
  for (const auto& node : list)
  {
    std::string id = node.attribute("Id").value();
    std::string blob, code;
    Item_View view;
    if (!change_key_ok(node))
    {
      stream->add_text(error_for(op, "ErrorInvalidChangeKey"));
      continue;
    }
    if (faults_.item_fails(id, code))
    {
      stats_.count("faults.item_export");
      stream->add_text(error_for(op, code));
      continue;
    }
    bool generated = false;
    Lookup l = store_.export_item(call.mailbox, id, blob, view, generated);
    if (l != Lookup::ok)
    {
      stream->add_text(error_for(op, l == Lookup::malformed ? "ErrorInvalidIdMalformed" : "ErrorItemNotFound"));
      continue;
    }
    stream->add_text(success_open(op) + id_element("m:ItemId", view.id, view.change_key) + "<m:Data>");
    if (generated)
      stream->add_generated(store_.seed(), view.id, view.meta);
    else
      stream->add_text(base64_encode(blob));
    stream->add_text("</m:Data></m:" + op + "ResponseMessage>");
    ++reply.items;
  }
  stats_.count("items_exported", reply.items);
  stream->add_text(soap_operation_close(op) + soap_envelope_close());
  if (faults_.roll("truncate", faults_.settings().truncate_rate))
  {
    // A failover cuts the stream and ends it with a marker instead of the closing tags.
    stats_.count("faults.truncate");
    stream->cut(stream->size() / 2, "\r\n=== Truncated Data ===");
  }
  reply.stream = stream;
  return reply;
}

Sim_Reply Ews_Service::upload_items(Call& call)
{
  const std::string op = "UploadItems";
  std::vector<pugi::xml_node> list = xml_children(xml_child(call.op, k_ns_messages, "Items"), k_ns_types, "Item");
  if (list.empty())
    return soap_fault_reply("ErrorSchemaValidation", soap_code_text("ErrorSchemaValidation"));
  Sim_Reply reply;
  reply.content_type = "text/xml; charset=utf-8";
  std::string body = soap_operation_open(op);
  for (const auto& item : list)
  {
    std::string action = item.attribute("CreateAction").value();
    bool associated = std::string(item.attribute("IsAssociated").value()) == "true";
    pugi::xml_node parent = xml_child(item, k_ns_types, "ParentFolderId");
    pugi::xml_node item_id = xml_child(item, k_ns_types, "ItemId");
    pugi::xml_node data = xml_child(item, k_ns_types, "Data");
    if ((action != "CreateNew" && action != "Update" && action != "UpdateOrCreate") || !parent || !data)
    {
      body += error_for(op, "ErrorInvalidRequest");
      continue;
    }
    if (action == "CreateNew" && item_id)
    {
      body += error_for(op, "ErrorInvalidRequest");
      continue;
    }
    if ((item_id && !change_key_ok(item_id)) || !change_key_ok(parent))
    {
      body += error_for(op, "ErrorInvalidChangeKey");
      continue;
    }
    int folder = 0;
    Lookup l = store_.resolve_folder_id(call.mailbox, parent.attribute("Id").value(), folder);
    if (l != Lookup::ok)
    {
      body += error_for(op, l == Lookup::malformed ? "ErrorInvalidIdMalformed" : "ErrorFolderNotFound");
      continue;
    }
    std::string blob;
    if (!base64_decode(data.text().get(), blob) || blob.empty())
    {
      body += error_for(op, "ErrorCorruptData");
      continue;
    }
    Item_View view;
    l = Lookup::not_found;
    if (action != "CreateNew" && item_id)
      l = store_.upload_update(call.mailbox, folder, item_id.attribute("Id").value(), blob, view);
    if (action == "Update" && l != Lookup::ok)
    {
      body += error_for(op, l == Lookup::malformed ? "ErrorInvalidIdMalformed" : "ErrorItemNotFound");
      continue;
    }
    if (l != Lookup::ok)
      store_.upload_new(call.mailbox, folder, blob, associated, view);
    body += success_open(op) + id_element("m:ItemId", view.id, view.change_key) + "</m:" + op + "ResponseMessage>";
    ++reply.items;
  }
  stats_.count("items_uploaded", reply.items);
  reply.body = soap_envelope(body + soap_operation_close(op));
  return reply;
}

Sim_Reply Ews_Service::create_folder(Call& call)
{
  const std::string op = "CreateFolder";
  std::vector<pugi::xml_node> parent_ids = xml_elements(xml_child(call.op, k_ns_messages, "ParentFolderId"));
  std::vector<pugi::xml_node> folders = xml_elements(xml_child(call.op, k_ns_messages, "Folders"));
  if (parent_ids.size() != 1 || folders.empty())
    return soap_fault_reply("ErrorSchemaValidation", soap_code_text("ErrorSchemaValidation"));
  int mailbox = 0, parent = 0;
  std::string code;
  bool parent_ok = resolve_folder(parent_ids[0], call.mailbox, mailbox, parent, code);
  Sim_Reply reply;
  reply.content_type = "text/xml; charset=utf-8";
  std::string body = soap_operation_open(op);
  for (const auto& f : folders)
  {
    std::string el = xml_local_name(f);
    std::string name = xml_child(f, k_ns_types, "DisplayName").text().get();
    std::string cls = xml_child(f, k_ns_types, "FolderClass").text().get();
    if (cls.empty())
      cls = el == "CalendarFolder"   ? "IPF.Appointment"
            : el == "ContactsFolder" ? "IPF.Contact"
            : el == "TasksFolder"    ? "IPF.Task"
                                     : "IPF.Note";
    if (!parent_ok)
    {
      body += error_for(op, code, "<m:Folders/>");
      continue;
    }
    if (name.empty() || xml_namespace(f) != k_ns_types)
    {
      body += error_for(op, "ErrorInvalidRequest", "<m:Folders/>");
      continue;
    }
    Folder_View view;
    if (!store_.create_folder(mailbox, parent, name, cls, view))
    {
      body += error_for(op, "ErrorFolderExists", "<m:Folders/>");
      continue;
    }
    const char* out_el = folder_element(cls);
    if (el == "SearchFolder")
      out_el = "SearchFolder";
    body += success_open(op) + "<m:Folders><t:" + out_el + ">" + id_element("t:FolderId", view.id, view.change_key) +
            "</t:" + out_el + "></m:Folders></m:" + op + "ResponseMessage>";
    ++reply.items;
  }
  stats_.count("folders_created", reply.items);
  reply.body = soap_envelope(body + soap_operation_close(op));
  return reply;
}

}  // namespace exo_sim
