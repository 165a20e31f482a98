#include "host/mtf/mtf_restore_worker.h"

#include <ace/Log_Msg.h>
#include <algorithm>

#include "host/base/log.h"
#include "host/mtf/mtf_fs.h"
#include "host/mtf/mtf_sha256.h"

static const size_t PIECE = 1024 * 1024;
// Without compression, a gap this large is skipped by a new ranged read rather
// than by reading through it.
static const uint64_t SEEK_GAP = 1024 * 1024;

MTF_Restore_Worker::MTF_Restore_Worker(MTF_Restore& owner, unsigned index) : owner_(owner), index_(index) {}

MTF_Restore_Worker::~MTF_Restore_Worker() { join(); }

void MTF_Restore_Worker::start() { thread_ = std::thread(&MTF_Restore_Worker::run, this); }

void MTF_Restore_Worker::join()
{
  if (thread_.joinable())
    thread_.join();
}

std::string MTF_Restore_Worker::local_path(const std::string& path) const
{
  std::string out = path;
  char from = owner_.catalog().separator;
  char to = callback_->directory_separator();
  if (from != to)
    std::replace(out.begin(), out.end(), from, to);
  return out;
}

void MTF_Restore_Worker::run()
{
  if (owner_.log_callback())
  {
    ACE_LOG_MSG->msg_callback(owner_.log_callback().get());
    ACE_LOG_MSG->set_flags(ACE_Log_Msg::MSG_CALLBACK);
  }
  callback_ = owner_.factory()->make();
  if (!callback_)
    LOG_MSG(LM_ERROR, "Restore worker %u has no callback; it takes no work.\n", index_);
  else if (!io_.open(owner_.location(), owner_.options()))
  {
    LOG_MSG(LM_ERROR, "Failed to connect to '%s': %s\n", owner_.location().c_str(), io_.last_error().c_str());
    callback_.reset();
  }
  if (callback_)
  {
    std::string dir;
    while (!owner_.should_stop() && owner_.next_dir(dir))
    {
      std::string path = local_path(dir);
      bool ok = callback_->mkdir_p(path.c_str());
      if (!ok)
        LOG_MSG(LM_ERROR, "Failed to create directory '%s'\n", path.c_str());
      owner_.dir_done(ok);
    }
    owner_.wait_dirs();
    const MTF_Restore::Batch* batch = nullptr;
    piece_.resize(PIECE);
    while (!owner_.should_stop() && owner_.next_batch(batch))
      for (const MTF_Set_Catalog::Entry* e : batch->files)
      {
        if (owner_.should_stop())
          break;
        bool ok = restore_file(*e);
        std::string path = local_path(e->path);
        callback_->handle_file_end(path.c_str(), ok);
        owner_.file_done(e->length, ok);
      }
    io_.close_read();
  }
  owner_.worker_gone();
  if (owner_.log_callback())
    ACE_LOG_MSG->msg_callback(nullptr);
}

// Reads forward where it can: the next file of a batch usually follows the last
// one in the same data file (and the same zstd frame), so no new read is needed.
bool MTF_Restore_Worker::position_at(const MTF_Set_Catalog::Entry& e, std::string& error)
{
  const MTF_Set_Catalog& catalog = owner_.catalog();
  bool compressed = catalog.compression == "zstd";
  bool reopen = !reader_ || !reader_->error().empty() || reader_file_ != e.data || e.offset < reader_->position();
  if (!reopen)
    reopen = compressed ? e.frame_base > reader_->position() : e.offset - reader_->position() > SEEK_GAP;
  const std::string& name = catalog.files[e.data].name;
  if (reopen)
  {
    reader_.reset();
    io_.close_read();
    uint64_t start = compressed ? e.frame : e.offset;
    if (!io_.open_read(name, start))
    {
      error = name + ": " + io_.last_error();
      return false;
    }
    reader_file_ = e.data;
    reader_.reset(new MTF_Reader([this](void* data, size_t len) { return io_.read(data, len); }, compressed,
                                 compressed ? e.frame_base : e.offset));
  }
  if (!reader_->skip_to(e.offset))
  {
    error = name + " " + reader_->error();
    return false;
  }
  return true;
}

