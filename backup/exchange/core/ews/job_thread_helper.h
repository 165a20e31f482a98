#ifndef BACKUP_EXCHANGE_CORE_EWS_JOB_THREAD_HELPER_H
#define BACKUP_EXCHANGE_CORE_EWS_JOB_THREAD_HELPER_H

#include "backup/scrt/thread_helper.h"

#include <memory>

class ACE_Log_Msg_Callback;
class Job;

// A joinable Thread_Helper whose thread works for one job: the thread's log
// lines also go to that job's log, from its first line on. The helper keeps the
// job's log callback alive until it is destroyed, which waits for the thread, so
// the callback outlives every line the thread writes. Without a job (null) it is
// a plain joinable helper.
class Job_Thread_Helper : public Thread_Helper
{
public:
  Job_Thread_Helper(Job* job, int priority);
  ~Job_Thread_Helper() override;

protected:
  void handle_starting() override;

private:
  std::shared_ptr<ACE_Log_Msg_Callback> log_callback_;
};

#endif
