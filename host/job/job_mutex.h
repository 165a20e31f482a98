#ifndef HOST_JOB_JOB_MUTEX_H
#define HOST_JOB_JOB_MUTEX_H

#include <ace/Thread_Mutex.h>
#include <string>

// One process-wide mutex per job source id, so that two jobs reading the same
// source never run at once. The mutexes live as long as the process.
class Job_Mutex
{
public:
  static ACE_Thread_Mutex& get(const std::string& source_id);
};

#endif
