#ifndef BACKUP_EXCHANGE_CORE_EWS_EWS_BACKUP_CALLBACK_FACTORY_H
#define BACKUP_EXCHANGE_CORE_EWS_EWS_BACKUP_CALLBACK_FACTORY_H

#include "host/mtf/mtf_backup_callback_factory.h"

class EWS_Backup_Context;

// Makes one EWS_Backup_Callback per stream channel, each with its own EWS
// client. make() runs on the channel's thread and points that thread's log at
// the job. The context is not owned and must outlive the factory's callbacks.
class EWS_Backup_Callback_Factory : public MTF::IBackup_Callback_Factory
{
public:
  explicit EWS_Backup_Callback_Factory(EWS_Backup_Context& ctx) : ctx_(ctx) {}

  // Empty when the client cannot be made; empty with errno ENOMEM when the
  // callback cannot be allocated.
  MTF::IBackup_Callback_var make() override;

private:
  EWS_Backup_Context& ctx_;
};

#endif
