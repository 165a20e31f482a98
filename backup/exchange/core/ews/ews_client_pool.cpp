#include "backup/exchange/core/ews/ews_client_pool.h"

#include <ace/Guard_T.h>

bool EWS_Client_Pool::borrow(EWS_Client_Ptr& client)
{
  {
    ACE_Guard<ACE_Thread_Mutex> guard(lock_);
    if (guard.locked() && !idle_.empty())
    {
      client = idle_.back();
      idle_.pop_back();
      return true;
    }
  }
  // Made outside the lock: making a client may wait for a token.
  return maker_ && maker_(client) && client.get() != nullptr;
}

void EWS_Client_Pool::give_back(const EWS_Client_Ptr& client)
{
  if (client.get() == nullptr || client->cancelled())
    return;
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  if (!guard.locked() || idle_.size() >= max_idle_)
    return;
  for (const EWS_Client_Ptr& c : idle_)
    if (c == client)
      return;
  idle_.push_back(client);
}

size_t EWS_Client_Pool::idle() const
{
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  return idle_.size();
}
