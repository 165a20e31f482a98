#include "host/mtf/mtf_backup_channel.h"

#include <ace/Log_Msg.h>
#include <sys/stat.h>

#include "host/base/log.h"
#include "host/mtf/mtf_backup.h"
#include "host/mtf/mtf_fs.h"
#include "host/mtf/mtf_sha256.h"

MTF_Backup_Channel::MTF_Backup_Channel(MTF_Backup& owner, unsigned index, const std::string& location,
                                       const Client_IO_Base::Options& options, int zstd_level, int rev)
  : owner_(owner), index_(index), location_(location), options_(options), rev_(rev)
{
  data_name_ = MTF_Set_Catalog::data_name(rev, index, zstd_level > 0);
  writer_.reset(new MTF_Writer([this](const char* data, size_t len) { return io_.write(data, len); }, zstd_level));
}

MTF_Backup_Channel::~MTF_Backup_Channel()
{
  join();
  abort();
}

void MTF_Backup_Channel::start() { thread_ = std::thread(&MTF_Backup_Channel::run, this); }

void MTF_Backup_Channel::join()
{
  if (thread_.joinable())
    thread_.join();
}

bool MTF_Backup_Channel::publish()
{
  if (!writing_)
    return true;
  writing_ = false;
  if (!io_.close_write())
  {
    error_ = io_.last_error();
    return false;
  }
  return true;
}

void MTF_Backup_Channel::abort()
{
  if (writing_)
    io_.abort_write();
  writing_ = false;
}

bool MTF_Backup_Channel::set_broken(const std::string& text)
{
  if (!broken_)
  {
    broken_ = true;
    error_ = text;
    LOG_MSG(LM_ERROR, "Backup channel %u failed: %s\n", index_, text.c_str());
  }
  owner_.request_stop();
  return false;
}

bool MTF_Backup_Channel::open_storage()
{
  if (!io_.open(location_, options_))
    return set_broken("cannot connect to '" + location_ + "': " + io_.last_error());
  if (!io_.open_write(data_name_, true))
    return set_broken("cannot write '" + data_name_ + "': " + io_.last_error());
  writing_ = true;
  MTF_Writer::Set_Info info;
  info.media_name = data_name_;
  info.set_name = "revision " + std::to_string(rev_);
  info.description = "channel " + std::to_string(index_);
  info.user = owner_.metadata().get_agent();
  info.software = "exo host backup stream";
  info.volume = location_.substr(location_.find("://") == std::string::npos ? 0 : location_.find("://") + 3);
  info.machine = owner_.metadata().get_agent();
  info.family_id = static_cast<uint32_t>(rev_) * 1000u + index_;
  info.when = time(nullptr);
  if (!writer_->begin(info))
    return set_broken(data_name_ + ": " + writer_->error());
  return true;
}

void MTF_Backup_Channel::run()
{
  if (owner_.log_callback())
  {
    ACE_LOG_MSG->msg_callback(owner_.log_callback().get());
    ACE_LOG_MSG->set_flags(ACE_Log_Msg::MSG_CALLBACK);
  }
  callback_ = owner_.factory()->make();
  if (!callback_)
  {
    LOG_MSG(LM_ERROR, "Backup channel %u has no callback; it takes no sources.\n", index_);
  }
  else if (open_storage())
  {
    sep_ = callback_->directory_separator();
    MTF::ISrc_Lister_var lister = callback_->make_source_lister();
    MTF::source_entry entry;
    while (!owner_.should_stop())
    {
      if (!owner_.next_source(entry) && !(lister && lister->next(entry)))
        break;
      walk_source(entry);
    }
    if (!broken_ && !owner_.should_stop())
    {
      if (writer_->finish(static_cast<uint32_t>(failed_)))
        finished_ = true;
      else
        set_broken(data_name_ + ": " + writer_->error());
    }
  }
  if (owner_.log_callback())
    ACE_LOG_MSG->msg_callback(nullptr);
}

