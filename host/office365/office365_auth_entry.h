#ifndef HOST_OFFICE365_OFFICE365_AUTH_ENTRY_H
#define HOST_OFFICE365_OFFICE365_AUTH_ENTRY_H

#include <nlohmann/json_fwd.hpp>

#include <string>

// One tenant registration: where to get tokens and reach Graph and EWS, and the
// application's credentials. The client secret is held in memory only; it is
// written to nothing but the tenant registry (see Office365_Tenant_Registry).
struct Office365_Auth_Entry
{
  std::string ms_login_endpoint;  // e.g. "https://login.microsoftonline.com"
  std::string ms_graph_endpoint;  // e.g. "https://graph.microsoft.com"
  std::string ews_endpoint;       // e.g. "https://outlook.office365.com/EWS/Exchange.asmx"
  std::string tenant_email;
  std::string tenant_id;
  std::string client_id;
  std::string client_secret;
  // The EWS client's transport for this tenant: "ews" (EWS over SOAP, the
  // default) or "graph" (Microsoft Graph's mailbox import/export API, with a
  // token for ms_graph_endpoint). An older registry without the key means "ews".
  std::string transport = "ews";

  // Reads the registration from an object whose keys are the field names. Every
  // key but "transport" is required and must be a string, and a transport must
  // be a known one; false (entry unchanged) otherwise.
  bool load(const nlohmann::ordered_json& object);
  // The object load() reads. With `with_secret` false, "client_secret" is left out.
  nlohmann::ordered_json to_json(bool with_secret) const;

  // The transport names a registration may give.
  static bool known_transport(const std::string& name);
};

#endif
