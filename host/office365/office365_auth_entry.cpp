#include "host/office365/office365_auth_entry.h"
#include <nlohmann/json.hpp>

namespace
{
struct Field
{
  const char* key;
  std::string Office365_Auth_Entry::*member;
};

const Field fields[] = {
  {"ms_login_endpoint", &Office365_Auth_Entry::ms_login_endpoint},
  {"ms_graph_endpoint", &Office365_Auth_Entry::ms_graph_endpoint},
  {"ews_endpoint", &Office365_Auth_Entry::ews_endpoint},
  {"tenant_email", &Office365_Auth_Entry::tenant_email},
  {"tenant_id", &Office365_Auth_Entry::tenant_id},
  {"client_id", &Office365_Auth_Entry::client_id},
  {"client_secret", &Office365_Auth_Entry::client_secret},
};
}  // namespace

bool Office365_Auth_Entry::load(const nlohmann::ordered_json& object)
{
  if (!object.is_object())
    return false;
  Office365_Auth_Entry loaded;
  for (const Field& f : fields)
  {
    const auto it = object.find(f.key);
    if (it == object.end() || !it->is_string())
      return false;
    loaded.*f.member = it->get<std::string>();
  }
  const auto transport = object.find("transport");
  if (transport != object.end())
  {
    if (!transport->is_string() || !known_transport(transport->get<std::string>()))
      return false;
    loaded.transport = transport->get<std::string>();
  }
  *this = std::move(loaded);
  return true;
}

nlohmann::ordered_json Office365_Auth_Entry::to_json(bool with_secret) const
{
  nlohmann::ordered_json object = nlohmann::ordered_json::object();
  for (const Field& f : fields)
    if (with_secret || f.member != &Office365_Auth_Entry::client_secret)
      object[f.key] = this->*f.member;
  object["transport"] = transport;
  return object;
}

bool Office365_Auth_Entry::known_transport(const std::string& name)
{
  // The EWS client's transport factory makes each of these.
  return name == "ews" || name == "graph";
}
