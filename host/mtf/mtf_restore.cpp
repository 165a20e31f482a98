#include "host/mtf/mtf_restore.h"

#include "host/job/job_log_callback.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <set>

#include "host/base/log.h"
#include "host/mtf/mtf_fs.h"
#include "host/mtf/mtf_restore_worker.h"
#include "host/storage/client_io_ex.h"
#include "host/storage/pool_info.h"

// A batch ends after this many data bytes or files, so that several workers
// share a large set, and a worker's forward reading does not outrun the others.
static const uint64_t BATCH_BYTES = 64ull * 1024 * 1024;
static const size_t BATCH_FILES = 1024;

MTF_Restore::MTF_Restore(MTF::Event_Handler& handler, std::shared_ptr<ACE_Log_Msg_Callback> log_callback)
  : handler_(handler), log_callback_(std::move(log_callback))
{
}

MTF_Restore::~MTF_Restore() = default;

static bool under(const std::string& path, const std::string& dir, char sep)
{
  if (dir.size() == 1 && dir[0] == sep)
    return path.size() > 1 && path[0] == sep;
  return path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 && path[dir.size()] == sep;
}

static void add_ancestors(const std::string& path, char sep, std::set<std::string>& dirs)
{
  size_t len = MTF_FS::dirname(path.c_str(), static_cast<int>(path.size()), sep);
  while (len != std::string::npos && len > 0)
  {
    std::string dir = path.substr(0, len);
    if (!dirs.insert(dir).second)
      return;
    len = MTF_FS::dirname(dir.c_str(), static_cast<int>(dir.size()), sep);
  }
}

bool MTF_Restore::select(std::vector<std::string>& dirs, std::vector<const MTF_Set_Catalog::Entry*>& files)
{
  char sep = catalog_.separator;
  std::set<std::string> dir_set;
  std::set<const MTF_Set_Catalog::Entry*> file_set;
  bool ok = true;
  if (!selection_.is_array())
  {
    LOG_MSG(LM_ERROR, "Restore selection is not an array.\n");
    return false;
  }
  for (const auto& item : selection_)
  {
    bool is_dir = item.is_object() && item.contains("dir") && item["dir"].is_string();
    bool is_file = item.is_object() && item.contains("file") && item["file"].is_string();
    if (is_dir == is_file)
    {
      LOG_MSG(LM_ERROR, "Restore selection entry %s is neither {\"dir\"} nor {\"file\"}.\n", item.dump().c_str());
      ok = false;
      continue;
    }
    std::string path = MTF_FS::normalize(item[is_dir ? "dir" : "file"].get<std::string>(), sep);
    bool found = false;
    for (const MTF_Set_Catalog::Entry& e : catalog_.entries)
    {
      bool hit = is_dir ? (e.path == path && e.dir) || under(e.path, path, sep) : (!e.dir && e.path == path);
      if (!hit)
        continue;
      found = true;
      if (e.dir)
        dir_set.insert(e.path);
      else if (file_set.insert(&e).second)
        files.push_back(&e);
      add_ancestors(e.path, sep, dir_set);
    }
    if (!found)
    {
      LOG_MSG(LM_ERROR, "'%s' is not in backup set revision %d.\n", path.c_str(), seq_);
      ++unknown_paths_;
      ok = false;
    }
  }
  dir_set.erase(std::string(1, sep));
  dirs.assign(dir_set.begin(), dir_set.end());
  // Parents first: fewer components first, then by name.
  std::stable_sort(dirs.begin(), dirs.end(),
                   [sep](const std::string& a, const std::string& b)
                   { return std::count(a.begin(), a.end(), sep) < std::count(b.begin(), b.end(), sep); });
  dir_index_.clear();
  for (size_t i = 0; i < dirs.size(); ++i)
    dir_index_[dirs[i]] = static_cast<int>(i);
  dir_parent_.assign(dirs.size(), -1);
  for (size_t i = 0; i < dirs.size(); ++i)
  {
    size_t len = MTF_FS::dirname(dirs[i].c_str(), static_cast<int>(dirs[i].size()), sep);
    if (len == std::string::npos)
      continue;
    auto parent = dir_index_.find(dirs[i].substr(0, len));
    if (parent != dir_index_.end())
      dir_parent_[i] = parent->second;
  }
  dir_state_.assign(dirs.size(), DIR_WAITING);
  return ok;
}

