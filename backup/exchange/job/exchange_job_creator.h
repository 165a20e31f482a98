#ifndef BACKUP_EXCHANGE_JOB_EXCHANGE_JOB_CREATOR_H
#define BACKUP_EXCHANGE_JOB_EXCHANGE_JOB_CREATOR_H

#include "backup/exchange/job/exchange_backup_job_executor.h"
#include "backup/exchange/job/exchange_restore_job_executor.h"
#include "backup/job/controllable_job_t.h"
#include "backup/job/default_job_creator_t.h"

// The module's job creator: backup definitions make controllable backup jobs,
// restore definitions controllable restore jobs.
typedef Default_Job_Creator_T<Controllable_Job_T<Exchange_Backup_Job_Executor>,
                              Controllable_Job_T<Exchange_Restore_Job_Executor>>
  Exchange_Job_Creator;

#endif
