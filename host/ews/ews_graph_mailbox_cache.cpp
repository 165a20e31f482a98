#include "host/ews/ews_graph_mailbox_cache.h"

bool EWS_Graph_Mailbox_Cache::find_id(const std::string& key, std::string& id) const
{
  std::lock_guard<std::mutex> guard(lock_);
  const auto it = ids_.find(key);
  if (it == ids_.end())
    return false;
  id = it->second;
  return true;
}

void EWS_Graph_Mailbox_Cache::put_id(const std::string& key, const std::string& id)
{
  std::lock_guard<std::mutex> guard(lock_);
  ids_[key] = id;
}

bool EWS_Graph_Mailbox_Cache::find_session(const std::string& mailbox_id, time_t now, Import_Session& session) const
{
  std::lock_guard<std::mutex> guard(lock_);
  const auto it = sessions_.find(mailbox_id);
  if (it == sessions_.end() || it->second.expires - session_margin <= now)
    return false;
  session = it->second;
  return true;
}

void EWS_Graph_Mailbox_Cache::put_session(const std::string& mailbox_id, const Import_Session& session)
{
  std::lock_guard<std::mutex> guard(lock_);
  sessions_[mailbox_id] = session;
}

void EWS_Graph_Mailbox_Cache::drop_session(const std::string& mailbox_id, const std::string& url)
{
  std::lock_guard<std::mutex> guard(lock_);
  const auto it = sessions_.find(mailbox_id);
  if (it != sessions_.end() && it->second.url == url)
    sessions_.erase(it);
}
