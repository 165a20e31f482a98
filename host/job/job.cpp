#include "host/job/job.h"

#include "host/base/log.h"
#include "host/base/state_dir.h"

#include <ace/Guard_T.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/OS_NS_time.h>
#include <unistd.h>

namespace
{
std::string job_log_file(const Job_Definition& def)
{
  const std::string dir = state_subdir("jobs");
  const std::string& key = def.id().empty() ? def.uid() : def.id();
  if (dir.empty() || key.empty())
    return std::string();
  return dir + "/" + key + ".log";
}
}  // namespace

Job::Job(Job_Definition_var definition)
  : definition_(definition),
    activity_(new Job_Activity_Handle(definition->uid())),
    refcount_(0),
    running_(false),
    done_(lock_)
{
  log_callback_ = std::make_shared<Job_Log_Callback>(job_log_file(*definition_));
  // Reports may come from several channel threads; the figures only grow.
  log_callback_->set_progress_sink(
    [this](uint64_t files, uint64_t bytes)
    {
      Job_Activity& act = activity();
      for (uint64_t seen = act.items_done; files > seen && !act.items_done.compare_exchange_weak(seen, files);)
      {
      }
      for (uint64_t seen = act.bytes_done; bytes > seen && !act.bytes_done.compare_exchange_weak(seen, bytes);)
      {
      }
    });
}

Job::~Job() {}

int Job::start(const Action_Options* opts)
{
  {
    ACE_Guard<ACE_Thread_Mutex> guard(lock_);
    if (running_)
    {
      LOG_MSG(LM_WARNING, "Job '%s' is running already.\n", definition_->id().c_str());
      return -1;
    }
    running_ = true;
  }
  Job_Activity& act = activity();
  act.state = JOB_STATE_RUNNING;
  act.pid = static_cast<int32_t>(::getpid());
  if (start_i(opts) == 0)
    return 0;
  LOG_MSG(LM_ERROR, "Failed to start job '%s'.\n", definition_->id().c_str());
  act.state = JOB_STATE_IDLE;
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  running_ = false;
  done_.broadcast();
  return -1;
}

int Job::update(Job_Definition_var definition)
{
  const int result = update_i(definition);
  definition_ = definition;
  return result;
}

bool Job::wait(long timeout_ms)
{
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  if (timeout_ms < 0)
  {
    while (running_)
      done_.wait();
    return true;
  }
  const ACE_Time_Value deadline = ACE_OS::gettimeofday() + ACE_Time_Value(0, timeout_ms * 1000);
  while (running_)
    if (done_.wait(&deadline) == -1 && errno == ETIME)
      return !running_;
  return true;
}

int Job::state_i(Job_State state)
{
  activity().state = state;
  LOG_MSG(LM_DEBUG, "Job '%s' state: %s.\n", definition_->id().c_str(), job_state_name(state));
  return 0;
}

void Job::set_job_thread()
{
  ACE_LOG_MSG->msg_callback(log_callback_.get());
  ACE_LOG_MSG->set_flags(ACE_Log_Msg::MSG_CALLBACK);
}

void Job::complete()
{
  Job_Activity& act = activity();
  if (act.state != JOB_STATE_SKIPPED)
    act.state = JOB_STATE_IDLE;
  if (ACE_LOG_MSG->msg_callback() == log_callback_.get())
    ACE_LOG_MSG->msg_callback(nullptr);
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  running_ = false;
  done_.broadcast();
}

std::string Job::log_path() const { return log_callback_->path(); }

std::string Job::last_error() const { return log_callback_->last_error(); }

void Job::intrusive_add_ref(Job* job)
{
  if (job != nullptr)
    ++job->refcount_;
}

void Job::intrusive_remove_ref(Job* job)
{
  if (job != nullptr && --job->refcount_ == 0)
    delete job;
}

int Job::stop_i(const Action_Options*) { return -1; }
int Job::pause_i(const Action_Options*) { return -1; }
int Job::resume_i(const Action_Options*) { return -1; }
int Job::abort_i(const Action_Options*) { return -1; }
int Job::switch_i(const Action_Options*) { return -1; }
int Job::remove_i(bool, const Action_Options*) { return 0; }
int Job::update_i(Job_Definition_var) { return 0; }
int Job::rollback_i() { return -1; }
int Job::abort_i() { return -1; }

std::shared_ptr<ACE_Log_Msg_Callback> Job_log_msg_callback(const Job& job) { return job.log_msg_callback(); }
