#ifndef HOST_EWS_EWS_SOAP_STATUS_H
#define HOST_EWS_EWS_SOAP_STATUS_H

#include "host/base/host_status.h"
#include "host/base/trim.h"

#include <pugixml.hpp>

#include <string>

// What one EWS response message (or SOAP fault) said, as read from the wire.
// Codes and texts are trimmed: Microsoft's samples put them on indented lines.
struct EWS_Soap_Message
{
  std::string response_class;  // Success, Warning, Error; empty for a fault
  std::string code;            // ResponseCode
  std::string text;            // MessageText (or a fault's Message/faultstring)
  std::string inner_code;      // MessageXml's InnerErrorResponseCode, if any
  long back_off_ms = -1;       // BackOffMilliseconds, at any depth of MessageXml

  // Takes one MessageXml "t:Value" element into account.
  void add_value(const std::string& name, const std::string& value);
  // The Host_Status this message means: ok, throttled (ErrorServerBusy, here or
  // as the inner error, or any suggested back-off), transient (codes that pass
  // with time) or permanent.
  Host_Status status() const;
};

// Reads a "m:<Op>ResponseMessage" element.
EWS_Soap_Message ews_read_message(const pugi::xml_node& message);
// Reads the "detail" of a SOAP fault (ResponseCode, Message, MessageXml).
EWS_Soap_Message ews_read_fault(const pugi::xml_node& fault);

#endif
