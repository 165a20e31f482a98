#include "apps/backup-agent/tenant_command.h"

#include "apps/backup-agent/secret_reader.h"
#include "apps/backup-agent/tenant_add_options.h"
#include "host/base/log.h"
#include "host/base/state_dir.h"
#include "host/base/uuid.h"

#include <algorithm>
#include <cctype>

namespace
{
const char* const no_state_dir =
  "the tenant registry is kept in the agent's state directory: give a configuration "
  "with \"state_dir\" (--config FILE)";

std::string lower(std::string text)
{
  for (char& c : text)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string directory_of(const std::string& path)
{
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string(".") : path.substr(0, std::max<size_t>(slash, 1));
}
}  // namespace

int Tenant_Command::run(const std::vector<std::string>& args)
{
  const std::string sub = args.empty() ? std::string() : args[0];
  const std::vector<std::string> rest(args.begin() + (args.empty() ? 0 : 1), args.end());
  if (sub == "add")
    return add(rest);
  if ((sub == "list" && !rest.empty()) || ((sub == "remove" || sub == "test") && rest.size() != 1))
    return fail("tenant " + sub + (sub == "list" ? " takes no arguments" : " takes one registration uuid"), 64);
  if (sub == "list")
    return list();
  if (sub == "remove")
    return remove(rest[0]);
  if (sub == "test")
    return test(rest[0]);
  err_ << "backup-agent: " << (sub.empty() ? "tenant needs a subcommand" : "unknown tenant subcommand " + sub) << "\n"
       << usage();
  return 64;
}

const char* Tenant_Command::usage()
{
  return "usage: backup-agent [--config FILE] tenant add --tenant-id ID --client-id ID --tenant-email ADDRESS\n"
         "                         [--login-endpoint URL] [--graph-endpoint URL] [--ews-endpoint URL]\n"
         "                         [--transport ews|graph] [--secret-file FILE] [--uuid UUID]\n"
         "       backup-agent [--config FILE] tenant list\n"
         "       backup-agent [--config FILE] tenant remove UUID\n"
         "       backup-agent [--config FILE] tenant test UUID\n"
         "The client secret is read from FILE, or else from standard input; never give it as an argument.\n";
}

int Tenant_Command::add(const std::vector<std::string>& args)
{
  Tenant_Add_Options options;
  std::string error;
  if (!options.parse(args, error))
    return fail(error, 64);
  if (path_.empty())
    return fail(no_state_dir, 1);

  Secure_String secret;
  const bool read = options.secret_file.empty() ? Secret_Reader::from_stdin("client secret: ", err_, secret, error)
                                                : Secret_Reader::from_file(options.secret_file, secret, error);
  if (!read)
    return fail("cannot read the client secret: " + error, 1);
  std::string uuid;
  if (register_entry(options, secret, uuid) != 0)
    return 1;
  out_ << uuid << "\n";
  return 0;
}

int Tenant_Command::register_entry(const Tenant_Add_Options& options, const Secure_String& secret, std::string& uuid)
{
  if (path_.empty())
    return fail(no_state_dir, 1);
  Office365_Auth_Entry entry = options.entry;
  entry.client_secret.assign(secret.begin(), secret.end());

  Registry_Lock lock(path_);
  if (!load_for_change(lock))
    return 1;
  uuid = options.uuid.empty() ? uuid_generate_string() : options.uuid;
  Office365_Auth_Entry previous;
  const bool replaced = registry_.find(uuid, previous);
  warn_of_duplicates(entry, uuid);
  registry_.add(uuid, entry);
  std::fill(entry.client_secret.begin(), entry.client_secret.end(), '\0');
  if (!save())
    return 1;
  LOG_MSG(LM_INFO, "Tenant registration '%s' %s: tenant '%s', client '%s', mailbox '%s'\n", uuid.c_str(),
          replaced ? "replaced" : "added", entry.tenant_id.c_str(), entry.client_id.c_str(),
          entry.tenant_email.c_str());
  return 0;
}

int Tenant_Command::list()
{
  if (!load())
    return 1;
  if (registry_.tenants().empty())
    err_ << "no tenant registrations in " << path_ << "\n";
  out_ << registry_.describe();
  return 0;
}

int Tenant_Command::remove(const std::string& uuid)
{
  Registry_Lock lock(path_);
  Office365_Tenant_Registry::Tenant tenant;
  if (!load_for_change(lock) || !find(uuid, tenant))
    return 1;
  registry_.remove(tenant.first);
  if (!save())
    return 1;
  LOG_MSG(LM_INFO, "Tenant registration '%s' removed: tenant '%s', client '%s'\n", tenant.first.c_str(),
          tenant.second.tenant_id.c_str(), tenant.second.client_id.c_str());
  out_ << "removed " << tenant.first << " (tenant " << tenant.second.tenant_id << ")\n";
  return 0;
}

int Tenant_Command::test(const std::string& uuid)
{
  Office365_Tenant_Registry::Tenant tenant;
  if (!load() || !find(uuid, tenant))
    return 1;
  const Office365_Auth_Entry& entry = tenant.second;
  std::string error;
  if (!Office365_Tenant_Registry::test(entry, error))
    return fail("tenant registration " + tenant.first + " (tenant " + entry.tenant_id + "): " + error, 1);
  // test() succeeding means both scopes were built: Microsoft Graph first, then EWS.
  const std::vector<std::string> scopes = Office365_Tenant_Registry::token_scopes(entry);
  const std::string named = "Graph (" + scopes[0] + ") and EWS (" + scopes[1] + ")";
  LOG_MSG(LM_INFO, "Tenant registration '%s' passed its test: tokens for %s from %s\n", tenant.first.c_str(),
          named.c_str(), entry.ms_login_endpoint.c_str());
  out_ << tenant.first << ": tokens obtained from " << entry.ms_login_endpoint << " for " << named << "\n";
  return 0;
}

bool Tenant_Command::load()
{
  std::string error;
  if (path_.empty())
    error = no_state_dir;
  else
    registry_.load(error);
  if (error.empty())
    return true;
  fail(error, 1);
  return false;
}

bool Tenant_Command::load_for_change(Registry_Lock& lock)
{
  std::string error;
  if (!path_.empty() && !make_dirs(directory_of(path_), 0700))
    error = "cannot create the state directory " + directory_of(path_);
  else if (!path_.empty() && !lock.acquire(error))
    error = "cannot lock the tenant registry: " + error;
  if (error.empty())
    return load();
  fail(error, 1);
  return false;
}

bool Tenant_Command::save()
{
  std::string error;
  if (registry_.save(error))
    return true;
  fail(error, 1);
  return false;
}

bool Tenant_Command::find(const std::string& uuid, Office365_Tenant_Registry::Tenant& tenant)
{
  tenant.first = lower(uuid);
  if (registry_.find(tenant.first, tenant.second))
    return true;
  fail("no tenant registration " + uuid + " in " + path_ + " (see: backup-agent tenant list)", 1);
  return false;
}

void Tenant_Command::warn_of_duplicates(const Office365_Auth_Entry& entry, const std::string& uuid)
{
  for (const Office365_Tenant_Registry::Tenant& t : registry_.tenants())
    if (t.first != uuid && lower(t.second.tenant_id) == lower(entry.tenant_id) &&
        lower(t.second.client_id) == lower(entry.client_id))
      err_ << "warning: this application of tenant " << entry.tenant_id << " is also registered as " << t.first
           << "; to renew that registration's secret, use tenant add --uuid " << t.first << "\n";
}

int Tenant_Command::fail(const std::string& message, int status)
{
  err_ << "error: " << message << "\n";
  return status;
}
