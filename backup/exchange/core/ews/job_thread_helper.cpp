#include "backup/exchange/core/ews/job_thread_helper.h"

#include "host/job/job.h"

#include <ace/Log_Msg.h>
#include <ace/Thread_Manager.h>

Job_Thread_Helper::Job_Thread_Helper(Job* job, int priority)
  : Thread_Helper(THR_NEW_LWP | THR_JOINABLE, priority),
    log_callback_(job != nullptr ? Job_log_msg_callback(*job) : std::shared_ptr<ACE_Log_Msg_Callback>())
{
}

Job_Thread_Helper::~Job_Thread_Helper()
{
  // The thread may still log through log_callback_: wait for it before the
  // member goes.
  join();
}

void Job_Thread_Helper::handle_starting()
{
  if (!log_callback_)
    return;
  // ACE_LOG_MSG is the new thread's own; it dies with the thread.
  ACE_LOG_MSG->msg_callback(log_callback_.get());
  ACE_LOG_MSG->set_flags(ACE_Log_Msg::MSG_CALLBACK);
}