bool MTF_Backup_Channel::walk_source(const MTF::source_entry& entry)
{
  bool ok = callback_->handle_source_entry_begin(entry);
  if (!ok)
    LOG_MSG(LM_ERROR, "Source '%s' could not begin.\n", entry.name.c_str());
  MTF::Callback_Stat st;
  if (ok && !callback_->lstat(entry.path.c_str(), st))
  {
    LOG_MSG(LM_ERROR, "Failed to stat '%s'\n", entry.path.c_str());
    ok = false;
  }
  if (ok)
  {
    if (S_ISDIR(st.mode))
      ok = walk_dir(entry.path, static_cast<time_t>(st.mtime), static_cast<time_t>(st.ctime));
    else if (S_ISREG(st.mode))
    {
      // A single file as a source: its directory's DIRB comes first.
      size_t dir_len = MTF_FS::dirname(entry.path.c_str(), -1, sep_);
      std::string dir = dir_len == std::string::npos ? std::string() : entry.path.substr(0, dir_len);
      uint32_t dir_id = 0;
      ok = add_directory(dir, 0, 0, dir_id) &&
           backup_file(entry.path, dir_id, st.size, static_cast<time_t>(st.mtime), static_cast<time_t>(st.ctime));
    }
    else
    {
      LOG_MSG(LM_ERROR, "Source '%s' is neither a directory nor a file.\n", entry.path.c_str());
      ok = false;
    }
  }
  if (owner_.should_stop())
    ok = false;
  callback_->handle_source_entry_end(entry, ok);
  return ok;
}

bool MTF_Backup_Channel::add_directory(const std::string& path, time_t mtime, time_t ctime, uint32_t& dir_id)
{
  std::vector<std::string> components = MTF_FS::split(path, sep_);
  for (const std::string& c : components)
    if (!MTF_Writer::valid_name(c))
    {
      LOG_MSG(LM_ERROR, "Directory '%s' has a name that cannot be stored.\n", path.c_str());
      return false;
    }
  MTF_Writer::Location where;
  where.offset = writer_->position();
  if (!writer_->add_directory(components, mtime, ctime, dir_id))
    return set_broken(data_name_ + ": " + writer_->error());
  MTF_Set_Catalog::Entry e;
  e.dir = true;
  e.path = path.empty() ? std::string(1, sep_) : MTF_FS::normalize(path, sep_);
  e.data = index_;
  e.offset = where.offset;
  e.mtime = mtime;
  entries_.push_back(std::move(e));
  ++dirs_;
  return true;
}

bool MTF_Backup_Channel::walk_dir(const std::string& path, time_t mtime, time_t ctime)
{
  if (owner_.should_stop())
    return false;
  uint32_t dir_id = 0;
  if (!add_directory(path, mtime, ctime, dir_id))
    return false;
  std::list<MTF::Directory_Entry> children;
  if (!callback_->read_dirs(path.c_str(), children))
  {
    LOG_MSG(LM_ERROR, "Failed to list directory '%s'\n", path.c_str());
    return false;
  }
  bool ok = true;
  // Files first, in listed order, so that data is read in the order the callback
  // listed it; then the subdirectories.
  for (const MTF::Directory_Entry& child : children)
  {
    if (!S_ISREG(child.stat.st_mode))
      continue;
    if (owner_.should_stop() || broken_)
      return false;
    if (child.name.find(sep_) != std::string::npos || child.name == "." || child.name == "..")
    {
      LOG_MSG(LM_ERROR, "Invalid name '%s' in directory '%s'\n", child.name.c_str(), path.c_str());
      ok = false;
      continue;
    }
    ok = backup_file(MTF_FS::join(path, child.name, sep_), dir_id, static_cast<uint64_t>(child.stat.st_size),
                     child.stat.st_mtime, child.stat.st_ctime) &&
         ok;
  }
  for (const MTF::Directory_Entry& child : children)
  {
    if (S_ISREG(child.stat.st_mode))
      continue;
    if (!S_ISDIR(child.stat.st_mode))
    {
      LOG_MSG(LM_DEBUG, "Skipping '%s' in '%s': neither a file nor a directory.\n", child.name.c_str(), path.c_str());
      continue;
    }
    if (child.name.find(sep_) != std::string::npos || child.name == "." || child.name == "..")
    {
      LOG_MSG(LM_ERROR, "Invalid name '%s' in directory '%s'\n", child.name.c_str(), path.c_str());
      ok = false;
      continue;
    }
    ok = walk_dir(MTF_FS::join(path, child.name, sep_), child.stat.st_mtime, child.stat.st_ctime) && ok;
    if (owner_.should_stop() || broken_)
      return false;
  }
  return ok;
}

