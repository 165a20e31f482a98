#ifndef TESTS_HOST_EWS_EWS_SCRIPTED_SOAP_H
#define TESTS_HOST_EWS_EWS_SCRIPTED_SOAP_H

// Answers EWS SOAP requests from an Ews_Fake_Service, written the way
// Microsoft's reference samples are: default-namespace message elements,
// codes and texts on indented lines of their own, ErrorServerBusy as an HTTP 500
// SOAP fault with BackOffMilliseconds in detail/MessageXml, ExportItems data
// wrapped over several lines. Impersonation is read from
// ConnectingSID/PrincipalName or /SmtpAddress (PrimarySmtpAddress matches the
// primary SMTP address only) and must agree with X-AnchorMailbox.
//
// Scripted call faults are written by code: "ErrorServerBusy" as the fault
// above, "HTTP <n>" as a bare HTTP status, "inner ErrorServerBusy" as an HTTP
// 200 ErrorInternalServerError whose inner error is ErrorServerBusy, "cut after
// 2" as a normal answer cut off inside its third message, any other code as a
// SOAP fault.

#include "ews_fake_service.h"
#include "support/scripted_server.h"

#include <memory>
#include <string>

class Ews_Scripted_Soap
{
public:
  explicit Ews_Scripted_Soap(std::shared_ptr<Ews_Fake_Service> service) : service_(std::move(service)) {}

  Scripted_Reply answer(const Scripted_Request& request);

  // The impersonation element of the last request ("PrincipalName", ...).
  std::string last_form;

private:
  std::shared_ptr<Ews_Fake_Service> service_;
};

#endif
