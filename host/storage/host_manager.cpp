#include "host/storage/host_manager.h"

#include "host/storage/host_id.h"

Host_Manager& Host_Manager::instance()
{
  static Host_Manager manager;
  return manager;
}

void Host_Manager::init(const Settings& settings)
{
  std::lock_guard<std::mutex> guard(lock_);
  settings_ = settings;
  while (!settings_.backupd_url.empty() && settings_.backupd_url.back() == '/')
    settings_.backupd_url.pop_back();
  Host_ID::instance().set(settings.host_id);
}

std::string Host_Manager::backupd_url() const
{
  std::lock_guard<std::mutex> guard(lock_);
  return settings_.backupd_url;
}

bool Host_Manager::on_backupd() const
{
  std::lock_guard<std::mutex> guard(lock_);
  return settings_.on_backupd;
}

std::string Host_Manager::access_key() const
{
  std::lock_guard<std::mutex> guard(lock_);
  return settings_.access_key;
}

std::string Host_Manager::node_access_key() const
{
  std::lock_guard<std::mutex> guard(lock_);
  return settings_.node_access_key;
}

std::string Host_Manager::effective_access_key() const
{
  std::lock_guard<std::mutex> guard(lock_);
  return settings_.on_backupd ? settings_.node_access_key : settings_.access_key;
}

bool Host_Manager::allow_plain_http() const
{
  std::lock_guard<std::mutex> guard(lock_);
  return settings_.allow_plain_http;
}

std::string Host_Manager::host_id() const
{
  std::lock_guard<std::mutex> guard(lock_);
  return settings_.host_id;
}
