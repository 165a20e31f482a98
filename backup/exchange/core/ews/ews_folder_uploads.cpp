#include "backup/exchange/core/ews/ews_folder_uploads.h"

#include "host/base/log.h"

#include <ace/Guard_T.h>

#include <limits>
#include <numeric>

EWS_Folder_Uploads::EWS_Folder_Uploads(const std::string& folder_id) : folder_id_(folder_id), changed_(lock_) {}

bool EWS_Folder_Uploads::begin()
{
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  if (!guard.locked())
    return false;
  // A listing taken now must not see an item of an upload it does not wait for.
  while (!waiting_.empty())
    changed_.wait();
  ++active_;
  return true;
}

void EWS_Folder_Uploads::end(const std::vector<std::string>& ids)
{
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  for (const std::string& id : ids)
    if (!id.empty())
      claimed_.insert(id);
  if (active_ > 0)
    --active_;
  changed_.broadcast();
}

size_t EWS_Folder_Uploads::claimed() const
{
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  return claimed_.size();
}

bool EWS_Folder_Uploads::list_ids(EWS_Client& client, std::vector<std::string>& ids) const
{
  ids.clear();
  return client.list_items(
    folder_id_, [&ids](const EWS_Item& item) { ids.push_back(item.id); }, 0, std::numeric_limits<int>::max());
}

bool EWS_Folder_Uploads::reconcile(EWS_Client& client, size_t count, std::vector<std::string>& landed)
{
  landed.clear();
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  if (!guard.locked())
    return false;
  const unsigned long round = round_;
  const size_t ticket = waiting_.size();
  waiting_.push_back(count);
  changed_.broadcast();
  while (round_ == round)
  {
    if (listing_ || waiting_.size() < active_)
    {
      // Another upload has sent a request whose answer is still to come, or
      // another waiter is listing.
      changed_.wait();
      continue;
    }
    // Every upload inside a bracket waits here: the folder holds exactly the
    // claimed items and whatever of theirs landed.
    listing_ = true;
    std::vector<std::string> ids;
    lock_.release();
    const bool listed = list_ids(client, ids);
    lock_.acquire();
    std::vector<std::string> unclaimed;
    for (const std::string& id : ids)
      if (claimed_.count(id) == 0)
        unclaimed.push_back(id);
    const size_t items = std::accumulate(waiting_.begin(), waiting_.end(), size_t(0));
    shares_.assign(waiting_.size(), std::vector<std::string>());
    told_ = listed && (unclaimed.empty() || unclaimed.size() == items);
    if (told_ && !unclaimed.empty())
    {
      size_t next = 0;
      for (size_t t = 0; t < waiting_.size(); ++t)
        for (size_t k = 0; k < waiting_[t]; ++k)
        {
          claimed_.insert(unclaimed[next]);
          shares_[t].push_back(unclaimed[next++]);
        }
    }
    if (listed && !told_)
    {
      // Whatever of theirs landed stays, and is not taken for an item of a
      // later upload whose answer is lost.
      claimed_.insert(unclaimed.begin(), unclaimed.end());
      LOG_MSG(LM_WARNING,
              "EWS folder %s: %Q of %Q items whose upload answer was lost are in the folder; which ones cannot be "
              "told, so none of them is sent again\n",
              folder_id_.c_str(), static_cast<ACE_UINT64>(unclaimed.size()), static_cast<ACE_UINT64>(items));
    }
    waiting_.clear();
    listing_ = false;
    ++round_;
    changed_.broadcast();
  }
  // The round this upload waited in is over, and no later one can end before
  // it reads its share: it is inside its bracket and not waiting.
  if (!told_)
    return false;
  landed = shares_[ticket];
  return true;
}
