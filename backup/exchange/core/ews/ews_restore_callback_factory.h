#ifndef BACKUP_EXCHANGE_CORE_EWS_EWS_RESTORE_CALLBACK_FACTORY_H
#define BACKUP_EXCHANGE_CORE_EWS_EWS_RESTORE_CALLBACK_FACTORY_H

#include "backup/exchange/core/ews/ews_restore_context.h"
#include "host/mtf/mtf_restore_callback_factory.h"

// Makes one EWS_Restore_Callback per restore worker, all on one context, each
// with a client pool of its own that keeps one idle client. Owned
// by the restore executor for the length of the run; `make` runs on the
// workers' threads.
class EWS_Restore_Callback_Factory : public MTF::IRestore_Callback_Factory
{
public:
  explicit EWS_Restore_Callback_Factory(const EWS_Restore_Context_Ptr& ctx) : ctx_(ctx) {}
  ~EWS_Restore_Callback_Factory() override = default;

  // Empty (errno ENOMEM) when out of memory.
  MTF::IRestore_Callback_var make() override;

private:
  const EWS_Restore_Context_Ptr ctx_;
};

#endif
