#include "backup/exchange/core/ews/ews_export_task.h"

#include "host/base/log.h"
#include "host/ews/ews_client.h"
#include "host/ews/ews_params.h"

#include <ace/Guard_T.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/OS_NS_Thread.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <new>
#include <sys/mman.h>
#include <unistd.h>

namespace
{
// Both water marks, in the queue's units (each element counts as the size of
// one EWS_Export_Args): the lister waits once 16384 batches are queued. A
// folder's batches are all queued before its first item is read, so the queue
// must hold those of very large folders; a batch holds ids only.
const size_t queue_water_mark = 16384 * sizeof(EWS_Export_Args);
}  // namespace

EWS_Export_Task::EWS_Export_Task(const boost::shared_ptr<EWS_Backup_Context>& ctx, Job* job)
  : ctx_(ctx),
    queue_(queue_water_mark, queue_water_mark),
    thread_(job, ACE_DEFAULT_THREAD_PRIORITY),
    stop_(false),
    timeout_(8),
    budget_(UINT64_MAX),
    cache_bytes_(0),
    peak_cache_bytes_(0),
    in_flight_bytes_(0),
    lent_bytes_(0),
    peak_held_bytes_(0),
    lender_(std::make_shared<Lender>())
{
  lender_->task = this;
}

EWS_Export_Task::~EWS_Export_Task()
{
  stop();
  // Contents still lent out are freed by their readers without a task to tell.
  std::lock_guard<std::mutex> guard(lender_->lock);
  lender_->task = nullptr;
}

bool EWS_Export_Task::start()
{
  if (!cache_cond_)
  {
    cache_cond_.reset(new (std::nothrow) ACE_Condition_Thread_Mutex(cache_lock_));
    room_cond_.reset(new (std::nothrow) ACE_Condition_Thread_Mutex(cache_lock_));
    if (!cache_cond_ || !room_cond_)
    {
      cache_cond_.reset();
      room_cond_.reset();
      errno = ENOMEM;
      return false;
    }
  }
  thread_.spawn(&EWS_Export_Task::svc, this);
  thread_.set_name("EWSExport");
  return true;
}

bool EWS_Export_Task::stop()
{
  stop_ = true;
  if (room_cond_)
  {
    ACE_Guard<ACE_Thread_Mutex> guard(cache_lock_);
    room_cond_->broadcast();
  }
  // Wakes a thread waiting for the next batch; it sees stop_ and leaves.
  queue_.pulse();
  if (thread_.exists() && ACE_OS::thr_equal(ACE_OS::thr_self(), thread_.tid()))
  {
    // Never join from the thread itself; its helper forgets it instead.
    LOG_MSG(LM_DEBUG, "EWS export task stopped from its own thread.\n");
    thread_.release();
  }
  else
    thread_.join();

  for (;;)
  {
    EWS_Export_Args* args = nullptr;
    ACE_Time_Value now(ACE_Time_Value::zero);
    if (queue_.is_empty())
      break;
    if (queue_.dequeue_head(args, &now) == -1)
    {
      if (errno == EINTR)
        continue;
      break;
    }
    if (args == nullptr)
      break;
    delete args;
  }
  return true;
}

bool EWS_Export_Task::context_gone_or_cancelling()
{
  boost::shared_ptr<EWS_Backup_Context> ctx = ctx_.lock();
  return !ctx || ctx->is_cancelling();
}

bool EWS_Export_Task::putq(EWS_Export_Args* args)
{
  for (;;)
  {
    if (!thread_.running())
    {
      LOG_MSG(LM_ERROR, "EWS export task has ended.\n");
      return false;
    }
    if (queue_.is_full())
    {
      // The export thread may be holding back for the budget while this
      // lister, which must finish its folder before anything is read, waits
      // for room in the queue: tell it to go on.
      ACE_Guard<ACE_Thread_Mutex> guard(cache_lock_);
      if (room_cond_)
        room_cond_->broadcast();
    }
    ACE_Time_Value until = ACE_OS::gettimeofday() + timeout_;
    if (queue_.enqueue_tail(args, &until) != -1)
      return true;
    if (errno != EAGAIN && errno != EWOULDBLOCK)
    {
      LOG_MSG(LM_ERROR, "Failed to put to EWS export task queue, errno=%d.\n", errno);
      return false;
    }
    if (context_gone_or_cancelling())
    {
      LOG_MSG(LM_ERROR, "EWS export task has canceled.");
      return false;
    }
  }
}

