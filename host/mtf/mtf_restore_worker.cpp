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
  if (from != separator_)
    std::replace(out.begin(), out.end(), from, separator_);
  return out;
}

void MTF_Restore_Worker::run()
{
  const std::shared_ptr<ACE_Log_Msg_Callback> log_callback = owner_.log_callback();
  auto route_log = [log_callback](bool starting)
  {
    if (!log_callback)
      return;
    if (starting)
    {
      ACE_LOG_MSG->msg_callback(log_callback.get());
      ACE_LOG_MSG->set_flags(ACE_Log_Msg::MSG_CALLBACK);
    }
    else
      ACE_LOG_MSG->msg_callback(nullptr);
  };
  route_log(true);
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
    separator_ = callback_->directory_separator();
    // Reading starts at once: the first file is read while its directory is
    // being announced.
    MTF_Read_Ahead ahead([this](const MTF_Set_Catalog::Entry*& entry) { return next_file(entry); },
                         [this](const MTF_Set_Catalog::Entry& entry, MTF_Read_Ahead::Sink& sink, std::string& error)
                         { return read_file(entry, sink, error); },
                         owner_.read_ahead_bytes());
    ahead.start(route_log);
    restore_files(ahead);
    ahead.stop();
    // Directories no file of this worker needed.
    while (!owner_.should_stop() && announce_dirs(-1))
    {
    }
    reader_.reset();
    io_.close_read();
  }
  route_log(false);
}

bool MTF_Restore_Worker::announce_dirs(int wanted)
{
  for (;;)
  {
    if (owner_.should_stop())
      return false;
    if (wanted >= 0 && owner_.dir_announced(wanted))
      return true;
    int index = -1;
    std::string dir;
    if (owner_.take_dir(wanted, index, dir))
    {
      std::string path = local_path(dir);
      bool ok = callback_->mkdir_p(path.c_str());
      if (!ok)
        LOG_MSG(LM_ERROR, "Failed to create directory '%s'\n", path.c_str());
      owner_.dir_done(index, ok);
      if (wanted < 0)
        return true;
      continue;
    }
    if (!owner_.wait_dirs(wanted))
      return false;
  }
}

bool MTF_Restore_Worker::next_file(const MTF_Set_Catalog::Entry*& entry)
{
  while (batch_ == nullptr || batch_next_ >= batch_->files.size())
  {
    if (owner_.should_stop() || !owner_.next_batch(batch_))
      return false;
    batch_next_ = 0;
  }
  if (owner_.should_stop())
    return false;
  entry = batch_->files[batch_next_++];
  return true;
}

void MTF_Restore_Worker::restore_files(MTF_Read_Ahead& ahead)
{
  static const char nothing = 0;
  MTF_Read_Ahead::Piece piece;
  const MTF_Set_Catalog::Entry* current = nullptr;  // a file begun and not closed
  std::string path;
  MTF::IFile_Writer_var writer;
  bool ok = false;
  while (!owner_.should_stop() && ahead.take(piece))
  {
    const MTF_Set_Catalog::Entry& e = *piece.entry;
    if (piece.first)
    {
      // A file is opened only once its directory is announced.
      if (!announce_dirs(owner_.dir_of(e)))
        break;
      current = &e;
      path = local_path(e.path);
      ok = true;
      if (!piece.end)
      {
        writer = callback_->make_file_writer();
        if (!writer)
        {
          LOG_MSG(LM_ERROR, "Failed to restore '%s': no file writer\n", path.c_str());
          ok = false;
        }
        else if (writer->open(path.c_str(), e.length) != MTF::E_OK)
        {
          LOG_MSG(LM_ERROR, "Failed to restore '%s': the writer could not open it\n", path.c_str());
          ok = false;
        }
      }
    }
    if (!piece.end)
    {
      // After a refusal the rest of the file's pieces are dropped.
      if (ok && writer->write(piece.data.empty() ? &nothing : piece.data.data(), piece.data.size()) != MTF::E_OK)
      {
        LOG_MSG(LM_ERROR, "Failed to restore '%s': the writer refused its data\n", path.c_str());
        ok = false;
      }
      continue;
    }
    if (!piece.ok)
    {
      LOG_MSG(LM_ERROR, "Failed to restore '%s': %s\n", path.c_str(), piece.error.c_str());
      ok = false;
    }
    writer.reset();
    current = nullptr;
    callback_->handle_file_end(path.c_str(), ok);
    owner_.file_done(e.length, ok);
  }
  if (current != nullptr)
  {
    // Stopped inside a file: its writer is dropped before the file is written.
    writer.reset();
    callback_->handle_file_end(path.c_str(), false);
    owner_.file_done(current->length, false);
  }
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

// Reads one file for the read-ahead: checks that its block is where the
// catalog says and holds as many data bytes, and passes the data on in pieces,
// the last one only once the whole file matched its SHA-256.
bool MTF_Restore_Worker::read_file(const MTF_Set_Catalog::Entry& e, MTF_Read_Ahead::Sink& sink, std::string& error)
{
  const MTF_Set_Catalog& catalog = owner_.catalog();
  MTF_Reader::Block block;
  MTF_Reader::Stream stream;
  if (!position_at(e, error))
    return false;
  const std::string& data_name = catalog.files[e.data].name;
  bool found = reader_->read_block(block);
  if (found && (block.type != "FILE" || block.name != MTF_FS::basename(e.path, catalog.separator)))
  {
    error = data_name + " offset " + std::to_string(e.offset) + " holds " + block.type + " '" + block.name +
            "', not this file";
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
    error = data_name + " " + (reader_->error().empty() ? error : reader_->error());
    reader_.reset();
    return false;
  }
  if (stream.length != e.length)
  {
    error = "its data stream in " + data_name + " holds " + std::to_string(stream.length) +
            " bytes, the catalog says " + std::to_string(e.length);
    reader_.reset();
    return false;
  }
  MTF_Sha256 sha;
  uint64_t left = e.length;
  if (left == 0)
  {
    if (sha.hex() != e.sha256)
    {
      error = "its data does not match its SHA-256";
      return false;
    }
    std::vector<char> none;
    return sink.put(none);
  }
  while (left > 0)
  {
    if (owner_.should_stop())
    {
      error = "the restore is stopping";
      reader_.reset();
      return false;
    }
    size_t want = static_cast<size_t>(std::min<uint64_t>(left, PIECE));
    std::vector<char> piece(want);
    size_t got = 0;
    while (got < want)
    {
      long long n = reader_->read_data(piece.data() + got, want - got);
      if (n <= 0)
      {
        error = data_name + " " + reader_->error();
        reader_.reset();
        return false;
      }
      got += static_cast<size_t>(n);
    }
    sha.update(piece.data(), got);
    left -= got;
    // The last piece goes on only once the whole file matched.
    if (left == 0 && sha.hex() != e.sha256)
    {
      error = "its data in " + data_name + " does not match its SHA-256 (damaged backup set)";
      return false;
    }
    if (!sink.put(piece))
    {
      reader_.reset();
      return false;
    }
  }
  return true;
}
