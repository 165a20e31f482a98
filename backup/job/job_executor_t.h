#ifndef BACKUP_JOB_JOB_EXECUTOR_T_H
#define BACKUP_JOB_JOB_EXECUTOR_T_H

#include "host/job/job.h"
#include "host/job/job_types.h"

// The frame of one run of a job: precondition, pre-action script, the
// executor's own work (`execute_i`), post-action script, and the outcome reported
// through the event handler. An executor is built on the stack for a single
// operation and destroyed after it; it holds references into the job, never
// copies, and owns nothing it points to.
//
// `execute_i` must keep the activity state current and give up once the state
// becomes JOB_STATE_CANCELING.
template <typename Source, typename Options, typename Handler>
class Job_Executor_T
{
public:
  explicit Job_Executor_T(Job& job);
  virtual ~Job_Executor_T();

  virtual bool remove() { return true; }
  virtual bool setup_ondemand() { return true; }
  virtual bool remove_ondemand() { return true; }
  virtual bool update(Job_Definition_var) { return true; }
  virtual bool rollback() { return true; }
  virtual bool execute_i(const Action_Options* opts) = 0;
  virtual bool execute_pre_action();
  virtual bool execute_post_action();
  virtual bool check_condition() { return true; }
  virtual bool is_active(const Action_Options*) { return true; }

  // One whole run; the outcome also reaches the host through the event handler.
  bool execute(const Action_Options* opts);
  bool execute_precondition();

protected:
  Job& job_;
  Job_Definition& def_;
  const Job_Target& tgt_;
  Job_Activity& act_;
  Handler evt_handler_;
  Source* src_;
  Options* opts_;
};

#include "backup/job/job_executor_t.inl"

#endif
