#include "apps/exo-sim/soap_format.h"

#include <ctime>
#include <map>

#include "apps/exo-sim/xml_ns.h"

namespace exo_sim
{

namespace
{

const char k_header[] =
  "<s:Header><h:ServerVersionInfo MajorVersion=\"15\" MinorVersion=\"20\" MajorBuildNumber=\"8198\" "
  "MinorBuildNumber=\"20\" Version=\"V2018_01_08\" "
  "xmlns:h=\"http://schemas.microsoft.com/exchange/services/2006/types\" "
  "xmlns=\"http://schemas.microsoft.com/exchange/services/2006/types\" "
  "xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" "
  "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\"/></s:Header>";

std::string envelope_open()
{
  return std::string("<?xml version=\"1.0\" encoding=\"utf-8\"?><s:Envelope xmlns:s=\"") + k_ns_soap + "\">" + k_header;
}

}  // namespace

std::string xml_escape(const std::string& text)
{
  std::string out;
  out.reserve(text.size());
  for (char c : text)
  {
    switch (c)
    {
    case '&':
      out += "&amp;";
      break;
    case '<':
      out += "&lt;";
      break;
    case '>':
      out += "&gt;";
      break;
    case '"':
      out += "&quot;";
      break;
    case '\'':
      out += "&apos;";
      break;
    default:
      out += c;
    }
  }
  return out;
}

std::string soap_envelope_open()
{
  return envelope_open() +
         "<s:Body xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
         "xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\">";
}

std::string soap_envelope_close() { return "</s:Body></s:Envelope>"; }

std::string soap_envelope(const std::string& body) { return soap_envelope_open() + body + soap_envelope_close(); }

std::string soap_fault(const std::string& code, const std::string& message,
                       const std::vector<std::pair<std::string, std::string>>& values)
{
  std::string out = envelope_open() + "<s:Body><s:Fault>";
  out += std::string("<faultcode xmlns:a=\"") + k_ns_types + "\">a:" + code + "</faultcode>";
  out += "<faultstring xml:lang=\"en-US\">" + xml_escape(message) + "</faultstring><detail>";
  out += std::string("<e:ResponseCode xmlns:e=\"") + k_ns_errors + "\">" + code + "</e:ResponseCode>";
  out += std::string("<e:Message xmlns:e=\"") + k_ns_errors + "\">" + xml_escape(message) + "</e:Message>";
  if (!values.empty())
  {
    out += std::string("<t:MessageXml xmlns:t=\"") + k_ns_types + "\">";
    for (const auto& v : values)
      out += "<t:Value Name=\"" + xml_escape(v.first) + "\">" + xml_escape(v.second) + "</t:Value>";
    out += "</t:MessageXml>";
  }
  out += "</detail></s:Fault></s:Body></s:Envelope>";
  return out;
}

std::string soap_operation_open(const std::string& operation)
{
  return "<m:" + operation + "Response xmlns:m=\"" + k_ns_messages + "\" xmlns:t=\"" + k_ns_types +
         "\"><m:ResponseMessages>";
}

std::string soap_operation_close(const std::string& operation)
{
  return "</m:ResponseMessages></m:" + operation + "Response>";
}

std::string soap_error_message(const std::string& operation, const std::string& code, const std::string& text,
                               const std::string& inner)
{
  return "<m:" + operation + "ResponseMessage ResponseClass=\"Error\"><m:MessageText>" + xml_escape(text) +
         "</m:MessageText><m:ResponseCode>" + code + "</m:ResponseCode><m:DescriptiveLinkKey>0</m:DescriptiveLinkKey>" +
         inner + "</m:" + operation + "ResponseMessage>";
}

std::string soap_code_text(const std::string& code)
{
  static const std::map<std::string, std::string> texts = {
    {"ErrorItemNotFound", "The specified object was not found in the store."},
    {"ErrorFolderNotFound", "The specified folder could not be found in the store."},
    {"ErrorFolderExists", "A folder with the specified name already exists."},
    {"ErrorInvalidIdMalformed", "Id is malformed."},
    {"ErrorCorruptData", "The data is corrupt."},
    {"ErrorItemCorrupt", "The item is corrupt."},
    {"ErrorServerBusy", "The server cannot service this request right now. Try again later."},
    {"ErrorInvalidServerVersion", "The specified server version is invalid."},
    {"ErrorSchemaValidation", "The request failed schema validation."},
    {"ErrorInvalidRequest", "The request is invalid."},
    {"ErrorNonExistentMailbox", "The SMTP address has no mailbox associated with it."},
    {"ErrorInvalidExchangeImpersonationHeaderData",
     "ExchangeImpersonation SOAP header must be present for this type of OAuth token."},
    {"ErrorImpersonateUserDenied", "The account does not have permission to impersonate the requested user."},
    {"ErrorMissingEmptyParameter", "A required parameter is missing."},
    {"ErrorInvalidOperation", "The operation is invalid."},
    {"ErrorAccessDenied", "Access is denied. Check credentials and try again."},
    {"ErrorInvalidChangeKey", "The change key is invalid."},
    {"ErrorInvalidSmtpAddress", "The SMTP address format is invalid."},
  };
  auto it = texts.find(code);
  return it != texts.end() ? it->second : "The request could not be completed (" + code + ").";
}

std::string ews_time(long long epoch_seconds)
{
  std::time_t t = static_cast<std::time_t>(epoch_seconds);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return buf;
}

}  // namespace exo_sim
