#ifndef BACKUP_EXCHANGE_JOB_EXCHANGE_BACKUP_JOB_EXECUTOR_H
#define BACKUP_EXCHANGE_JOB_EXCHANGE_BACKUP_JOB_EXECUTOR_H

#include "backup/exchange/job/exchange_backup_job_options.h"
#include "backup/job/job_executor_t.h"
#include "host/job/default_backup_job_source.h"
#include "host/job/job_event_handler.h"

#include <map>
#include <string>
#include <vector>

// Instance name -> mailbox -> folder paths selected inside it (empty for the
// whole mailbox).
typedef std::map<std::string, std::map<std::string, std::vector<std::string>>> Instance_Backup_Entries;

// Runs one Exchange backup job: takes the job source's lock, resets the
// activity, reads the mailboxes to back up from the source entries and runs the
// backup of the method the options name.
class Exchange_Backup_Job_Executor
  : public Job_Executor_T<Default_Backup_Job_Source, Exchange_Backup_Job_Options, Job_Event_Handler>
{
public:
  explicit Exchange_Backup_Job_Executor(Job& job);

  bool execute_i(const Action_Options* opts) override;

  const Instance_Backup_Entries& entries() const { return entries_; }

private:
  bool parse_entries();
  void reset_activity();
  bool ews_backup();

  int last_rev_;
  std::string backup_uri_;
  Instance_Backup_Entries entries_;
};

#endif
