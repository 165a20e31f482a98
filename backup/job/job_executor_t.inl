// Bodies of Job_Executor_T; included by job_executor_t.h only.
// Every operation logs its own failures; the template reports outcomes only through the event handler.

#include "host/job/execute_script.h"
#include "host/base/log.h"

#include <ace/OS_NS_time.h>

template <typename Source, typename Options, typename Handler>
Job_Executor_T<Source, Options, Handler>::Job_Executor_T(Job& job)
  : job_(job),
    def_(job.definition()),
    tgt_(def_.target()),
    act_(job.activity()),
    evt_handler_(job),
    src_(dynamic_cast<Source*>(def_.source().get())),
    opts_(dynamic_cast<Options*>(def_.options().get()))
{
}

template <typename Source, typename Options, typename Handler>
bool Job_Executor_T<Source, Options, Handler>::execute(const Action_Options* opts)
{
  if (src_ == nullptr)
  {
    LOG_UNEXPECTED("src_ is NULL");
    return false;
  }
  if (!is_active(opts))
  {
    act_.last_run_time = ACE_OS::time();
    act_.state = JOB_STATE_SKIPPED;
    return true;
  }
  if (!execute_precondition() || !check_condition())
  {
    act_.last_run_time = ACE_OS::time();
    act_.state = JOB_STATE_IDLE;
    return true;
  }
  evt_handler_.handle_start_job();

  const bool pre = execute_pre_action();
  const bool main = pre && execute_i(opts);
  bool post = true;
  if (main || def_.run_post_action_always())
    post = execute_post_action();

  if (pre && main && post)
  {
    evt_handler_.handle_success();
    return true;
  }
  if (act_.state == JOB_STATE_CANCELING)
    evt_handler_.handle_canceled();
  else
    evt_handler_.handle_failure(-1, nullptr);
  return false;
}

template <typename Source, typename Options, typename Handler>
Job_Executor_T<Source, Options, Handler>::~Job_Executor_T()
{
}

template <typename Source, typename Options, typename Handler>
bool Job_Executor_T<Source, Options, Handler>::execute_precondition()
{
  return execute_script(def_.precondition(), false, std::shared_ptr<ACE_Log_Msg_Callback>());
}

template <typename Source, typename Options, typename Handler>
bool Job_Executor_T<Source, Options, Handler>::execute_pre_action()
{
  std::shared_ptr<ACE_Log_Msg_Callback> callback = job_.log_msg_callback();
  const bool ok = execute_script(def_.pre_action(), false, callback);
  if (!ok && !def_.ignore_pre_action_failure())
    return false;
  // A job being canceled or paused by now does not go on.
  return act_.state == JOB_STATE_RUNNING;
}

template <typename Source, typename Options, typename Handler>
bool Job_Executor_T<Source, Options, Handler>::execute_post_action()
{
  if (def_.post_action().empty())
    return true;
  if (act_.state != JOB_STATE_COMPLETING)
    job_.state(JOB_STATE_COMPLETING);
  if (execute_script(def_.post_action(), false, job_.log_msg_callback()))
    return true;
  return def_.ignore_post_action_failure();
}
