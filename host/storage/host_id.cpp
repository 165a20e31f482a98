#include "host/storage/host_id.h"

Host_ID& Host_ID::instance()
{
  static Host_ID id;
  return id;
}

void Host_ID::set(const std::string& id)
{
  std::lock_guard<std::mutex> guard(lock_);
  id_ = id;
}

const char* Host_ID::c_str() const
{
  std::lock_guard<std::mutex> guard(lock_);
  return id_.c_str();
}

std::string Host_ID::str() const
{
  std::lock_guard<std::mutex> guard(lock_);
  return id_;
}
