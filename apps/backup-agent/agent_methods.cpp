#include "apps/backup-agent/agent_methods.h"

#include "apps/backup-agent/sets_command.h"
#include "apps/backup-agent/tenant_add_options.h"
#include "apps/backup-agent/tenant_command.h"
#include "host/job/instance_handler.h"
#include "host/office365/office365_tenant_registry.h"
#include "host/storage/backupd_client.h"

#include <sstream>

namespace
{
const int INVALID_PARAMS = -32602;
const int INTERNAL_ERROR = -32603;

int invalid(std::string& message, const std::string& text)
{
  message = "Invalid params: " + text;
  return INVALID_PARAMS;
}

int expected(std::string& message, const char* key, const char* type)
{
  return invalid(message, std::string("'") + key + "' is expected as " + type + " in params.");
}

// The string member `key`; false when absent or not a string (an absent
// optional member leaves `out` as it was and is not an error when `optional`).
bool get_string(const nlohmann::ordered_json& params, const char* key, std::string& out, bool optional = false)
{
  const auto found = params.find(key);
  if (found == params.end())
    return optional;
  if (!found->is_string())
    return false;
  out = found->get<std::string>();
  return true;
}

// An array of strings, or (with `single`) one string taken as an array of one.
bool get_strings(const nlohmann::ordered_json& params, const char* key, std::vector<std::string>& out,
                 bool single = false)
{
  const auto found = params.find(key);
  if (found == params.end())
    return true;
  if (single && found->is_string())
  {
    out.push_back(found->get<std::string>());
    return true;
  }
  if (!found->is_array())
    return false;
  for (const auto& value : *found)
  {
    if (!value.is_string())
      return false;
    out.push_back(value.get<std::string>());
  }
  return true;
}

// The last line of what a command wrote to its error stream, without "error: ".
std::string reason(const std::ostringstream& err)
{
  std::string text = err.str();
  while (!text.empty() && text.back() == '\n')
    text.pop_back();
  const size_t line = text.rfind('\n');
  if (line != std::string::npos)
    text = text.substr(line + 1);
  if (text.compare(0, 7, "error: ") == 0)
    text = text.substr(7);
  return text;
}

// Keys of a registration as "agent.add_tenant" takes them, and the `tenant
// add` option each goes to.
const struct
{
  const char* key;
  const char* option;
  bool required;
} registration_keys[] = {
  {"tenant_id", "--tenant-id", true},
  {"client_id", "--client-id", true},
  {"tenant_email", "--tenant-email", true},
  {"ms_login_endpoint", "--login-endpoint", false},
  {"ms_graph_endpoint", "--graph-endpoint", false},
  {"ews_endpoint", "--ews-endpoint", false},
  {"transport", "--transport", false},
  {"uuid", "--uuid", false},
};
}  // namespace

int Agent_Methods::list_tenants(const nlohmann::ordered_json&, nlohmann::ordered_json& result, std::string& message)
{
  const std::string path = Office365_Tenant_Registry::default_path();
  if (path.empty())
  {
    message = "The agent has no state directory, so no tenant registry.";
    return INTERNAL_ERROR;
  }
  Office365_Tenant_Registry registry(path);
  std::string error;
  if (!registry.load(error))
  {
    message = "Failed to read the tenant registry: " + error;
    return INTERNAL_ERROR;
  }
  result["rows"] = nlohmann::ordered_json::array();
  for (const Office365_Tenant_Registry::Tenant& tenant : registry.tenants())
  {
    nlohmann::ordered_json row = {{"uuid", tenant.first}};
    // Never the secret: to_json(false) leaves it out.
    const nlohmann::ordered_json fields = tenant.second.to_json(false);
    for (auto member = fields.begin(); member != fields.end(); ++member)
      row[member.key()] = member.value();
    result["rows"].push_back(row);
  }
  return 0;
}

int Agent_Methods::add_tenant(const nlohmann::ordered_json& params, nlohmann::ordered_json& result,
                              std::string& message)
{
  std::vector<std::string> args;
  for (const auto& key : registration_keys)
  {
    std::string value;
    if (!get_string(params, key.key, value, !key.required))
      return expected(message, key.key, "string");
    if (params.contains(key.key))
      args.push_back(std::string(key.option) + "=" + value);
  }
  const auto secret_value = params.find("client_secret");
  if (secret_value == params.end() || !secret_value->is_string() || secret_value->get_ref<const std::string&>().empty())
    return expected(message, "client_secret", "non-empty string");
  Tenant_Add_Options options;
  std::string error;
  if (!options.parse(args, error))
    return invalid(message, error + ".");
  const std::string& text = secret_value->get_ref<const std::string&>();
  const Secure_String secret(text.begin(), text.end());
  std::ostringstream out, err;
  Tenant_Command command(Office365_Tenant_Registry::default_path(), out, err);
  std::string uuid;
  if (command.register_entry(options, secret, uuid) != 0)
  {
    message = "Failed to register the tenant: " + reason(err);
    return INTERNAL_ERROR;
  }
  result["uuid"] = uuid;
  return 0;
}

int Agent_Methods::list_pools(const nlohmann::ordered_json&, nlohmann::ordered_json& result, std::string& message)
{
  Backupd_Client client(30, 30);
  std::string answer;
  if (!client.get("/d2/r/v2/pools", answer))
  {
    message = "Failed to list the pools of the backup server: " + client.error();
    return INTERNAL_ERROR;
  }
  const nlohmann::ordered_json pools = nlohmann::ordered_json::parse(answer, nullptr, false);
  if (!pools.is_object() || !pools.contains("pools") || !pools["pools"].is_array())
  {
    message = "The backup server's list of pools could not be read.";
    return INTERNAL_ERROR;
  }
  result["rows"] = nlohmann::ordered_json::array();
  for (const auto& pool : pools["pools"])
  {
    if (!pool.is_object())
      continue;
    result["rows"].push_back(
      {{"uuid", pool.value("uuid", "")}, {"name", pool.value("name", "")}, {"url", pool.value("url", "")}});
  }
  return 0;
}

