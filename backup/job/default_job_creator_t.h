#ifndef BACKUP_JOB_DEFAULT_JOB_CREATOR_T_H
#define BACKUP_JOB_DEFAULT_JOB_CREATOR_T_H

#include "host/job/job_creator.h"

#include <cerrno>
#include <new>

// Makes a Backup_Job for a backup definition and a Restore_Job for a restore
// definition. Other definition types make no job and leave errno as it was; a
// failed allocation makes no job and sets errno to ENOMEM.
template <typename Backup_Job, typename Restore_Job>
class Default_Job_Creator_T : public Job_Creator
{
public:
  ACE_Intrusive_Auto_Ptr<Job> create(Job_Definition_var definition) override
  {
    Job* job = nullptr;
    switch (definition->type())
    {
    case JOB_DEFINITION_BACKUP:
      job = new (std::nothrow) Backup_Job(definition);
      break;
    case JOB_DEFINITION_RESTORE:
      job = new (std::nothrow) Restore_Job(definition);
      break;
    default:
      return ACE_Intrusive_Auto_Ptr<Job>();
    }
    if (job == nullptr)
      errno = ENOMEM;
    return ACE_Intrusive_Auto_Ptr<Job>(job);
  }
};

#endif