void MTF_Restore::make_batches(std::vector<const MTF_Set_Catalog::Entry*>& files)
{
  std::sort(files.begin(), files.end(),
            [](const MTF_Set_Catalog::Entry* a, const MTF_Set_Catalog::Entry* b)
            { return a->data != b->data ? a->data < b->data : a->offset < b->offset; });
  // At least four batches per worker where the files allow, so that a set whose
  // files sit in few data files (one mailbox is one stream) is still restored by
  // every worker; a batch starts with a ranged read at its first file.
  const uint64_t workers = concurrent_ != 0 ? concurrent_ : (channel_num_ != 0 ? channel_num_ : 1);
  uint64_t all_bytes = 0;
  for (const MTF_Set_Catalog::Entry* e : files)
    all_bytes += e->length;
  const size_t max_files =
    static_cast<size_t>(std::max<uint64_t>(1, std::min<uint64_t>(BATCH_FILES, files.size() / (workers * 4))));
  const uint64_t max_bytes = std::max<uint64_t>(1 << 20, std::min<uint64_t>(BATCH_BYTES, all_bytes / (workers * 4)));
  Batch batch;
  uint64_t bytes = 0;
  for (const MTF_Set_Catalog::Entry* e : files)
  {
    if (!batch.files.empty() &&
        (batch.files.back()->data != e->data || bytes >= max_bytes || batch.files.size() >= max_files))
    {
      batches_.push_back(batch);
      batch.files.clear();
      bytes = 0;
    }
    batch.files.push_back(e);
    bytes += e->length;
    bytes_total_ += e->length;
  }
  if (!batch.files.empty())
    batches_.push_back(batch);
  files_total_ = files.size();
}

int MTF_Restore::restore()
{
  if (factory_ == nullptr)
  {
    LOG_MSG(LM_ERROR, "Restore stream has no callback factory.\n");
    return -1;
  }
  if (!MTF_Set_Catalog::locate(pool_uuid_, pool_url_, backup_host_uuid_, backup_minor_resource_id_, POOL_ACCESS_READ,
                               options_.max_seconds_retry, options_, location_))
    return -1;
  Client_IO_Ex io;
  std::string text;
  std::string name = MTF_Set_Catalog::catalog_name(seq_);
  if (!io.open(location_, options_) || !io.get_contents(name, text))
  {
    LOG_MSG(LM_ERROR, "Backup set revision %d at '%s' is absent or incomplete (no catalog file '%s'): %s\n", seq_,
            location_.c_str(), name.c_str(), io.last_error().c_str());
    return -1;
  }
  std::string error;
  if (!catalog_.parse(text, error))
  {
    LOG_MSG(LM_ERROR, "Catalog file '%s' of '%s' is damaged: %s\n", name.c_str(), location_.c_str(), error.c_str());
    return -1;
  }
  if (catalog_.rev != seq_ || (incarnation_ != 0 && catalog_.rev != incarnation_))
  {
    LOG_MSG(LM_ERROR, "Catalog file '%s' names revision %d, not %d.\n", name.c_str(), catalog_.rev,
            incarnation_ != 0 ? incarnation_ : seq_);
    return -1;
  }
  set_size_ = text.size();
  for (const MTF_Set_Catalog::Data_File& f : catalog_.files)
    set_size_ += f.size;

  std::vector<const MTF_Set_Catalog::Entry*> files;
  bool selected = select(dirs_, files);
  if (!selected && files.empty() && dirs_.empty())
    return -1;
  make_batches(files);
  unsigned workers = concurrent_ != 0 ? concurrent_ : (channel_num_ != 0 ? channel_num_ : 1);
  if (workers > batches_.size() && !batches_.empty())
    workers = static_cast<unsigned>(batches_.size());
  LOG_MSG(
    LM_INFO,
    "Restoring %Q files (%Q bytes) and %Q directories of backup set revision %d from '%s' with %u worker(s)%s%s.\n",
    static_cast<ACE_UINT64>(files_total_), static_cast<ACE_UINT64>(bytes_total_), static_cast<ACE_UINT64>(dirs_.size()),
    seq_, location_.c_str(), workers, definition_uuid_.empty() ? "" : " for job ", definition_uuid_.c_str());
  std::vector<std::unique_ptr<MTF_Restore_Worker>> pool;
  for (unsigned i = 0; i < workers; ++i)
    pool.emplace_back(new MTF_Restore_Worker(*this, i));
  for (auto& w : pool)
    w->start();
  for (auto& w : pool)
    w->join();

  ACE_UINT64 missing = files_total_ - files_done_ - files_failed_;
  if (missing > 0 && !cancelled_)
  {
    LOG_MSG(LM_ERROR, "%Q selected files were not restored: no worker could take them.\n",
            static_cast<ACE_UINT64>(missing));
    files_failed_ += missing;
  }
  files_failed_ += unknown_paths_;
  LOG_MSG(LM_INFO, "Restore of backup set revision %d: %Q files (%Q bytes) restored, %Q failed.\n", seq_,
          static_cast<ACE_UINT64>(files_done_), static_cast<ACE_UINT64>(bytes_done_),
          static_cast<ACE_UINT64>(files_failed_));
  if (cancelled_)
  {
    LOG_MSG(LM_WARNING, "Restore cancelled.\n");
    return -1;
  }
  handler_.handle_progress(100, bytes_done_, bytes_total_, files_done_);
  return 0;
}