void EWS_Export_Task::Lender::give_back(uint64_t bytes)
{
  std::lock_guard<std::mutex> guard(lock);
  if (task != nullptr && bytes > 0)
    task->give_back(bytes);
}

void EWS_Export_Task::Lent_Item::operator()(unsigned char*)
{
  owned.reset();
  lender->give_back(size - std::min(size, given->load()));
}

void EWS_Export_Task::Lent_Item::give_front(uint64_t upto)
{
  const uint64_t from = given->load();
  if (upto <= from || upto > size || !owned)
    return;
  // Only whole pages that hold nothing at or past `upto`: the rest is still to
  // be read, and the first partial page was kept by the last call.
  const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  const uintptr_t base = reinterpret_cast<uintptr_t>(owned.get());
  const uintptr_t start = (base + from + page - 1) / page * page;
  const uintptr_t end = (base + upto) / page * page;
  if (end > start)
    madvise(reinterpret_cast<void*>(start), end - start, MADV_DONTNEED);
  given->store(upto);
  lender->give_back(upto - from);
}

std::shared_ptr<unsigned char> EWS_Export_Task::lend(const std::shared_ptr<unsigned char>& bytes, uint64_t size)
{
  Lent_Item lent;
  lent.owned = bytes;
  lent.lender = lender_;
  lent.size = size;
  lent.given = std::make_shared<std::atomic<uint64_t>>(0);
  return std::shared_ptr<unsigned char>(bytes.get(), lent);
}

void EWS_Export_Task::give_back(uint64_t size)
{
  ACE_Guard<ACE_Thread_Mutex> guard(cache_lock_);
  lent_bytes_ -= std::min(lent_bytes_, size);
  if (room_cond_)
    room_cond_->broadcast();
}

bool EWS_Export_Task::get_item_i(const std::string& mailbox, const std::string& id, EWS_b64_Data& data)
{
  std::map<std::string, EWS_b64_Data>& items = cache_[mailbox];
  std::map<std::string, EWS_b64_Data>::iterator it = items.find(id);
  if (it == items.end())
    return false;
  data.size = it->second.size;
  if (it->second.ptr)
  {
    // From the cache to the reader: still held until the reader lets go.
    const uint64_t size = static_cast<uint64_t>(it->second.size);
    data.ptr = lend(it->second.ptr, size);
    cache_bytes_ -= size;
    lent_bytes_ += size;
  }
  items.erase(it);
  return true;
}

bool EWS_Export_Task::get_item(const std::string& mailbox, const std::string& id, EWS_b64_Data& data)
{
  // Dropped before the lock: lent contents give their bytes back under it.
  data = EWS_b64_Data();
  ACE_Guard<ACE_Thread_Mutex> guard(cache_lock_);
  if (!guard.locked() || !cache_cond_)
    return false;
  for (;;)
  {
    if (get_item_i(mailbox, id, data))
      return data.ptr != nullptr;
    if (!thread_.running())
      return false;
    ACE_Time_Value until = ACE_OS::gettimeofday() + timeout_;
    if (cache_cond_->wait(&until) == -1 && errno != ETIME)
    {
      LOG_MSG(LM_ERROR, "Failed to wait for EWS exporting, errno=%d, %m\n", errno);
      return false;
    }
  }
}

bool EWS_Export_Task::get_failed_items(std::vector<std::string>& out)
{
  ACE_Guard<ACE_Thread_Mutex> guard(cache_lock_);
  if (!guard.locked())
    return false;
  std::vector<std::string> all;
  all.reserve(failed_items_.size());
  for (const auto& failed : failed_items_)
    all.push_back(failed.second);
  failed_items_.clear();
  out.swap(all);
  return true;
}

