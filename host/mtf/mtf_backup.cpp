#include "host/mtf/mtf_backup.h"

#include "host/job/job_log_callback.h"

#include <ace/Log_Msg.h>

#include "host/base/log.h"
#include "host/mtf/mtf_backup_channel.h"
#include "host/mtf/mtf_set_catalog.h"
#include "host/storage/client_io_ex.h"
#include "host/storage/pool_info.h"

unsigned short compression_to_mtf(Compression_Method method)
{
  return method == COMPR_NONE ? MTF_COMPRESSION_NONE : MTF_COMPRESSION_ZSTD;
}

MTF_Backup::MTF_Backup(const MTF_Metadata& metadata, MTF::Event_Handler& handler,
                       std::shared_ptr<ACE_Log_Msg_Callback> log_callback)
  : metadata_(metadata), handler_(handler), log_callback_(std::move(log_callback))
{
}

MTF_Backup::~MTF_Backup() = default;

void MTF_Backup::add_source(const std::string& name, const std::string& path)
{
  MTF::source_entry entry;
  entry.name = name;
  entry.path = path;
  sources_.push_back(entry);
}

std::string MTF_Backup::catalog_name() const { return MTF_Set_Catalog::catalog_name(rev()); }

bool MTF_Backup::next_source(MTF::source_entry& entry)
{
  std::lock_guard<std::mutex> guard(lock_);
  if (next_source_ >= sources_.size())
    return false;
  entry = sources_[next_source_++];
  return true;
}

bool MTF_Backup::should_stop()
{
  if (stop_)
    return true;
  if (handler_.canceling())
  {
    cancelled_ = true;
    stop_ = true;
  }
  return stop_;
}

// Progress goes out when its percent changes and every 64 files, so a handler
// sees the run advance even when the percent cannot be known.
void MTF_Backup::file_done(ACE_UINT64 bytes, MTF::IBackup_Callback& callback)
{
  ACE_UINT64 files = ++files_done_;
  ACE_UINT64 done = bytes_done_ += bytes;
  int percent = 0;
  if (handler_.progress_report_mode() == MTF::Event_Handler::PRM_FILE_COUNT)
  {
    uint64_t one = callback.file_count_one_percent();
    uint64_t by_count = one == 0 ? 0 : files / one;
    int cap = callback.max_file_count_percent();
    percent = static_cast<int>(by_count < static_cast<uint64_t>(cap < 0 ? 0 : cap) ? by_count : cap);
  }
  if (percent > 99)
    percent = 99;
  if (const Job_Log_Callback* job_log = dynamic_cast<const Job_Log_Callback*>(log_callback_.get()))
    job_log->report_progress(files, done);
  int last = last_percent_.exchange(percent);
  if (last == percent && files % 64 != 0)
    return;
  if (handler_.handle_progress(percent, done, 0, files) < 0)
  {
    LOG_MSG(LM_INFO, "Backup stopped by its event handler.\n");
    cancelled_ = true;
    stop_ = true;
  }
}

bool MTF_Backup::prepare(std::string& location)
{
  if (factory_ == nullptr)
  {
    LOG_MSG(LM_ERROR, "Backup stream has no callback factory.\n");
    return false;
  }
  if (!MTF_Set_Catalog::locate(pool_uuid_, pool_url_, host_uuid_, minor_resource_id_, POOL_ACCESS_WRITE,
                               options_.max_seconds_retry, options_, location))
    return false;
  // Whatever an earlier, unfinished attempt at this revision left goes first:
  // its catalog file above all, so that no old catalog can ever describe the
  // data files written now.
  Client_IO_Ex io;
  if (!io.open(location, options_))
  {
    LOG_MSG(LM_ERROR, "Failed to connect to '%s': %s\n", location.c_str(), io.last_error().c_str());
    return false;
  }
  // Data files are written with overwrite on; a catalog file of an earlier
  // attempt at this revision is removed first, so that no old catalog can ever
  // describe the data files written now.
  std::string catalog = catalog_name();
  uint64_t size = 0;
  if (io.size(catalog, size))
  {
    if (!io.remove(catalog))
    {
      LOG_MSG(LM_ERROR, "Failed to remove '%s' of an unfinished backup set: %s\n", catalog.c_str(),
              io.last_error().c_str());
      return false;
    }
    LOG_MSG(LM_INFO, "Removed '%s' left by an earlier attempt at revision %d.\n", catalog.c_str(), rev());
  }
  return true;
}