int MTF_Restore::dir_of(const MTF_Set_Catalog::Entry& file) const
{
  size_t len = MTF_FS::dirname(file.path.c_str(), static_cast<int>(file.path.size()), catalog_.separator);
  if (len == std::string::npos)
    return -1;
  auto dir = dir_index_.find(file.path.substr(0, len));
  return dir == dir_index_.end() ? -1 : dir->second;
}

int MTF_Restore::missing_above(int wanted) const
{
  int top = -1;
  for (int i = wanted; i >= 0 && dir_state_[i] != DIR_DONE; i = dir_parent_[i])
    top = i;
  return top;
}

bool MTF_Restore::takeable(int index) const
{
  return dir_state_[index] == DIR_WAITING && (dir_parent_[index] < 0 || dir_state_[dir_parent_[index]] == DIR_DONE);
}

bool MTF_Restore::take_dir(int wanted, int& index, std::string& path)
{
  std::lock_guard<std::mutex> guard(lock_);
  index = -1;
  if (wanted >= 0)
  {
    // Only the way to the wanted directory: while another worker announces a
    // directory on it, this one waits rather than announce others, which may
    // have to wait for the same callback resources and would delay its file.
    const int top = missing_above(wanted);
    if (top >= 0 && takeable(top))
      index = top;
  }
  else
  {
    while (first_waiting_dir_ < dirs_.size() && dir_state_[first_waiting_dir_] != DIR_WAITING)
      ++first_waiting_dir_;
    for (size_t i = first_waiting_dir_; i < dirs_.size() && index < 0; ++i)
      if (takeable(static_cast<int>(i)))
        index = static_cast<int>(i);
  }
  if (index < 0)
    return false;
  dir_state_[index] = DIR_TAKEN;
  path = dirs_[index];
  return true;
}

void MTF_Restore::dir_done(int index, bool ok)
{
  if (ok)
    ++dirs_done_;
  std::lock_guard<std::mutex> guard(lock_);
  dir_state_[index] = DIR_DONE;
  dirs_ready_.notify_all();
}

bool MTF_Restore::dir_announced(int index)
{
  if (index < 0)
    return true;
  std::lock_guard<std::mutex> guard(lock_);
  return dir_state_[index] == DIR_DONE;
}

bool MTF_Restore::wait_dirs(int wanted)
{
  std::unique_lock<std::mutex> guard(lock_);
  // Something changed for this waiter: its directory is announced, the next
  // one on its way can be taken, or (with -1) one can be taken or none is left.
  auto changed = [this, wanted]
  {
    if (stop_)
      return true;
    if (wanted >= 0)
    {
      const int top = missing_above(wanted);
      return top < 0 || takeable(top);
    }
    bool waiting = false;
    for (size_t i = first_waiting_dir_; i < dirs_.size(); ++i)
      if (dir_state_[i] == DIR_WAITING)
      {
        if (takeable(static_cast<int>(i)))
          return true;
        waiting = true;
      }
    return !waiting;
  };
  // A cancel is polled, as should_stop() learns of it from the handler without
  // this lock. Every directory taken is given back by its worker, so the wait
  // always ends.
  while (!dirs_ready_.wait_for(guard, std::chrono::milliseconds(100), changed))
    if (handler_.canceling())
      stop_ = cancelled_ = true;
  if (stop_)
    return false;
  if (wanted >= 0)
    return true;
  for (size_t i = first_waiting_dir_; i < dirs_.size(); ++i)
    if (dir_state_[i] == DIR_WAITING)
      return true;
  return false;
}

bool MTF_Restore::next_batch(const Batch*& batch)
{
  std::lock_guard<std::mutex> guard(lock_);
  if (next_batch_ >= batches_.size())
    return false;
  batch = &batches_[next_batch_++];
  return true;
}

bool MTF_Restore::should_stop()
{
  if (!stop_ && handler_.canceling())
  {
    cancelled_ = true;
    stop_ = true;
  }
  return stop_;
}

void MTF_Restore::file_done(ACE_UINT64 bytes, bool ok)
{
  ACE_UINT64 files;
  if (ok)
  {
    files = ++files_done_;
    bytes_done_ += bytes;
  }
  else
  {
    ++files_failed_;
    files = files_done_;
  }
  ACE_UINT64 done = files + files_failed_;
  // The job's activity shows the items and bytes restored so far, as the backup's does.
  if (const Job_Log_Callback* job_log = dynamic_cast<const Job_Log_Callback*>(log_callback_.get()))
    job_log->report_progress(files, bytes_done_);
  int percent;
  if (handler_.progress_report_mode() == MTF::Event_Handler::PRM_FILE_COUNT)
    percent = files_total_ == 0 ? 0 : static_cast<int>(done * 100 / files_total_);
  else
    percent = bytes_total_ == 0 ? 0 : static_cast<int>(bytes_done_ * 100 / bytes_total_);
  if (percent > 99)
    percent = 99;
  if (last_percent_.exchange(percent) == percent)
    return;
  if (handler_.handle_progress(percent, bytes_done_, bytes_total_, files) < 0)
  {
    cancelled_ = true;
    stop_ = true;
  }
}
