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

EWS_Listing_Ahead::EWS_Listing_Ahead(EWS_Backup_Context& ctx) : ctx_(ctx), cancel_(false) {}

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

bool EWS_Listing_Ahead::start(const std::string& mailbox, const std::string& root_path, const EWS_Folders& roots)
{
  stop();
  if (!ews_)
  {
    if (!ctx_.make_client(ews_) || !ews_)
    {
      ews_.reset();
      return false;
    }
    // A throttling wait or a transfer under way ends when the listing is
    // stopped or the job is being cancelled.
    ews_->set_cancel_predicate([this] { return cancel_.load() || ctx_.is_cancelling(); });
  }
  ews_->impersonate(mailbox);
  mailbox_ = mailbox;
  {
    std::lock_guard<std::mutex> guard(lock_);
    stop_ = false;
    cancel_ = false;
    plan_front(root_path, roots);
    running_ = true;
  }
  thread_.reset(new (std::nothrow) Job_Thread_Helper(&ctx_.job(), ACE_DEFAULT_THREAD_PRIORITY));
  if (!thread_ || thread_->spawn(&EWS_Listing_Ahead::svc, this) < 0)
  {
    thread_.reset();
    std::lock_guard<std::mutex> guard(lock_);
    running_ = false;
    plan_.clear();
    return false;
  }
  thread_->set_name("EWSListAhead");
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
  if (thread_)
  {
    thread_->join();
    thread_.reset();
  }
  std::lock_guard<std::mutex> guard(lock_);
  running_ = false;
  plan_.clear();
  listing_.clear();
  done_.clear();
  waiting_items_ = 0;
}

bool EWS_Listing_Ahead::room() const
{
  return done_.size() < max_waiting_folders && waiting_items_ < max_waiting_items;
}

void EWS_Listing_Ahead::plan_front(const std::string& parent_path, const EWS_Folders& folders)
{
  for (EWS_Folders::const_reverse_iterator f = folders.rbegin(); f != folders.rend(); ++f)
  {
    Planned next;
    next.id = f->id;
    next.path = join_path(parent_path, encode_name(f->display_name));
    next.no_subfolders = f->subfolders_counted && f->subfolders_count == 0;
    plan_.push_front(next);
  }
}

bool EWS_Listing_Ahead::planned(const std::string& id) const
{
  if (!running_ || stop_)
    return false;
  if (listing_ == id)
    return true;
  for (const Planned& p : plan_)
    if (p.id == id)
      return true;
  return false;
}

bool EWS_Listing_Ahead::take(const std::string& id, EWS_Folder_Listing& out)
{
  std::unique_lock<std::mutex> guard(lock_);
  for (;;)
  {
    for (size_t k = 0; k < done_.size(); ++k)
    {
      if (done_[k].id != id)
        continue;
      // Listings before it belong to folders the stream has passed by.
      out = std::move(done_[k]);
      done_.erase(done_.begin(), done_.begin() + static_cast<std::ptrdiff_t>(k) + 1);
      waiting_items_ = 0;
      for (const EWS_Folder_Listing& l : done_)
        waiting_items_ += l.items.size();
      changed_.notify_all();
      return true;
    }
    if (!planned(id))
      return false;
    // Every listing waiting was made before this folder's, so the stream has
    // passed those folders by: drop them, or the thread could wait for room
    // while this waits for the thread.
    if (!done_.empty())
    {
      done_.clear();
      waiting_items_ = 0;
      changed_.notify_all();
    }
    changed_.wait(guard);
  }
}

void EWS_Listing_Ahead::svc()
{
  for (;;)
  {
    Planned next;
    {
      std::unique_lock<std::mutex> guard(lock_);
      changed_.wait(guard, [this] { return stop_ || plan_.empty() || room(); });
      if (stop_ || plan_.empty())
        break;
      next = plan_.front();
      plan_.pop_front();
      listing_ = next.id;
    }
    EWS_Folder_Listing listing;
    const bool ok = list(*ews_, ctx_, mailbox_, next.path, next.id, next.no_subfolders, listing);
    {
      std::lock_guard<std::mutex> guard(lock_);
      listing_.clear();
      if (stop_)
        break;
      // Its subfolders come next in the stream's walk, before its later siblings;
      // below a failed listing nothing is planned.
      if (ok)
        plan_front(next.path, listing.subfolders);
      waiting_items_ += listing.items.size();
      done_.push_back(std::move(listing));
    }
    changed_.notify_all();
  }
  {
    std::lock_guard<std::mutex> guard(lock_);
    running_ = false;
    listing_.clear();
  }
  changed_.notify_all();
}
