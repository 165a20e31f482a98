#ifndef BACKUP_JOB_DEFAULT_JOB_T_H
#define BACKUP_JOB_DEFAULT_JOB_T_H

#include "host/job/job.h"

#include <ace/Thread.h>

// A job run by executors of type Executor. No executor is ever kept: each
// operation that needs one builds a fresh executor on the stack from this job,
// calls one of its operations and destroys it before returning. Between
// operations the job holds nothing but the id of its last job thread.
//
// `start_i` runs the job on a detached thread of its own and never waits for it;
// requests from host threads reach the running executor only through the
// activity record.
template <typename Executor>
class Default_Job_T : public Job
{
public:
  explicit Default_Job_T(Job_Definition_var definition);

  int handle_exception(ACE_HANDLE) override { return 0; }

protected:
  int start_i(const Action_Options* opts) override;
  int stop_i(const Action_Options*) override { return -1; }
  int resume_i(const Action_Options*) override { return -1; }
  int abort_i(const Action_Options* opts) override;
  int remove_i(bool force, const Action_Options* opts) override;
  int update_i(Job_Definition_var definition) override;
  int rollback_i() override;
  void* run_i(const Action_Options* opts) override;
  using Job::abort_i;

  bool on_demand() const;

  // The start request handed to the job thread.
  struct Run_Options
  {
    void* job;
    Action_Options opts;
  };

  static ACE_THR_FUNC_RETURN run(void* arg);
  void* run_rollback();

  ACE_thread_t thr_id_;
};

#include "backup/job/default_job_t.inl"

#endif
