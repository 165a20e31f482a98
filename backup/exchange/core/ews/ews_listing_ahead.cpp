#include "backup/exchange/core/ews/ews_listing_ahead.h"

#include "backup/exchange/core/ews/ews_backup_context.h"
#include "backup/exchange/core/ews/ews_item_name_comparator.h"
#include "backup/exchange/core/ews/ews_mtf_utils.h"
#include "backup/exchange/core/ews/paginator.h"
#include "host/base/log.h"
#include "host/ews/ews_params.h"

#include <algorithm>
#include <climits>
#include <new>
#include <utility>

EWS_Listing_Ahead::EWS_Listing_Ahead(EWS_Backup_Context& ctx, int listers) : ctx_(ctx), cancel_(false)
{
  for (int i = 0; i < std::max(listers, 1); ++i)
  {
    listers_.emplace_back(new Lister);
    listers_.back()->owner = this;
  }
}

EWS_Listing_Ahead::~EWS_Listing_Ahead() { stop(); }

bool EWS_Listing_Ahead::list(EWS_Client& ews, EWS_Backup_Context& ctx, const std::string& mailbox,
                             const std::string& path, const std::string& id, bool no_subfolders,
                             EWS_Folder_Listing& out)
{
  out = EWS_Folder_Listing();
  out.id = id;
  if (!no_subfolders && !ews.list_folders(id, out.subfolders, true))
  {
    LOG_MSG(LM_ERROR, "Failed to list folder(id=%s) of '%s'\n", id.c_str(), mailbox.c_str());
    return false;
  }
  if (id.empty())
  {
    // The mailbox's root holds folders only.
    out.ok = true;
    return true;
  }
  Paginator pages(INT_MAX, EWS_Params::paging_size());
  const EWS_Item_Appender appender = make_ews_item_appender(out.items);
  while (pages.next())
  {
    if (ctx.is_cancelling())
    {
      LOG_MSG(LM_ERROR, "EWS items listing is canceled.\n");
      return false;
    }
    const size_t before = out.items.size();
    if (!ews.list_items(id, appender, pages.offset(), pages.limit()))
    {
      LOG_MSG(LM_ERROR, "Failed to list items of folder(%s) of '%s'.\n", path.c_str(), mailbox.c_str());
      return false;
    }
    // A short page ends the folder; a full one is followed by one more request.
    if (before + static_cast<size_t>(pages.limit()) > out.items.size())
      break;
  }
  std::sort(out.items.begin(), out.items.end(), EWS_Item_Name_Comparator());
  out.ok = true;
  return true;
}

bool EWS_Listing_Ahead::make_clients()
{
  size_t made = 0;
  for (std::unique_ptr<Lister>& lister : listers_)
  {
    if (!lister->ews)
    {
      if (!ctx_.make_client(lister->ews) || !lister->ews)
      {
        lister->ews.reset();
        continue;
      }
      // A throttling wait or a transfer under way ends when the listing is
      // stopped or the job is being cancelled.
      lister->ews->set_cancel_predicate([this] { return cancel_.load() || ctx_.is_cancelling(); });
    }
    lister->ews->impersonate(mailbox_);
    ++made;
  }
  return made > 0;
}

bool EWS_Listing_Ahead::start(const std::string& mailbox, const std::string& root_path, const EWS_Folders& roots)
{
  stop();
  mailbox_ = mailbox;
  if (!make_clients())
    return false;
  size_t clients = 0;
  for (const std::unique_ptr<Lister>& lister : listers_)
    clients += lister->ews ? 1 : 0;
  {
    std::lock_guard<std::mutex> guard(lock_);
    stop_ = false;
    cancel_ = false;
    queue_failed_ = false;
    plan(Walk_Place(), root_path, roots);
    running_ = true;
    threads_running_ = clients;
  }
  size_t started = 0;
  for (std::unique_ptr<Lister>& lister : listers_)
  {
    if (!lister->ews)
      continue;
    lister->thread.reset(new (std::nothrow) Job_Thread_Helper(&ctx_.job(), ACE_DEFAULT_THREAD_PRIORITY));
    if (!lister->thread || lister->thread->spawn(&Lister::svc, lister.get()) < 0)
    {
      lister->thread.reset();
      thread_ended();
      continue;
    }
    lister->thread->set_name("EWSListAhead");
    ++started;
  }
  if (started == 0)
  {
    stop();
    return false;
  }
  return true;
}

