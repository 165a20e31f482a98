#include "host/base/agent_config.h"

#include "host/base/text_file.h"

#include <ace/Guard_T.h>
#include <climits>
#include <nlohmann/json.hpp>

namespace
{
using json = nlohmann::ordered_json;

std::string string_member(const json& obj, const char* key)
{
  auto it = obj.find(key);
  return (it != obj.end() && it->is_string()) ? it->get<std::string>() : std::string();
}

// Flattens {"ews": {"paging_size": 100}} into "ews.paging_size" = 100. Every leaf
// must be an integer; false (and `error` naming the setting) otherwise.
bool collect_settings(const json& obj, const std::string& prefix, std::map<std::string, long>& out, std::string& error)
{
  for (auto it = obj.begin(); it != obj.end(); ++it)
  {
    const std::string name = prefix.empty() ? it.key() : prefix + "." + it.key();
    if (it->is_number_unsigned())
      out[name] = it->get<unsigned long>() > static_cast<unsigned long>(LONG_MAX) ? LONG_MAX : it->get<long>();
    else if (it->is_number_integer())
      out[name] = it->get<long>();
    else if (it->is_object())
    {
      if (!collect_settings(*it, name, out, error))
        return false;
    }
    else
    {
      error = "setting \"" + name + "\" must be an integer";
      return false;
    }
  }
  return true;
}
}  // namespace

Agent_Config::Agent_Config() : on_backupd_(false) {}

Agent_Config& Agent_Config::instance()
{
  static Agent_Config config;
  return config;
}

bool Agent_Config::load_file(const std::string& path, std::string& error)
{
  std::string text;
  if (!read_text_file(path, text))
  {
    error = "cannot open the agent configuration " + path;
    return false;
  }
  return load_text(text, error);
}

bool Agent_Config::load_text(const std::string& text, std::string& error)
{
  json doc = json::parse(text, nullptr, false);
  if (doc.is_discarded() || !doc.is_object())
  {
    error = "the agent configuration is not a JSON object";
    return false;
  }
  std::vector<Account> accounts;
  auto acc = doc.find("accounts");
  if (acc != doc.end())
  {
    if (!acc->is_array())
    {
      error = "\"accounts\" must be an array";
      return false;
    }
    for (const json& a : *acc)
    {
      if (!a.is_object())
      {
        error = "every account must be an object";
        return false;
      }
      const std::string password = string_member(a, "password");
      accounts.push_back(Account{string_member(a, "module"), string_member(a, "type"), string_member(a, "uid"),
                                 string_member(a, "username"), Secure_String(password.begin(), password.end())});
    }
  }
  std::map<std::string, long> settings;
  auto s = doc.find("settings");
  if (s != doc.end())
  {
    if (!s->is_object())
    {
      error = "\"settings\" must be an object";
      return false;
    }
    if (!collect_settings(*s, "", settings, error))
      return false;
  }

  json server = doc.value("backup_server", json::object());
  const std::string access_key = string_member(server, "access_key");
  const std::string node_key = string_member(server, "node_access_key");

  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  state_dir_ = string_member(doc, "state_dir");
  host_id_ = string_member(doc, "host_id");
  log_file_ = string_member(doc, "log_file");
  backup_server_url_ = string_member(server, "url");
  access_key_.assign(access_key.begin(), access_key.end());
  node_access_key_.assign(node_key.begin(), node_key.end());
  on_backupd_ = server.value("on_backupd", false);
  settings_.swap(settings);
  accounts_.swap(accounts);
  return true;
}

std::string Agent_Config::state_dir() const
{
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  return state_dir_;
}

void Agent_Config::state_dir(const std::string& dir)
{
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  state_dir_ = dir;
}

std::string Agent_Config::host_id() const
{
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  return host_id_;
}

std::string Agent_Config::log_file() const
{
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  return log_file_;
}

std::string Agent_Config::backup_server_url() const
{
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  return backup_server_url_;
}

Secure_String Agent_Config::access_key() const
{
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  return access_key_;
}

Secure_String Agent_Config::node_access_key() const
{
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  return node_access_key_;
}

bool Agent_Config::on_backupd() const
{
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  return on_backupd_;
}

long Agent_Config::setting(const std::string& name, long fallback) const
{
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  auto it = settings_.find(name);
  return it == settings_.end() ? fallback : it->second;
}

bool Agent_Config::find_account(const std::string& module, const std::string& type, const std::string& uid,
                                Account& out) const
{
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  for (const Account& a : accounts_)
    if (a.module == module && a.type == type && a.uid == uid)
    {
      out = a;
      return true;
    }
  return false;
}
