#pragma once
// Text of EWS SOAP responses, in the shape Exchange Online sends: an "s:" envelope whose header
// carries h:ServerVersionInfo, operation responses in the messages namespace ("m:") with types
// ("t:"), and SOAP faults with e:ResponseCode / e:Message and t:MessageXml in the detail.
#include <string>
#include <utility>
#include <vector>

namespace exo_sim
{

std::string xml_escape(const std::string& text);

// A complete response envelope around `body` (the operation response element); the text before
// and after it.
std::string soap_envelope(const std::string& body);
std::string soap_envelope_open();
std::string soap_envelope_close();

// A complete SOAP fault envelope. `values` become t:Value Name="..." entries of t:MessageXml.
std::string soap_fault(const std::string& code, const std::string& message,
                       const std::vector<std::pair<std::string, std::string>>& values = {});

// Opening and closing of an operation response: <m:OpResponse ...><m:ResponseMessages>.
std::string soap_operation_open(const std::string& operation);
std::string soap_operation_close(const std::string& operation);

// One <m:OpResponseMessage ResponseClass="Error"> with MessageText, ResponseCode and
// DescriptiveLinkKey; `inner` is placed after them (for example an empty m:Folders).
std::string soap_error_message(const std::string& operation, const std::string& code, const std::string& text,
                               const std::string& inner = "");

// Message text Exchange uses for a response code (a generic one for codes it does not know).
std::string soap_code_text(const std::string& code);

// RFC 3339 UTC time as EWS writes it: 2024-03-01T10:00:00Z.
std::string ews_time(long long epoch_seconds);

}  // namespace exo_sim
