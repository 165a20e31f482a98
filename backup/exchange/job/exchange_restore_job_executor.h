#ifndef BACKUP_EXCHANGE_JOB_EXCHANGE_RESTORE_JOB_EXECUTOR_H
#define BACKUP_EXCHANGE_JOB_EXCHANGE_RESTORE_JOB_EXECUTOR_H

#include "backup/exchange/job/exchange_restore_job_options.h"
#include "backup/exchange/job/exchange_restore_job_source.h"
#include "backup/job/job_executor_t.h"
#include "host/job/job_event_handler.h"

#include <string>

// What a restore run takes from its job definition: the source and target
// instance and mailbox, and where and how the items go.
struct Exchange_Restore_Input
{
  std::string source_instance;
  std::string source_mailbox;
  std::string target_instance;
  std::string target_mailbox;
  std::string relocation;
  bool auto_mount = true;
  bool overwrite = false;
};

// Runs one Exchange restore job.
class Exchange_Restore_Job_Executor
  : public Job_Executor_T<Exchange_Restore_Job_Source, Exchange_Restore_Job_Options, Job_Event_Handler>
{
public:
  explicit Exchange_Restore_Job_Executor(Job& job);

  bool execute_i(const Action_Options* opts) override;

  // Splits the source's "original" and "restore_as" entries and copies the
  // options into `input`.
  void make_restore_input(Exchange_Restore_Input& input) const;

private:
  bool ews_restore(const Exchange_Restore_Input& input);
};

#endif
