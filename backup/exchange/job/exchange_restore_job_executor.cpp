#include "backup/exchange/job/exchange_restore_job_executor.h"

#include "backup/exchange/job/exchange_job_utils.h"
#include "host/base/log.h"

Exchange_Restore_Job_Executor::Exchange_Restore_Job_Executor(Job& job)
  : Job_Executor_T<Exchange_Restore_Job_Source, Exchange_Restore_Job_Options, Job_Event_Handler>(job)
{
}

void Exchange_Restore_Job_Executor::make_restore_input(Exchange_Restore_Input& input) const
{
  const std::string& original = src_->original();
  const std::string& restore_as = src_->restore_as();
  if (!original.empty())
    parse_entry(original.c_str(), original.size(), &input.source_instance, &input.source_mailbox, nullptr);
  if (!restore_as.empty())
    parse_entry(restore_as.c_str(), restore_as.size(), &input.target_instance, &input.target_mailbox, nullptr);
  if (opts_ != nullptr)
  {
    input.relocation = opts_->relocation();
    input.auto_mount = opts_->auto_mount();
    input.overwrite = opts_->overwrite();
  }
}

bool Exchange_Restore_Job_Executor::execute_i(const Action_Options*)
{
  Exchange_Restore_Input input;
  make_restore_input(input);
  return ews_restore(input);
}

bool Exchange_Restore_Job_Executor::ews_restore(const Exchange_Restore_Input& input)
{
  LOG_MSG(LM_INFO, "Exchange restore from '%s' to '%s', relocation = '%s'\n", input.source_mailbox.c_str(),
          input.target_mailbox.c_str(), input.relocation.c_str());
  // The restore engine (catalog lookup, index, restore stream and uploads) is
  // not part of this build yet: the job fails and says so rather than report a
  // restore that did not happen.
  LOG_MSG(LM_ERROR, "The EWS restore engine is not available in this build; nothing was restored.\n");
  return false;
}
