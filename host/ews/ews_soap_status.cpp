#include "host/ews/ews_soap_status.h"

#include "host/ews/ews_status.h"
#include "host/ews/ews_xml.h"

#include <cctype>
#include <cstdlib>

using ews_xml::child;
using ews_xml::local_name;

namespace
{
// Every t:Value below `node`, however deep: a back-off may sit in the MessageXml
// of an inner error rather than directly under the message.
void read_values(const pugi::xml_node& node, EWS_Soap_Message& message)
{
  for (pugi::xml_node n = node.first_child(); n; n = n.next_sibling())
  {
    if (n.type() != pugi::node_element)
      continue;
    if (local_name(n) == "Value")
      message.add_value(n.attribute("Name").value(), n.text().get());
    else
      read_values(n, message);
  }
}
}  // namespace

void EWS_Soap_Message::add_value(const std::string& name, const std::string& value)
{
  const std::string v = trim_space(value);
  if (name == "BackOffMilliseconds")
  {
    char* end = nullptr;
    const long ms = std::strtol(v.c_str(), &end, 10);
    if (end != v.c_str() && *end == '\0' && ms >= 0)
      back_off_ms = ms;
  }
  else if (name == "InnerErrorResponseCode")
    inner_code = v;
}

Host_Status EWS_Soap_Message::status() const
{
  if (response_class == "Success" || (response_class == "Warning" && code == "NoError"))
    return Host_Status();
  if (code == "ErrorServerBusy" || inner_code == "ErrorServerBusy" || back_off_ms >= 0)
    return Host_Status::make(HOST_STATUS_THROTTLED, code, text, back_off_ms);
  if (ews_is_transient_code(code) || ews_is_transient_code(inner_code))
    return Host_Status::make(HOST_STATUS_TRANSIENT, code, text);
  return Host_Status::make(HOST_STATUS_PERMANENT, code, text);
}

EWS_Soap_Message ews_read_message(const pugi::xml_node& message)
{
  EWS_Soap_Message m;
  m.response_class = trim_space(message.attribute("ResponseClass").value());
  m.code = trim_space(child(message, "ResponseCode").text().get());
  m.text = trim_space(child(message, "MessageText").text().get());
  read_values(child(message, "MessageXml"), m);
  return m;
}

EWS_Soap_Message ews_read_fault(const pugi::xml_node& fault)
{
  EWS_Soap_Message m;
  m.response_class = "Error";
  const pugi::xml_node detail = child(fault, "detail");
  m.code = trim_space(child(detail, "ResponseCode").text().get());
  m.text = trim_space(child(detail, "Message").text().get());
  if (m.text.empty())
    m.text = trim_space(child(fault, "faultstring").text().get());
  read_values(child(detail, "MessageXml"), m);
  return m;
}