bool EWS_Export_Task::get_failed_items(const std::string& mailbox, std::vector<std::string>& out)
{
  ACE_Guard<ACE_Thread_Mutex> guard(cache_lock_);
  if (!guard.locked())
    return false;
  // Channels end different mailboxes at the same time: each index gets only
  // the failures of its own mailbox.
  std::vector<std::string> mine;
  std::vector<std::pair<std::string, std::string>> others;
  for (auto& failed : failed_items_)
  {
    if (failed.first == mailbox)
      mine.push_back(std::move(failed.second));
    else
      others.push_back(std::move(failed));
  }
  failed_items_.swap(others);
  out.swap(mine);
  return true;
}

void EWS_Export_Task::open_mailbox(const std::string& mailbox)
{
  ACE_Guard<ACE_Thread_Mutex> guard(cache_lock_);
  released_.erase(mailbox);
  forgotten_.erase(mailbox);
}

void EWS_Export_Task::release_mailbox(const std::string& mailbox)
{
  ACE_Guard<ACE_Thread_Mutex> guard(cache_lock_);
  released_.insert(mailbox);
  forgotten_.erase(mailbox);
  Mailbox_Data_Map::iterator it = cache_.find(mailbox);
  if (it != cache_.end())
  {
    for (const auto& item : it->second)
      if (item.second.ptr)
        cache_bytes_ -= static_cast<uint64_t>(item.second.size);
    cache_.erase(it);
  }
  failed_items_.erase(std::remove_if(failed_items_.begin(), failed_items_.end(),
                                     [&](const std::pair<std::string, std::string>& f) { return f.first == mailbox; }),
                      failed_items_.end());
  if (room_cond_)
    room_cond_->broadcast();
}

void EWS_Export_Task::forget_items(const std::string& mailbox, const std::vector<std::string>& ids)
{
  ACE_Guard<ACE_Thread_Mutex> guard(cache_lock_);
  if (released_.count(mailbox) != 0)
    return;
  std::set<std::string> gone(ids.begin(), ids.end());
  Mailbox_Data_Map::iterator cached = cache_.find(mailbox);
  for (const std::string& id : ids)
  {
    std::map<std::string, EWS_b64_Data>::iterator slot;
    if (cached != cache_.end() && (slot = cached->second.find(id)) != cached->second.end())
    {
      // Exported already: its bytes go back to the budget now.
      if (slot->second.ptr)
        cache_bytes_ -= static_cast<uint64_t>(slot->second.size);
      cached->second.erase(slot);
    }
    else
      forgotten_[mailbox].insert(id);
  }
  failed_items_.erase(std::remove_if(failed_items_.begin(), failed_items_.end(),
                                     [&](const std::pair<std::string, std::string>& f)
                                     { return f.first == mailbox && gone.count(f.second); }),
                      failed_items_.end());
  if (room_cond_)
    room_cond_->broadcast();
}

bool EWS_Export_Task::is_wanted_i(const std::string& mailbox, const std::string& id)
{
  if (released_.count(mailbox) != 0)
    return false;
  std::map<std::string, std::set<std::string>>::iterator f = forgotten_.find(mailbox);
  if (f == forgotten_.end() || f->second.erase(id) == 0)
    return true;
  if (f->second.empty())
    forgotten_.erase(f);
  return false;
}

bool EWS_Export_Task::is_wanted(const std::string& mailbox, const std::string& id)
{
  ACE_Guard<ACE_Thread_Mutex> guard(cache_lock_);
  return is_wanted_i(mailbox, id);
}

bool EWS_Export_Task::is_released(const std::string& mailbox)
{
  ACE_Guard<ACE_Thread_Mutex> guard(cache_lock_);
  return released_.count(mailbox) != 0;
}

uint64_t EWS_Export_Task::cache_bytes() const
{
  ACE_Guard<ACE_Thread_Mutex> guard(cache_lock_);
  return cache_bytes_;
}

uint64_t EWS_Export_Task::peak_cache_bytes() const
{
  ACE_Guard<ACE_Thread_Mutex> guard(cache_lock_);
  return peak_cache_bytes_;
}

uint64_t EWS_Export_Task::lent_bytes() const
{
  ACE_Guard<ACE_Thread_Mutex> guard(cache_lock_);
  return lent_bytes_;
}

uint64_t EWS_Export_Task::peak_held_bytes() const
{
  ACE_Guard<ACE_Thread_Mutex> guard(cache_lock_);
  return peak_held_bytes_;
}

