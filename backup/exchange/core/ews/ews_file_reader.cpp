#include "backup/exchange/core/ews/ews_file_reader.h"

#include "backup/exchange/core/ews/ews_backup_context.h"
#include "backup/exchange/core/ews/ews_export_task.h"
#include "backup/exchange/core/ews/ews_mtf_utils.h"
#include "host/base/log.h"

#include <memory>

EWS_File_Reader::EWS_File_Reader(EWS_Backup_Context& ctx) : ctx_(ctx), offset_(0) {}

EWS_File_Reader::~EWS_File_Reader() = default;

MTF::Error_Code EWS_File_Reader::open(const char* path)
{
  EWS_Folder_Entry entry;
  close();
  if (!ctx_.get_entry(path, true, entry))
    return MTF::E_FAILED;
  if (ctx_.get_item(get_mailbox(path), entry.id, data_))
    return MTF::E_OK;
  // One item the stream leaves out; its id is among the mailbox's failed items
  // when its export failed.
  LOG_MSG(LM_ERROR, "Failed to get data of EWS item '%s', skip\n", path);
  return MTF::E_SKIP;
}

MTF::Error_Code EWS_File_Reader::read(MTF::Buffer& buf)
{
  if (!data_.ptr)
  {
    LOG_UNEXPECTED("data_.ptr.get() is NULL");
    return MTF::E_FAILED;
  }
  const size_t size = static_cast<size_t>(data_.size);
  const size_t left = size - offset_;
  size_t piece = buf.room() > 0 ? buf.room() : buf.capacity();
  if (piece == 0 || piece > left)
    piece = left;
  if (!buf.copy(data_.ptr.get() + offset_, piece))
    return MTF::E_FAILED;
  offset_ += piece;
  if (offset_ >= size)
    close();
  else if (data_.ptr.use_count() == 1)
  {
    // What the stream has is no longer needed here: its memory goes back now
    // rather than when the whole item is written (the reader holds the only
    // copy, so nothing else reads those bytes).
    if (EWS_Export_Task::Lent_Item* lent = std::get_deleter<EWS_Export_Task::Lent_Item>(data_.ptr))
      lent->give_front(offset_);
  }
  return MTF::E_OK;
}

MTF::Error_Code EWS_File_Reader::close()
{
  data_ = EWS_b64_Data();
  offset_ = 0;
  return MTF::E_OK;
}

bool EWS_File_Reader::handle_file_blk(MTF::File_Blk& blk, ACE_UINT64& size)
{
  const ACE_UINT64 length = static_cast<ACE_UINT64>(data_.size);
  blk.set_size(length);
  size = (length + 511) & ~static_cast<ACE_UINT64>(511);
  return true;
}
