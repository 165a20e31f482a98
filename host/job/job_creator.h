#ifndef HOST_JOB_JOB_CREATOR_H
#define HOST_JOB_JOB_CREATOR_H

#include "host/job/job.h"

// Turns a job definition into a runnable job. A module exports one; a null
// result means the module makes no job of that definition (errno tells why:
// ENOMEM when memory ran out, unchanged for a type the module does not know).
class Job_Creator
{
public:
  virtual ~Job_Creator() {}
  virtual ACE_Intrusive_Auto_Ptr<Job> create(Job_Definition_var definition) = 0;
};

#endif