bool EWS_Export_Task::cache_items(EWS_Export_Requests& requests)
{
  ACE_Guard<ACE_Thread_Mutex> guard(cache_lock_);
  if (!guard.locked())
    return false;
  in_flight_bytes_ = 0;
  failed_items_.reserve(failed_items_.size() + requests.size());
  for (EWS_Export_Request& request : requests)
  {
    // Ended or passed by while this batch was being exported: nobody will read it.
    if (!is_wanted_i(request.mailbox, request.id))
      continue;
    EWS_b64_Data& slot = cache_[request.mailbox][request.id];
    if (slot.ptr)
      cache_bytes_ -= static_cast<uint64_t>(slot.size);
    slot = request.data;
    if (slot.ptr)
      cache_bytes_ += static_cast<uint64_t>(slot.size);
    else
      failed_items_.push_back(std::make_pair(request.mailbox, request.id));
  }
  peak_cache_bytes_ = std::max(peak_cache_bytes_, cache_bytes_);
  peak_held_bytes_ = std::max(peak_held_bytes_, cache_bytes_ + lent_bytes_);
  if (cache_cond_->broadcast() == -1)
  {
    LOG_MSG(LM_ERROR, "Failed to broadcast after exporting EWS item, errno=%d, %m\n", errno);
    return false;
  }
  return true;
}

bool EWS_Export_Task::wait_for_room(const std::vector<uint64_t>& sizes, size_t begin, size_t& end)
{
  ACE_Guard<ACE_Thread_Mutex> guard(cache_lock_);
  // The first item waits until it fits beside what is held, or goes alone when
  // nothing is. A full queue means a lister is blocked before its folder's
  // items can be read; waiting then would never end, so the budget yields to it.
  const auto held = [&] { return cache_bytes_ + lent_bytes_; };
  const auto fits = [&] { return held() == 0 || held() + sizes[begin] <= budget_; };
  while (!fits() && !queue_.is_full())
  {
    if (stop_)
      return false;
    // Checked without holding the context across the wait.
    guard.release();
    const bool leave = context_gone_or_cancelling();
    guard.acquire();
    if (leave)
      return false;
    if (fits() || queue_.is_full())
      break;
    ACE_Time_Value until = ACE_OS::gettimeofday() + timeout_;
    if (room_cond_->wait(&until) == -1 && errno != ETIME)
    {
      LOG_MSG(LM_ERROR, "Failed to wait for room in the EWS export cache, errno=%d, %m\n", errno);
      return false;
    }
  }
  if (stop_)
    return false;
  // The call takes what fits beside what is held (beside nothing when the
  // budget yields to a full queue), always at least its first item.
  const uint64_t beside = fits() ? held() : 0;
  uint64_t bytes = sizes[begin];
  end = begin + 1;
  while (end < sizes.size() && beside + bytes + sizes[end] <= budget_)
    bytes += sizes[end++];
  in_flight_bytes_ = bytes;
  peak_held_bytes_ = std::max(peak_held_bytes_, held() + in_flight_bytes_);
  return true;
}

namespace
{
// Whether every item of a queued batch has a listed size: only such batches
// are exported together, since the budget cannot cut what it cannot weigh.
bool sized(const EWS_Export_Args& args)
{
  if (args.item_sizes.size() < args.item_ids.size())
    return false;
  for (size_t i = 0; i < args.item_ids.size(); ++i)
    if (args.item_sizes[i] <= 0)
      return false;
  return true;
}
}  // namespace

void EWS_Export_Task::gather(std::vector<std::unique_ptr<EWS_Export_Args>>& taken)
{
  if (!sized(*taken.front()))
    return;
  // Channels queue one folder at a time, each of its own mailbox: taking what
  // already waits behind the first batch gives the client one call whose
  // batches run side by side, instead of one small call per folder.
  const size_t most =
    static_cast<size_t>(EWS_Params::batch_size()) * static_cast<size_t>(EWS_Params::export_concurrency());
  size_t ids = taken.front()->item_ids.size();
  while (!queue_.is_empty())
  {
    EWS_Export_Args* next = nullptr;
    ACE_Time_Value now(ACE_Time_Value::zero);
    if (queue_.peek_dequeue_head(next, &now) == -1 || next == nullptr)
      break;
    // The end marker stays for the loop to see.
    if (next->mailbox.empty() || !sized(*next) || ids + next->item_ids.size() > most)
      break;
    if (queue_.dequeue_head(next, &now) == -1)
      break;
    ids += next->item_ids.size();
    taken.emplace_back(next);
  }
}