bool MTF_Restore_Worker::restore_file(const MTF_Set_Catalog::Entry& e)
{
  const MTF_Set_Catalog& catalog = owner_.catalog();
  std::string path = local_path(e.path);
  std::string error;
  MTF_Reader::Block block;
  MTF_Reader::Stream stream;
  if (!position_at(e, error))
  {
    LOG_MSG(LM_ERROR, "Failed to restore '%s': %s\n", path.c_str(), error.c_str());
    return false;
  }
  const std::string& data_name = catalog.files[e.data].name;
  bool found = reader_->read_block(block);
  if (found && (block.type != "FILE" || block.name != MTF_FS::basename(e.path, catalog.separator)))
  {
    LOG_MSG(LM_ERROR, "Failed to restore '%s': %s offset %Q holds %s '%s', not this file\n", path.c_str(),
            data_name.c_str(), static_cast<ACE_UINT64>(e.offset), block.type.c_str(), block.name.c_str());
    reader_.reset();
    return false;
  }
  while (found && reader_->next_stream(stream) && stream.id != "STAN")
  {
    if (stream.id == "SPAD")
    {
      found = false;
      error = "no data stream";
    }
    else if (!reader_->skip_data())
      found = false;
  }
  if (!found || !reader_->error().empty())
  {
    LOG_MSG(LM_ERROR, "Failed to restore '%s': %s %s\n", path.c_str(), data_name.c_str(),
            reader_->error().empty() ? error.c_str() : reader_->error().c_str());
    reader_.reset();
    return false;
  }
  if (stream.length != e.length)
  {
    LOG_MSG(LM_ERROR, "Failed to restore '%s': its data stream in %s holds %Q bytes, the catalog says %Q\n",
            path.c_str(), data_name.c_str(), static_cast<ACE_UINT64>(stream.length), static_cast<ACE_UINT64>(e.length));
    reader_.reset();
    return false;
  }
  MTF::IFile_Writer_var writer = callback_->make_file_writer();
  if (!writer)
  {
    LOG_MSG(LM_ERROR, "Failed to restore '%s': no file writer\n", path.c_str());
    return false;
  }
  if (writer->open(path.c_str(), e.length) != MTF::E_OK)
  {
    LOG_MSG(LM_ERROR, "Failed to restore '%s': the writer could not open it\n", path.c_str());
    return false;
  }
  MTF_Sha256 sha;
  uint64_t left = e.length;
  if (left == 0)
  {
    if (sha.hex() != e.sha256)
    {
      LOG_MSG(LM_ERROR, "Failed to restore '%s': its data does not match its SHA-256\n", path.c_str());
      return false;
    }
    return writer->write(piece_.data(), 0) == MTF::E_OK;
  }
  while (left > 0)
  {
    if (owner_.should_stop())
      return false;
    size_t want = static_cast<size_t>(std::min<uint64_t>(left, piece_.size()));
    size_t got = 0;
    while (got < want)
    {
      long long n = reader_->read_data(piece_.data() + got, want - got);
      if (n <= 0)
      {
        LOG_MSG(LM_ERROR, "Failed to restore '%s': %s %s\n", path.c_str(), data_name.c_str(), reader_->error().c_str());
        reader_.reset();
        return false;
      }
      got += static_cast<size_t>(n);
    }
    sha.update(piece_.data(), got);
    left -= got;
    // The last piece goes to the writer only once the whole file matched.
    if (left == 0 && sha.hex() != e.sha256)
    {
      LOG_MSG(LM_ERROR, "Failed to restore '%s': its data in %s does not match its SHA-256 (damaged backup set)\n",
              path.c_str(), data_name.c_str());
      return false;
    }
    if (writer->write(piece_.data(), got) != MTF::E_OK)
    {
      LOG_MSG(LM_ERROR, "Failed to restore '%s': the writer refused its data\n", path.c_str());
      if (left > 0)
        reader_->skip_data();
      return false;
    }
  }
  return true;
}