bool MTF_Backup_Channel::backup_file(const std::string& path, uint32_t dir_id, uint64_t size, time_t mtime,
                                     time_t ctime)
{
  std::string name = MTF_FS::basename(path, sep_);
  if (!MTF_Writer::valid_name(name))
  {
    LOG_MSG(LM_ERROR, "File '%s' has a name that cannot be stored.\n", path.c_str());
    ++failed_;
    return false;
  }
  MTF::IFile_Reader_var reader = callback_->make_file_reader();
  if (!reader)
  {
    LOG_MSG(LM_ERROR, "No file reader for '%s'\n", path.c_str());
    ++failed_;
    return false;
  }
  MTF::Error_Code rc = reader->open(path.c_str());
  if (rc == MTF::E_SKIP)
  {
    LOG_MSG(LM_WARNING, "File '%s' left out by its reader.\n", path.c_str());
    ++skipped_;
    return true;
  }
  if (rc != MTF::E_OK)
  {
    LOG_MSG(LM_ERROR, "Failed to open '%s'\n", path.c_str());
    ++failed_;
    return false;
  }
  MTF::File_Blk blk(size);
  ACE_UINT64 space = 0;
  if (!reader->handle_file_blk(blk, space))
  {
    LOG_MSG(LM_ERROR, "Failed to get the size of '%s'\n", path.c_str());
    reader->close();
    ++failed_;
    return false;
  }
  size = blk.size();
  MTF_Writer::Location where;
  if (!writer_->begin_file(dir_id, name, mtime, ctime, size, where))
  {
    reader->close();
    return set_broken(data_name_ + ": " + writer_->error());
  }
  MTF_Sha256 sha;
  uint64_t done = 0;
  bool data_ok = true;
  while (done < size)
  {
    // Polled inside long files too, so a cancel does not wait for a big file.
    if (owner_.should_stop())
    {
      data_ok = false;
      break;
    }
    buffer_.clear();
    if (reader->read(buffer_) != MTF::E_OK)
    {
      LOG_MSG(LM_ERROR, "Failed to read '%s'\n", path.c_str());
      data_ok = false;
      break;
    }
    if (buffer_.size() == 0)
    {
      LOG_MSG(LM_ERROR, "File '%s' ended after %Q of %Q bytes\n", path.c_str(), static_cast<ACE_UINT64>(done),
              static_cast<ACE_UINT64>(size));
      data_ok = false;
      break;
    }
    uint64_t take = buffer_.size();
    if (take > size - done)
    {
      LOG_MSG(LM_ERROR, "File '%s' gave more data than its size %Q\n", path.c_str(), static_cast<ACE_UINT64>(size));
      take = size - done;
      data_ok = false;
    }
    if (!writer_->file_data(buffer_.data(), static_cast<size_t>(take)))
    {
      reader->close();
      return set_broken(data_name_ + ": " + writer_->error());
    }
    sha.update(buffer_.data(), static_cast<size_t>(take));
    done += take;
    if (!data_ok)
      break;
  }
  buffer_.clear();
  buffer_.shrink();
  reader->close();
  bool complete = false;
  if (!writer_->end_file(complete))
    return set_broken(data_name_ + ": " + writer_->error());
  if (!data_ok || !complete)
  {
    // The stream keeps its announced length (zero-filled), but the file is left
    // out of the catalog and counted as corrupt in the ESET.
    ++failed_;
    return false;
  }
  MTF_Set_Catalog::Entry e;
  e.path = path;
  e.data = index_;
  e.offset = where.offset;
  e.frame = where.frame;
  e.frame_base = where.frame_base;
  e.length = size;
  e.sha256 = sha.hex();
  e.mtime = mtime;
  entries_.push_back(std::move(e));
  ++files_;
  owner_.file_done(size, *callback_);
  return true;
}
