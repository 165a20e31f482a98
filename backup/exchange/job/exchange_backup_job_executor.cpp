#include "backup/exchange/job/exchange_backup_job_executor.h"

#include "backup/exchange/job/exchange_job_utils.h"
#include "host/job/job_mutex.h"
#include "host/base/log.h"

#include <ace/Guard_T.h>

Exchange_Backup_Job_Executor::Exchange_Backup_Job_Executor(Job& job)
  : Job_Executor_T<Default_Backup_Job_Source, Exchange_Backup_Job_Options, Job_Event_Handler>(job),
    last_rev_(0)
{
}

bool Exchange_Backup_Job_Executor::execute_i(const Action_Options*)
{
  ACE_Guard<ACE_Thread_Mutex> guard(Job_Mutex::get(src_->id()));
  if (!guard.locked())
    return false;
  reset_activity();
  if (!parse_entries())
  {
    LOG_MSG(LM_ERROR, "Failed to parse entries from job source.\n");
    return false;
  }
  if (opts_ == nullptr || opts_->method() != EXCHANGE_BACKUP_METHOD_EWS)
  {
    LOG_MSG(LM_ERROR, "This Exchange backup type is not supported on this system.\n");
    return false;
  }
  return ews_backup();
}

void Exchange_Backup_Job_Executor::reset_activity()
{
  act_.code = 0;
  act_.set_message("");
  act_.size = 0;
  act_.set_size = 0;
  act_.set_storage_size = 0;
}

bool Exchange_Backup_Job_Executor::parse_entries()
{
  entries_.clear();
  for (const std::string& entry : src_->entries())
  {
    std::string instance, mailbox, folder;
    parse_entry(entry.c_str(), entry.size(), &instance, &mailbox, &folder);
    if (instance.empty() || mailbox.empty())
    {
      LOG_MSG(LM_ERROR, "Invalid backup source entry '%s': no instance or mailbox.\n", entry.c_str());
      return false;
    }
    std::vector<std::string>& folders = entries_[instance][mailbox];
    if (!folder.empty())
      folders.push_back(folder);
  }
  return true;
}

bool Exchange_Backup_Job_Executor::ews_backup()
{
  // The mailbox engine (EWS listing, export, backup-set stream and catalog
  // record) is not part of this build yet: the job fails and says so rather
  // than report a backup that did not happen.
  size_t mailboxes = 0;
  for (const auto& instance : entries_)
    mailboxes += instance.second.size();
  LOG_MSG(LM_ERROR, "The EWS backup engine is not available in this build; %d mailbox(es) not backed up.\n",
          static_cast<int>(mailboxes));
  return false;
}