void EWS_Listing_Ahead::stop()
{
  {
    std::lock_guard<std::mutex> guard(lock_);
    stop_ = true;
    cancel_ = true;
  }
  changed_.notify_all();
  for (std::unique_ptr<Lister>& lister : listers_)
  {
    if (lister->thread)
    {
      lister->thread->join();
      lister->thread.reset();
    }
  }
  std::lock_guard<std::mutex> guard(lock_);
  running_ = false;
  threads_running_ = 0;
  places_.clear();
  plan_.clear();
  listing_.clear();
  done_.clear();
  floor_.clear();
  waiting_ = false;
  waiting_items_ = 0;
}

bool EWS_Listing_Ahead::room() const
{
  return done_.size() < max_waiting_folders && waiting_items_ < max_waiting_items;
}

bool EWS_Listing_Ahead::may_begin() const
{
  // The folder the stream waits for is never kept waiting for room: the room
  // is taken by listings of folders it comes to later.
  return !plan_.empty() && (room() || (waiting_ && plan_.begin()->first == wanted_));
}

void EWS_Listing_Ahead::plan(const Walk_Place& parent, const std::string& parent_path, const EWS_Folders& folders)
{
  for (size_t i = 0; i < folders.size(); ++i)
  {
    Walk_Place place = parent;
    place.push_back(static_cast<unsigned>(i));
    Planned next;
    next.id = folders[i].id;
    next.path = join_path(parent_path, encode_name(folders[i].display_name));
    next.no_subfolders = folders[i].subfolders_counted && folders[i].subfolders_count == 0;
    places_[next.id] = place;
    plan_[place] = std::move(next);
  }
}

void EWS_Listing_Ahead::drop_before(const Walk_Place& place)
{
  while (!plan_.empty() && plan_.begin()->first < place)
  {
    places_.erase(plan_.begin()->second.id);
    plan_.erase(plan_.begin());
  }
  while (!done_.empty() && done_.begin()->first < place)
  {
    // Its items will never be read: they must not hold the export budget.
    if (done_.begin()->second.exports_queued)
      ctx_.drop_exports(mailbox_, done_.begin()->second.items);
    waiting_items_ -= done_.begin()->second.items.size();
    places_.erase(done_.begin()->second.id);
    done_.erase(done_.begin());
  }
}

bool EWS_Listing_Ahead::take(const std::string& id, EWS_Folder_Listing& out)
{
  std::unique_lock<std::mutex> guard(lock_);
  const bool found = wait_for(guard, id, out);
  waiting_ = false;
  return found;
}

bool EWS_Listing_Ahead::wait_for(std::unique_lock<std::mutex>& guard, const std::string& id, EWS_Folder_Listing& out)
{
  for (;;)
  {
    std::unordered_map<std::string, Walk_Place>::const_iterator p = places_.find(id);
    if (p == places_.end())
      return false;
    const Walk_Place place = p->second;
    // The stream walks forward only: a folder before where it is was passed
    // by (its listing, still being made, is dropped when it ends).
    if (place < floor_)
      return false;
    // The stream is here: the folders before it in its walk were passed by.
    floor_ = place;
    drop_before(place);
    std::map<Walk_Place, EWS_Folder_Listing>::iterator d = done_.find(place);
    if (d != done_.end() && !d->second.exports_queued && !queue_failed_ && !stop_)
    {
      // Its exports come first now (everything before it was passed by): queue
      // them, or wait while another caller is queueing.
      if (queueing_)
        changed_.wait(guard);
      else
      {
        guard.unlock();
        queue_exports_ahead();
        guard.lock();
      }
      continue;
    }
    if (d != done_.end())
    {
      out = std::move(d->second);
      waiting_items_ -= out.items.size();
      done_.erase(d);
      places_.erase(id);
      changed_.notify_all();
      return true;
    }
    if (stop_ || !running_)
      return false;
    waiting_ = true;
    wanted_ = place;
    changed_.notify_all();
    changed_.wait(guard);
  }
}

