#ifndef BACKUP_EXCHANGE_CORE_EWS_EWS_RESTORE_CALLBACK_H
#define BACKUP_EXCHANGE_CORE_EWS_EWS_RESTORE_CALLBACK_H

#include "backup/exchange/core/ews/ews_client_pool.h"
#include "backup/exchange/core/ews/ews_restore_context.h"
#include "host/mtf/mtf_restore_callback.h"

// The restore stream's callback for one worker: each set directory becomes a
// mail folder of the target mailbox (through the context), each file an item
// uploaded by an EWS_File_Writer with a client of its own for the writer's
// life. The clients come from the callback's pool: a writer borrows one, made
// by the context when none is idle, and the next writer gets it back, so a
// worker, which has one writer at a time, keeps one client and connection for
// all its items. Used by its worker's thread only.
class EWS_Restore_Callback : public MTF::Restore_Callback_Base
{
public:
  EWS_Restore_Callback(const EWS_Restore_Context_Ptr& ctx, const EWS_Client_Pool_Ptr& pool) : ctx_(ctx), pool_(pool) {}
  ~EWS_Restore_Callback() override = default;

  char directory_separator() const override { return '/'; }
  bool mkdir_p(const char* path) override;
  // Empty when no client can be made or out of memory (errno ENOMEM).
  MTF::IFile_Writer_var make_file_writer() override;

private:
  const EWS_Restore_Context_Ptr ctx_;
  const EWS_Client_Pool_Ptr pool_;
};

#endif
