#include "backup/exchange/core/ews/ews_backup_callback_factory.h"

#include "backup/exchange/core/ews/ews_backup_callback.h"
#include "backup/exchange/core/ews/ews_backup_context.h"
#include "host/job/job.h"

#include <ace/Log_Msg.h>

#include <cerrno>
#include <new>

MTF::IBackup_Callback_var EWS_Backup_Callback_Factory::make()
{
  // The job keeps its log callback for its whole life, longer than any channel.
  std::shared_ptr<ACE_Log_Msg_Callback> log = Job_log_msg_callback(ctx_.job());
  if (log)
  {
    ACE_LOG_MSG->msg_callback(log.get());
    ACE_LOG_MSG->set_flags(ACE_Log_Msg::MSG_CALLBACK);
  }
  EWS_Client_Ptr ews;
  if (!ctx_.make_client(ews))
    return MTF::IBackup_Callback_var();
  EWS_Backup_Callback* callback = new (std::nothrow) EWS_Backup_Callback(ews, ctx_);
  if (callback == nullptr)
  {
    errno = ENOMEM;
    return MTF::IBackup_Callback_var();
  }
  return MTF::IBackup_Callback_var(callback);
}
