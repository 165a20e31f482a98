// Bodies of Default_Job_T; included by default_job_t.h only.

#include "backup/scrt/thread_helper.h"
#include "host/base/uuid.h"

#include <ace/Thread_Manager.h>
#include <cerrno>
#include <climits>
#include <memory>
#include <new>

namespace default_job_detail
{
// Detached (THR_DETACHED) kernel thread that inherits its scheduling.
const long JOB_THREAD_FLAGS = 0x400042;
const long JOB_THREAD_PRIORITY = INT_MIN;  // the thread manager's default priority
}  // namespace default_job_detail

template <typename Executor>
Default_Job_T<Executor>::Default_Job_T(Job_Definition_var definition) : Job(definition), thr_id_(0)
{
  if (on_demand())
  {
    Executor executor(*this);
    executor.setup_ondemand();
  }
}

template <typename Executor>
bool Default_Job_T<Executor>::on_demand() const
{
  const Job_Schedule* schedule = definition().schedule();
  return schedule != nullptr && schedule->type() == Job_Schedule::TYPE_ONDEMAND;
}

template <typename Executor>
int Default_Job_T<Executor>::start_i(const Action_Options* opts)
{
  Run_Options* run_opts = new (std::nothrow) Run_Options();
  if (run_opts == nullptr)
  {
    errno = ENOMEM;
    return -1;
  }
  run_opts->job = this;
  if (opts != nullptr)
    run_opts->opts = *opts;
  const int result =
    ACE_Thread_Manager::instance()->spawn(&Default_Job_T::run, run_opts, default_job_detail::JOB_THREAD_FLAGS, &thr_id_,
                                          nullptr, default_job_detail::JOB_THREAD_PRIORITY, -1);
  if (result == -1)
  {
    delete run_opts;
    return -1;
  }
  return 0;
}

template <typename Executor>
ACE_THR_FUNC_RETURN Default_Job_T<Executor>::run(void* arg)
{
  std::unique_ptr<Run_Options> run_opts(static_cast<Run_Options*>(arg));
  Default_Job_T* job = static_cast<Default_Job_T*>(run_opts->job);
  const Action_Options* opts = run_opts->opts.empty() ? nullptr : &run_opts->opts;
  return static_cast<ACE_THR_FUNC_RETURN>(job->run_i(opts));
}

template <typename Executor>
void* Default_Job_T<Executor>::run_i(const Action_Options* opts)
{
  set_job_thread();
  uuid_string_to_binary(definition().uid().c_str(), activity().uid);
  {
    Executor executor(*this);
    executor.execute(opts);
  }
  complete();
  return nullptr;
}

template <typename Executor>
int Default_Job_T<Executor>::abort_i(const Action_Options*)
{
  const int result = state_i(JOB_STATE_CANCELING);
  ACE_Thread_Manager::instance()->cancel(thr_id_, 0);
  return result;
}

template <typename Executor>
int Default_Job_T<Executor>::remove_i(bool, const Action_Options*)
{
  if (on_demand())
  {
    Executor executor(*this);
    executor.remove_ondemand();
  }
  Executor executor(*this);
  executor.remove();
  return 0;
}

template <typename Executor>
int Default_Job_T<Executor>::update_i(Job_Definition_var definition)
{
  Executor executor(*this);
  executor.update(definition);
  return 0;
}

template <typename Executor>
int Default_Job_T<Executor>::rollback_i()
{
  Thread_Helper helper(default_job_detail::JOB_THREAD_FLAGS, default_job_detail::JOB_THREAD_PRIORITY);
  const int result = helper.spawn(&Default_Job_T::run_rollback, this);
  return result >> (sizeof(int) * CHAR_BIT - 1);
}

template <typename Executor>
void* Default_Job_T<Executor>::run_rollback()
{
  Executor executor(*this);
  executor.rollback();
  return nullptr;
}
