#ifndef BACKUP_EXCHANGE_CORE_EWS_EWS_FILE_WRITER_H
#define BACKUP_EXCHANGE_CORE_EWS_EWS_FILE_WRITER_H

#include "backup/exchange/core/ews/ews_client_pool.h"
#include "backup/exchange/core/ews/ews_restore_context.h"
#include "host/ews/ews_client.h"
#include "host/mtf/mtf_file_writer.h"

#include <string>

// Receives one restored item: collects its exported bytes in memory (one
// buffer of exactly the announced size) and uploads them as a new item into the
// folder made for the item's directory, with one upload call, when the last
// byte has come. Nothing touches disk; an item whose size is never reached is
// not uploaded. One writer per file, driven by one worker thread. Uploads are
// bracketed in the folder's EWS_Folder_Uploads record of the run, which settles
// an upload whose answer was lost without sending the item a second time.
// The writer uses its client alone; a client borrowed from a pool goes back to
// it when the writer is released.
class EWS_File_Writer : public MTF::File_Writer_Base
{
public:
  EWS_File_Writer(const EWS_Client_Ptr& ews, const EWS_Restore_Context_Ptr& ctx,
                  const EWS_Client_Pool_Ptr& pool = EWS_Client_Pool_Ptr())
    : ews_(ews), ctx_(ctx), pool_(pool)
  {
  }
  ~EWS_File_Writer() override;

  // E_FAILED when `path` has no directory part or its directory was not
  // created in this run.
  MTF::Error_Code open(const char* path, ACE_UINT64 size) override;
  // E_FAILED when more bytes come than announced (nothing copied) or the
  // upload is refused.
  MTF::Error_Code write(const char* data, size_t size) override;

private:
  std::string parent_id_;
  ustring buffer_;
  size_t curr_ = 0;
  const EWS_Client_Ptr ews_;
  const EWS_Restore_Context_Ptr ctx_;
  const EWS_Client_Pool_Ptr pool_;
};

#endif