int Agent_Methods::list_sets(const nlohmann::ordered_json& params, nlohmann::ordered_json& result, std::string& message)
{
  std::string tenant, mailbox;
  if (!get_string(params, "tenant", tenant, true))
    return expected(message, "tenant", "string");
  if (!get_string(params, "mailbox", mailbox, true))
    return expected(message, "mailbox", "string");
  std::string error;
  nlohmann::ordered_json sets;
  if (!Sets_Command::list(tenant, mailbox, sets, error))
  {
    message = "Failed to list the backup sets: " + error + ".";
    return INTERNAL_ERROR;
  }
  result["rows"] = sets;
  return 0;
}

int Agent_Methods::start_backup(const nlohmann::ordered_json& params, nlohmann::ordered_json& result,
                                std::string& message)
{
  Backup_Command::Request request;
  if (!get_string(params, "tenant", request.tenant) || request.tenant.empty())
    return expected(message, "tenant", "string");
  if (!get_string(params, "pool", request.pool) || request.pool.empty())
    return expected(message, "pool", "string");
  if (!get_strings(params, "mailboxes", request.mailboxes))
    return expected(message, "mailboxes", "array of strings");
  const auto all = params.find("all_mailboxes");
  if (all != params.end() && !all->is_boolean())
    return expected(message, "all_mailboxes", "boolean");
  request.all_mailboxes = all != params.end() && all->get<bool>();
  if (request.all_mailboxes == !request.mailboxes.empty())
    return invalid(message, "give either 'mailboxes' (not empty) or 'all_mailboxes': true.");
  const auto channels = params.find("channels");
  if (channels != params.end())
  {
    if (!channels->is_number_integer() || channels->get<int64_t>() < 1 || channels->get<int64_t>() > 64)
      return expected(message, "channels", "integer from 1 to 64");
    request.channels = static_cast<int>(channels->get<int64_t>());
  }
  if (!get_string(params, "compression", request.compression, true) ||
      (request.compression != "none" && request.compression != "zstd"))
    return expected(message, "compression", "\"none\" or \"zstd\"");
  Office365_Auth_Entry entry;
  if (!get_office365_auth_entry(request.tenant, entry))
    return invalid(message, "no tenant registration '" + request.tenant + "'.");
  std::string error;
  if (request.all_mailboxes && !Backup_Command::list_all_mailboxes(request, error))
  {
    message = "Failed to list the tenant's mailboxes: " + error + ".";
    return INTERNAL_ERROR;
  }
  std::shared_ptr<Agent_Job> job = Agent_Job::start_backup(module_, request, error);
  if (!job)
  {
    message = "Failed to start the backup: " + error + ".";
    return INTERNAL_ERROR;
  }
  jobs_.add(job);
  result["job_id"] = job->id();
  return 0;
}

int Agent_Methods::start_restore(const nlohmann::ordered_json& params, nlohmann::ordered_json& result,
                                 std::string& message)
{
  Restore_Command::Request request;
  if (!get_string(params, "set", request.set) || request.set.empty())
    return expected(message, "set", "string");
  if (!get_string(params, "from", request.from) || request.from.empty())
    return expected(message, "from", "string");
  if (!get_string(params, "to", request.to) || request.to.empty())
    return expected(message, "to", "string");
  if (!get_strings(params, "path", request.paths, true))
    return expected(message, "path", "string or array of strings");
  if (!get_strings(params, "items", request.items))
    return expected(message, "items", "array of strings");
  if (request.paths.empty() && request.items.empty())
    return invalid(message, "name at least one folder in 'path' or item in 'items'.");
  if (!get_string(params, "relocation", request.relocation, true))
    return expected(message, "relocation", "string");
  std::string error;
  std::shared_ptr<Agent_Job> job = Agent_Job::start_restore(module_, request, error);
  if (!job)
  {
    message = "Failed to start the restore: " + error + ".";
    return INTERNAL_ERROR;
  }
  jobs_.add(job);
  result["job_id"] = job->id();
  return 0;
}

int Agent_Methods::job_status(const nlohmann::ordered_json& params, nlohmann::ordered_json& result,
                              std::string& message)
{
  std::string id;
  if (!get_string(params, "job_id", id))
    return expected(message, "job_id", "string");
  std::shared_ptr<Agent_Job> job = jobs_.find(id);
  if (!job)
    return invalid(message, "no job '" + id + "'.");
  result = job->status();
  return 0;
}

int Agent_Methods::instances(const nlohmann::ordered_json&, nlohmann::ordered_json& result, std::string& message)
{
  // One handler per call: a handler is used by one thread at a time.
  std::shared_ptr<Instance_Handler> handler = module_.library().make<Instance_Handler>("Exchange_Instance_Handler");
  if (!handler)
  {
    message = "The module has no instance handler.";
    return INTERNAL_ERROR;
  }
  Instance_Handler::instances_type found;
  if (handler->probe_instances(found) != 0)
  {
    message = "The module's instance handler failed to probe its instances.";
    return INTERNAL_ERROR;
  }
  result["rows"] = nlohmann::ordered_json::array();
  for (const auto& entry : found)
  {
    if (!entry.second)
      continue;
    nlohmann::ordered_json row = entry.second->to_json();
    std::string state;
    row["state"] = handler->get_state(entry.first.c_str(), state);
    result["rows"].push_back(row);
  }
  return 0;
}
