#ifndef BACKUP_EXCHANGE_CORE_EWS_EWS_FILE_READER_H
#define BACKUP_EXCHANGE_CORE_EWS_EWS_FILE_READER_H

#include "host/ews/ews_b64_data.h"
#include "host/mtf/mtf_file_reader.h"

class EWS_Backup_Context;

// Hands one item's exported contents to the backup stream. open() takes the
// item's path entry for good and waits for the export thread to deliver the
// contents; each read() hands the next piece of them, as much as the stream's
// buffer has room for, so that an item of 150 MiB is never copied whole; the
// contents are let go as they are handed on (their memory pages and their bytes
// in the export budget) and wholly with the last piece or at close. A reader is made per file and used by one channel
// thread; the context must outlive it.
class EWS_File_Reader : public MTF::IFile_Reader
{
public:
  explicit EWS_File_Reader(EWS_Backup_Context& ctx);
  ~EWS_File_Reader() override;

  // E_FAILED for a path without entry (never listed, or opened before); E_SKIP
  // when the item has no contents (export failed or the export thread ended).
  MTF::Error_Code open(const char* path) override;
  bool is_open() override { return true; }
  // Appends the next piece: buf.room() bytes (its capacity when it has no room),
  // or what is left. E_FAILED when there is nothing to hand (before open, or
  // after the last piece).
  MTF::Error_Code read(MTF::Buffer& buf) override;
  // Lets the contents go, whatever was read of them.
  MTF::Error_Code close() override;
  // The item's size into the block, and that size rounded up to 512 bytes.
  bool handle_file_blk(MTF::File_Blk& blk, ACE_UINT64& size) override;

private:
  EWS_b64_Data data_;
  EWS_Backup_Context& ctx_;
  size_t offset_;  // bytes of data_ handed so far
};

#endif
