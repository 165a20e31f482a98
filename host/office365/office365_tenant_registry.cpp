#include "host/office365/office365_tenant_registry.h"

#include "host/http/uri_parser.h"
#include "host/base/log.h"
#include "host/office365/office365_token.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <nlohmann/json.hpp>

namespace
{
const int registry_format_version = 1;

std::mutex default_path_lock;
std::string default_registry_path;

bool write_all(int fd, const std::string& text)
{
  size_t done = 0;
  while (done < text.size())
  {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return false;
    done += static_cast<size_t>(n);
  }
  return true;
}
}  // namespace

Office365_Tenant_Registry::Office365_Tenant_Registry(const std::string& path) : path_(path) {}

bool Office365_Tenant_Registry::load(std::string& error)
{
  tenants_.clear();
  struct stat st;
  if (::stat(path_.c_str(), &st) != 0)
  {
    if (errno == ENOENT)
      return true;
    error = "cannot read tenant registry '" + path_ + "': " + std::strerror(errno);
    return false;
  }
  if ((st.st_mode & 077) != 0)
  {
    error = "tenant registry '" + path_ + "' is accessible by other users; run chmod 600 on it";
    return false;
  }
  std::ifstream in(path_);
  std::stringstream text;
  text << in.rdbuf();
  if (!in)
  {
    error = "cannot read tenant registry '" + path_ + "'";
    return false;
  }
  const auto doc = nlohmann::ordered_json::parse(text.str(), nullptr, false);
  if (!doc.is_object() || !doc.contains("format_version") || doc["format_version"] != registry_format_version ||
      !doc.contains("tenants") || !doc["tenants"].is_object())
  {
    error = "tenant registry '" + path_ + "' is malformed or of an unknown format version";
    return false;
  }
  for (const auto& item : doc["tenants"].items())
  {
    Office365_Auth_Entry entry;
    if (!entry.load(item.value()))
    {
      tenants_.clear();
      error = "tenant registry '" + path_ + "': registration '" + item.key() +
              "' lacks a field or names an unknown transport";
      return false;
    }
    tenants_.emplace_back(item.key(), entry);
  }
  return true;
}

bool Office365_Tenant_Registry::save(std::string& error) const
{
  nlohmann::ordered_json doc;
  doc["format_version"] = registry_format_version;
  doc["tenants"] = nlohmann::ordered_json::object();
  for (const Tenant& t : tenants_)
    doc["tenants"][t.first] = t.second.to_json(true);
  std::string text = doc.dump(2) + "\n";

  const std::string temp = path_ + ".tmp";
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  bool ok = fd >= 0 && ::fchmod(fd, 0600) == 0 && write_all(fd, text) && ::fsync(fd) == 0;
  const int saved_errno = errno;
  if (fd >= 0)
    ok = (::close(fd) == 0) && ok;
  std::fill(text.begin(), text.end(), '\0');
  if (!ok || ::rename(temp.c_str(), path_.c_str()) != 0)
  {
    error = "cannot write tenant registry '" + path_ + "': " + std::strerror(ok ? errno : saved_errno);
    ::unlink(temp.c_str());
    return false;
  }
  return true;
}

bool Office365_Tenant_Registry::add(const std::string& uuid, const Office365_Auth_Entry& entry)
{
  if (uuid.empty())
    return false;
  for (Tenant& t : tenants_)
    if (t.first == uuid)
    {
      t.second = entry;
      return true;
    }
  tenants_.emplace_back(uuid, entry);
  return true;
}

bool Office365_Tenant_Registry::remove(const std::string& uuid)
{
  for (auto it = tenants_.begin(); it != tenants_.end(); ++it)
    if (it->first == uuid)
    {
      tenants_.erase(it);
      return true;
    }
  return false;
}

bool Office365_Tenant_Registry::find(const std::string& uuid, Office365_Auth_Entry& entry) const
{
  for (const Tenant& t : tenants_)
    if (t.first == uuid)
    {
      entry = t.second;
      return true;
    }
  return false;
}

std::string Office365_Tenant_Registry::describe() const
{
  std::string text;
  for (const Tenant& t : tenants_)
  {
    const Office365_Auth_Entry& e = t.second;
    text += t.first + "  tenant_id=" + e.tenant_id + "  client_id=" + e.client_id + "  tenant_email=" + e.tenant_email +
            "  login=" + e.ms_login_endpoint + "  graph=" + e.ms_graph_endpoint + "  ews=" + e.ews_endpoint +
            "  transport=" + e.transport + "\n";
  }
  return text;
}

std::vector<std::string> Office365_Tenant_Registry::token_scopes(const Office365_Auth_Entry& entry)
{
  std::vector<std::string> scopes{entry.ms_graph_endpoint + "/.default"};
  URI ews;
  if (URI_Parser::parse(entry.ews_endpoint.c_str(), ews))
    scopes.push_back(ews.origin() + "/.default");
  return scopes;
}

bool Office365_Tenant_Registry::test(const Office365_Auth_Entry& entry, std::string& error)
{
  const std::vector<std::string> scopes = token_scopes(entry);
  if (scopes.size() < 2)
  {
    error = "invalid EWS endpoint '" + entry.ews_endpoint + "'";
    return false;
  }
  for (const std::string& scope : scopes)
  {
    std::string token;
    long expires = 0;
    const bool ok = get_office365_token(entry, scope, token, expires, error);
    std::fill(token.begin(), token.end(), '\0');
    if (!ok)
    {
      error = "no token for " + scope + ": " + error;
      return false;
    }
  }
  return true;
}

std::string Office365_Tenant_Registry::file_in(const std::string& state_dir)
{
  return state_dir + "/office365_tenants.json";
}

void Office365_Tenant_Registry::set_default_path(const std::string& path)
{
  std::lock_guard<std::mutex> guard(default_path_lock);
  default_registry_path = path;
}

std::string Office365_Tenant_Registry::default_path()
{
  std::lock_guard<std::mutex> guard(default_path_lock);
  return default_registry_path;
}

bool get_office365_auth_entry(const std::string& uuid, Office365_Auth_Entry& entry)
{
  const std::string path = Office365_Tenant_Registry::default_path();
  if (path.empty())
  {
    LOG_MSG(LM_ERROR, "No tenant registry is configured\n");
    return false;
  }
  Office365_Tenant_Registry registry(path);
  std::string error;
  if (!registry.load(error))
  {
    LOG_MSG(LM_ERROR, "Failed to load the tenant registry: %s\n", error.c_str());
    return false;
  }
  if (!registry.find(uuid, entry))
  {
    LOG_MSG(LM_ERROR, "Tenant registration '%s' not found in '%s'\n", uuid.c_str(), path.c_str());
    return false;
  }
  return true;
}