bool EWS_Listing_Ahead::next_folder(Walk_Place& place, Planned& folder)
{
  std::unique_lock<std::mutex> guard(lock_);
  // With nothing planned a thread still waits while others list: their
  // folders' subfolders come next.
  changed_.wait(guard, [this] { return stop_ || (plan_.empty() && listing_.empty()) || may_begin(); });
  if (stop_ || plan_.empty())
    return false;
  place = plan_.begin()->first;
  folder = std::move(plan_.begin()->second);
  plan_.erase(plan_.begin());
  listing_.insert(place);
  return true;
}

void EWS_Listing_Ahead::finish_folder(const Walk_Place& place, const Planned& folder, bool ok,
                                      EWS_Folder_Listing& listing)
{
  {
    std::lock_guard<std::mutex> guard(lock_);
    listing_.erase(place);
    if (stop_)
    {
      // stop() forgets everything.
    }
    else if (place < floor_)
    {
      // Passed by while it was being listed: nothing below it is wanted.
      places_.erase(folder.id);
    }
    else
    {
      // Below a failed listing nothing is planned.
      if (ok)
        plan(place, folder.path, listing.subfolders);
      waiting_items_ += listing.items.size();
      done_[place] = std::move(listing);
    }
  }
  changed_.notify_all();
}

bool EWS_Listing_Ahead::next_to_queue(Walk_Place& place)
{
  // Folders before where the stream is were passed by: they do not count.
  const std::set<Walk_Place>::const_iterator listing = listing_.lower_bound(floor_);
  for (std::map<Walk_Place, EWS_Folder_Listing>::iterator d = done_.begin(); d != done_.end(); ++d)
  {
    if (d->second.exports_queued)
      continue;
    if (d->second.items.empty())
    {
      d->second.exports_queued = true;
      continue;
    }
    if ((!plan_.empty() && plan_.begin()->first < d->first) || (listing != listing_.end() && *listing < d->first))
      return false;
    place = d->first;
    return true;
  }
  return false;
}

void EWS_Listing_Ahead::queue_exports_ahead()
{
  std::unique_lock<std::mutex> guard(lock_);
  if (queueing_)
    return;
  queueing_ = true;
  Walk_Place place;
  while (!stop_ && !queue_failed_ && next_to_queue(place))
  {
    const EWS_Items items = done_[place].items;
    // The export queue may be full: it is waited for without the lock, so the
    // stream and the other listers go on meanwhile.
    guard.unlock();
    const bool queued = ctx_.queue_exports(mailbox_, items);
    guard.lock();
    std::map<Walk_Place, EWS_Folder_Listing>::iterator d = done_.find(place);
    if (!queued)
      queue_failed_ = true;
    else if (d != done_.end())
      d->second.exports_queued = true;
    else if (!stop_)
      ctx_.drop_exports(mailbox_, items);  // passed by while it was being queued
    changed_.notify_all();
  }
  queueing_ = false;
  changed_.notify_all();
}

void EWS_Listing_Ahead::svc(Lister& lister)
{
  Walk_Place place;
  Planned folder;
  while (next_folder(place, folder))
  {
    EWS_Folder_Listing listing;
    const bool ok = list(*lister.ews, ctx_, mailbox_, folder.path, folder.id, folder.no_subfolders, listing);
    finish_folder(place, folder, ok, listing);
    queue_exports_ahead();
  }
  thread_ended();
}

void EWS_Listing_Ahead::thread_ended()
{
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (threads_running_ > 0 && --threads_running_ == 0)
      running_ = false;
  }
  changed_.notify_all();
}