bool EWS_Export_Task::export_taken(EWS_Client& ews, std::vector<std::unique_ptr<EWS_Export_Args>>& taken)
{
  // In queue order, without the items of mailboxes that have ended or of
  // folders the stream passed by.
  EWS_Export_Requests all;
  std::vector<uint64_t> sizes;
  for (const std::unique_ptr<EWS_Export_Args>& args : taken)
  {
    if (is_released(args->mailbox))
      continue;
    for (size_t i = 0; i < args->item_ids.size(); ++i)
    {
      if (!is_wanted(args->mailbox, args->item_ids[i]))
        continue;
      all.emplace_back();
      all.back().mailbox = args->mailbox;
      all.back().id = std::move(args->item_ids[i]);
      all.back().size = static_cast<long long>(args->size_of(i));
      sizes.push_back(args->size_of(i));
    }
  }
  // Cut into calls that fit the budget.
  for (size_t begin = 0, end = 0; begin < all.size(); begin = end)
  {
    if (!wait_for_room(sizes, begin, end))
      return false;
    // A mailbox may have ended, or a folder been passed by, while this call
    // waited for room.
    EWS_Export_Requests call;
    for (size_t i = begin; i < end; ++i)
      if (is_wanted(all[i].mailbox, all[i].id))
        call.push_back(std::move(all[i]));
    if (call.empty())
    {
      ACE_Guard<ACE_Thread_Mutex> guard(cache_lock_);
      in_flight_bytes_ = 0;
      continue;
    }
    if (!ews.export_items(call))
    {
      // A batch failed as a whole: name each mailbox left with items without data.
      std::set<std::string> named;
      for (const EWS_Export_Request& r : call)
        if (!r.data.ptr && named.insert(r.mailbox).second)
          LOG_MSG(LM_ERROR, "Failed to export items of '%s'\n", r.mailbox.c_str());
    }
    if (!cache_items(call))
    {
      LOG_MSG(LM_ERROR, "Failed to add items to cache '%s'\n", call.front().mailbox.c_str());
      return false;
    }
  }
  return true;
}

void EWS_Export_Task::svc()
{
  LOG_MSG(LM_DEBUG, "Exchange EWS items export task is starting.\n");
  EWS_Client_Ptr ews;
  for (;;)
  {
    if (stop_)
      break;
    if (context_gone_or_cancelling())
      break;
    EWS_Export_Args* raw = nullptr;
    ACE_Time_Value until = ACE_OS::gettimeofday() + timeout_;
    if (queue_.dequeue_head(raw, &until) == -1)
    {
      if (errno == EAGAIN || errno == EWOULDBLOCK)
        continue;
      // stop() pulses the queue to wake this wait.
      if (stop_)
        break;
      LOG_MSG(LM_ERROR, "Failed to get EWS export requests from queue.\n");
      break;
    }
    std::unique_ptr<EWS_Export_Args> args(raw);
    if (!ews)
    {
      // The client is made for the first element, even the end marker.
      boost::shared_ptr<EWS_Backup_Context> ctx = ctx_.lock();
      if (!ctx || !ctx->make_client(ews))
        break;
      // Waits and transfers of the client (and of its concurrent connections)
      // end as soon as the job is being cancelled or the task stops, rather than
      // after a throttling wait of minutes.
      ews->set_cancel_predicate([this] { return stop_.load() || context_gone_or_cancelling(); });
    }
    if (!args || args->mailbox.empty())
      break;
    std::vector<std::unique_ptr<EWS_Export_Args>> taken;
    taken.push_back(std::move(args));
    gather(taken);
    if (!export_taken(*ews, taken))
      break;
  }
  LOG_MSG(LM_DEBUG, "Exchange EWS items export task ended.\n");
}
