#ifndef BACKUP_JOB_CONTROLLABLE_JOB_T_H
#define BACKUP_JOB_CONTROLLABLE_JOB_T_H

#include "backup/job/default_job_t.h"

// A job that can also be stopped, paused, resumed, switched and aborted without
// options. Each request only records the new state; the running executor reads
// it and acts on it at its next check.
template <typename Executor>
class Controllable_Job_T : public Default_Job_T<Executor>
{
public:
  explicit Controllable_Job_T(Job_Definition_var definition) : Default_Job_T<Executor>(definition) {}

protected:
  int stop_i(const Action_Options*) override { return this->state_i(JOB_STATE_CANCELING); }
  int pause_i(const Action_Options*) override { return this->state_i(JOB_STATE_PAUSING); }
  int resume_i(const Action_Options*) override { return this->state_i(JOB_STATE_RUNNING); }
  int switch_i(const Action_Options*) override { return this->state_i(JOB_STATE_SWITCHING); }
  int abort_i() override { return this->state_i(JOB_STATE_ABORTING); }
  using Default_Job_T<Executor>::abort_i;
};

#endif
