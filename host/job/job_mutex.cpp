#include "host/job/job_mutex.h"

#include <ace/Guard_T.h>
#include <map>
#include <memory>

ACE_Thread_Mutex& Job_Mutex::get(const std::string& source_id)
{
  static ACE_Thread_Mutex registry_lock;
  static std::map<std::string, std::unique_ptr<ACE_Thread_Mutex>> mutexes;
  ACE_Guard<ACE_Thread_Mutex> guard(registry_lock);
  std::unique_ptr<ACE_Thread_Mutex>& m = mutexes[source_id];
  if (!m)
    m.reset(new ACE_Thread_Mutex());
  return *m;
}
