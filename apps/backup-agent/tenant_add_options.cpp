#include "apps/backup-agent/tenant_add_options.h"

#include "host/http/uri_parser.h"
#include "host/base/uuid.h"

#include <cctype>

const char* const Tenant_Add_Options::default_login_endpoint = "https://login.microsoftonline.com";
const char* const Tenant_Add_Options::default_graph_endpoint = "https://graph.microsoft.com";
const char* const Tenant_Add_Options::default_ews_endpoint = "https://outlook.office365.com/EWS/Exchange.asmx";

namespace
{
struct Option
{
  const char* name;
  std::string Office365_Auth_Entry::*field;
};

const Option entry_options[] = {
  {"--tenant-id", &Office365_Auth_Entry::tenant_id},
  {"--client-id", &Office365_Auth_Entry::client_id},
  {"--tenant-email", &Office365_Auth_Entry::tenant_email},
  {"--login-endpoint", &Office365_Auth_Entry::ms_login_endpoint},
  {"--graph-endpoint", &Office365_Auth_Entry::ms_graph_endpoint},
  {"--ews-endpoint", &Office365_Auth_Entry::ews_endpoint},
  {"--transport", &Office365_Auth_Entry::transport},
};

// A uuid in its lower-case form; empty when `text` is none.
std::string canonical_uuid(const std::string& text)
{
  unsigned char bytes[16];
  return uuid_string_to_binary(text.c_str(), bytes) == 0 ? uuid_binary_to_string(bytes) : std::string();
}

// A directory id (GUID) or one of the tenant's domain names.
bool valid_tenant_id(const std::string& id)
{
  if (id.empty() || id.front() == '.' || id.front() == '-')
    return false;
  for (char c : id)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '-')
      return false;
  return true;
}

bool valid_email(const std::string& address)
{
  const size_t at = address.find('@');
  if (at == 0 || at == std::string::npos || at + 1 == address.size() || address.find('@', at + 1) != std::string::npos)
    return false;
  for (char c : address)
    if (std::isspace(static_cast<unsigned char>(c)) || std::iscntrl(static_cast<unsigned char>(c)))
      return false;
  return true;
}

// An https URL (plain http only to a loopback address), without query or fragment.
bool check_endpoint(const char* what, std::string& url, bool needs_path, std::string& error)
{
  while (!url.empty() && url.back() == '/')
    url.pop_back();
  URI uri;
  if (!URI_Parser::parse(url.c_str(), uri) || !uri.query().empty() || url.find('#') != std::string::npos)
    error = std::string("the ") + what + " endpoint '" + url + "' is not a URL of the form https://host[:port][/path]";
  else if (!uri.is_ssl() && !uri.is_loopback())
    error = std::string("the ") + what + " endpoint '" + url + "' must use https (plain http only on loopback)";
  else if (needs_path && uri.path() == "/")
    error = std::string("the ") + what + " endpoint '" + url + "' has no path; give the service URL, such as " +
            Tenant_Add_Options::default_ews_endpoint;
  return error.empty();
}
}  // namespace

bool Tenant_Add_Options::parse(const std::vector<std::string>& args, std::string& error)
{
  entry = Office365_Auth_Entry();
  entry.ms_login_endpoint = default_login_endpoint;
  entry.ms_graph_endpoint = default_graph_endpoint;
  entry.ews_endpoint = default_ews_endpoint;
  uuid.clear();
  secret_file.clear();
  for (size_t i = 0; i < args.size(); ++i)
  {
    const size_t equals = args[i].find('=');
    const std::string name = args[i].substr(0, equals);
    if (name == "--client-secret" || name == "--secret")
    {
      error =
        "the client secret is not taken from the command line, where other users can see it; give "
        "--secret-file FILE or write it to standard input";
      return false;
    }
    std::string* value = option_value(name);
    if (value == nullptr)
    {
      // An argument that is not an option is not echoed: it may be a secret typed in the wrong place.
      error = name.compare(0, 2, "--") == 0 ? "unknown option " + name
                                            : std::string("unexpected argument; options take the form --name VALUE");
      return false;
    }
    if (equals != std::string::npos)
      *value = args[i].substr(equals + 1);
    else if (i + 1 < args.size())
      *value = args[++i];
    else
    {
      error = "option " + name + " needs a value";
      return false;
    }
  }
  return check(error);
}

std::string* Tenant_Add_Options::option_value(const std::string& name)
{
  for (const Option& o : entry_options)
    if (name == o.name)
      return &(entry.*o.field);
  if (name == "--secret-file")
    return &secret_file;
  if (name == "--uuid")
    return &uuid;
  return nullptr;
}

bool Tenant_Add_Options::check(std::string& error)
{
  if (entry.tenant_id.empty() || entry.client_id.empty() || entry.tenant_email.empty())
  {
    error = "--tenant-id, --client-id and --tenant-email are required";
    return false;
  }
  if (!valid_tenant_id(entry.tenant_id))
    error = "the tenant id '" + entry.tenant_id + "' is neither a directory id nor a domain name";
  else if (canonical_uuid(entry.client_id).empty())
    error = "the client id '" + entry.client_id + "' is not an application (client) id, which is a GUID";
  else if (!valid_email(entry.tenant_email))
    error = "the tenant email '" + entry.tenant_email + "' is not a mail address";
  else if (!uuid.empty() && canonical_uuid(uuid).empty())
    error = "--uuid '" + uuid + "' is not a uuid";
  else if (!Office365_Auth_Entry::known_transport(entry.transport))
    error = "unknown transport '" + entry.transport + "'; the known ones are ews and graph";
  if (!error.empty())
    return false;
  uuid = canonical_uuid(uuid);
  return check_endpoint("login", entry.ms_login_endpoint, false, error) &&
         check_endpoint("Graph", entry.ms_graph_endpoint, false, error) &&
         check_endpoint("EWS", entry.ews_endpoint, true, error);
}