int MTF_Backup::backup()
{
  std::string location;
  if (!prepare(location))
    return -1;
  bool zstd = compression_ != MTF_COMPRESSION_NONE;
  int level = zstd ? (compression_level_ > 0 ? compression_level_ : 3) : 0;
  LOG_MSG(LM_INFO, "Backup set revision %d to '%s' on %u channel(s)%s.\n", rev(), location.c_str(), channel_num_,
          zstd ? " with zstd" : "");
  for (unsigned i = 0; i < channel_num_; ++i)
    channels_.emplace_back(new MTF_Backup_Channel(*this, i, location, options_, level, rev()));
  for (auto& channel : channels_)
    channel->start();
  for (auto& channel : channels_)
    channel->join();
  return finish(location);
}

int MTF_Backup::finish(const std::string& location)
{
  // Sources are ended and every channel's data file is complete or abandoned;
  // the callbacks learn that nothing more will come.
  for (auto& channel : channels_)
    if (channel->callback())
    {
      if (!channel->callback()->handle_source_produce_end())
        LOG_MSG(LM_WARNING, "Backup callback failed at the end of the sources.\n");
      break;
    }

  bool ok = !stop_;
  bool any = false;
  for (auto& channel : channels_)
  {
    if (channel->broken())
      ok = false;
    any = any || channel->finished();
  }
  if (!any)
    ok = false;
  if (ok && sources_.size() > 0 && next_source_ < sources_.size())
  {
    LOG_MSG(LM_ERROR, "No backup channel could take the remaining sources.\n");
    ok = false;
  }
  MTF_Set_Catalog catalog;
  if (ok)
  {
    size_t count = 0;
    for (auto& channel : channels_)
      count += channel->entries().size();
    catalog.entries.reserve(count);
    for (auto& channel : channels_)
    {
      if (!channel->finished())
        continue;
      if (!channel->publish())
      {
        LOG_MSG(LM_ERROR, "Failed to store '%s': %s\n", channel->data_name().c_str(), channel->error().c_str());
        ok = false;
        break;
      }
      MTF_Set_Catalog::Data_File file;
      file.name = channel->data_name();
      file.size = channel->writer().position();
      file.stored = channel->writer().stored();
      uint32_t index = static_cast<uint32_t>(catalog.files.size());
      catalog.files.push_back(file);
      // Moved, not copied: the entries are most of a large set's memory.
      for (MTF_Set_Catalog::Entry& e : channel->entries())
      {
        e.data = index;
        catalog.entries.push_back(std::move(e));
      }
      std::vector<MTF_Set_Catalog::Entry>().swap(channel->entries());
    }
  }
  if (!ok)
  {
    for (auto& channel : channels_)
      channel->abort();
    if (cancelled_)
      LOG_MSG(LM_WARNING, "Backup set revision %d cancelled; nothing of it is kept.\n", rev());
    else
      LOG_MSG(LM_ERROR, "Backup set revision %d failed; nothing of it is kept.\n", rev());
    Client_IO_Ex io;
    if (io.open(location, options_))
      for (const MTF_Set_Catalog::Data_File& f : catalog.files)
        io.remove(f.name);
    return -1;
  }

  catalog.rev = rev();
  catalog.agent = metadata_.get_agent();
  catalog.compression = compression_ != MTF_COMPRESSION_NONE ? "zstd" : "none";
  catalog.created = static_cast<int64_t>(time(nullptr));
  if (!channels_.empty() && channels_[0]->callback())
    catalog.separator = channels_[0]->callback()->directory_separator();
  std::string text = catalog.to_text();
  Client_IO_Ex io;
  if (!io.open(location, options_) || !io.put_contents(catalog_name(), text, true))
  {
    LOG_MSG(LM_ERROR, "Failed to store the catalog file '%s': %s\n", catalog_name().c_str(), io.last_error().c_str());
    for (const MTF_Set_Catalog::Data_File& f : catalog.files)
      io.remove(f.name);
    return -1;
  }

  ACE_UINT64 set_size = text.size();
  ACE_UINT64 stored = io.storage_size();
  ACE_UINT64 failed = 0, skipped = 0, dirs = 0, files = 0;
  for (const MTF_Set_Catalog::Data_File& f : catalog.files)
  {
    set_size += f.size;
    stored += f.stored;
    files_.push_back(f.name);
  }
  files_.push_back(catalog_name());
  for (auto& channel : channels_)
  {
    failed += channel->failed_files();
    skipped += channel->skipped_files();
    dirs += channel->dir_count();
    files += channel->file_count();
  }
  summary_.set(bytes_done_, set_size, stored, files, dirs, failed, skipped);
  handler_.handle_progress(100, bytes_done_, bytes_done_, files);
  LOG_MSG(LM_INFO, "Backup set revision %d written: %Q files, %Q bytes, %Q stored, %Q failed.\n", rev(),
          static_cast<ACE_UINT64>(files), static_cast<ACE_UINT64>(summary_.size()), static_cast<ACE_UINT64>(stored),
          static_cast<ACE_UINT64>(failed));
  return 0;
}
