#ifndef BACKUP_EXCHANGE_CORE_EWS_EWS_FILE_READER_H
#define BACKUP_EXCHANGE_CORE_EWS_EWS_FILE_READER_H

#include "host/ews/ews_b64_data.h"
#include "host/mtf/mtf_file_reader.h"

class EWS_Backup_Context;

// Hands one item's exported contents to the backup stream. open() takes the
// item's path entry for good and waits for the export thread to deliver the
// contents; read() hands them over whole and lets them go. A reader is made per
// file and used by one channel thread; the context must outlive it.
class EWS_File_Reader : public MTF::IFile_Reader
{
public:
  explicit EWS_File_Reader(EWS_Backup_Context& ctx);
  ~EWS_File_Reader() override;

  // E_FAILED for a path without entry (never listed, or opened before); E_SKIP
  // when the item has no contents (export failed or the export thread ended).
  MTF::Error_Code open(const char* path) override;
  bool is_open() override { return true; }
  // E_FAILED when there is nothing to hand (before open, or after a read).
  MTF::Error_Code read(MTF::Buffer& buf) override;
  MTF::Error_Code close() override { return MTF::E_OK; }
  // The item's size into the block, and that size rounded up to 512 bytes.
  bool handle_file_blk(MTF::File_Blk& blk, ACE_UINT64& size) override;

private:
  EWS_b64_Data data_;
  EWS_Backup_Context& ctx_;
};

#endif
