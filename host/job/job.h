#ifndef HOST_JOB_JOB_H
#define HOST_JOB_JOB_H

#include "host/job/job_activity.h"
#include "host/job/job_activity_path_conf.h"
#include "host/job/job_definition.h"
#include "host/job/job_log_callback.h"
#include "host/job/job_types.h"
#include "host/job/mem_map_handle.h"

#include <ace/Condition_Thread_Mutex.h>
#include <ace/Event_Handler.h>
#include <ace/Intrusive_Auto_Ptr.h>
#include <ace/Thread_Mutex.h>
#include <atomic>
#include <memory>

typedef Mem_Map_Handle<Job_Activity, Job_Activity_Path_Conf, 4096> Job_Activity_Handle;

// A runnable job. The host (the agent) owns jobs through ACE_Intrusive_Auto_Ptr
// and drives them with the public requests; a module subclasses Job and supplies
// the *_i operations. A request that a job does not support answers -1.
//
// State changes reach a running job only through its activity record, which the
// job's own thread reads; requests never wait for the job.
class Job : public ACE_Event_Handler
{
public:
  explicit Job(Job_Definition_var definition);
  ~Job() override;

  // Requests from the host. `start` marks the job running and asks the subclass
  // to start it (normally on a thread of its own); -1 when it is running already.
  int start(const Action_Options* opts = nullptr);
  int stop(const Action_Options* opts = nullptr) { return stop_i(opts); }
  int pause(const Action_Options* opts = nullptr) { return pause_i(opts); }
  int resume(const Action_Options* opts = nullptr) { return resume_i(opts); }
  int abort(const Action_Options* opts) { return abort_i(opts); }
  int abort() { return abort_i(); }
  int switch_job(const Action_Options* opts = nullptr) { return switch_i(opts); }
  int remove(bool force, const Action_Options* opts = nullptr) { return remove_i(force, opts); }
  int update(Job_Definition_var definition);
  int rollback() { return rollback_i(); }

  // Waits until a started run has completed; false when `timeout_ms` (>= 0)
  // elapsed first. Returns at once when the job is not running.
  bool wait(long timeout_ms = -1);
  bool running() const { return running_; }

  // For the job's own code.
  Job_Definition& definition() const { return *definition_; }
  Job_Definition_var definition_var() const { return definition_; }
  Job_Activity& activity() const { return **activity_; }
  // Records a state in the activity record; answers 0.
  int state_i(Job_State state);
  void state(Job_State state) { state_i(state); }
  // Called first in the job's thread: log lines of this thread also go to the
  // job's log file.
  void set_job_thread();
  // Called last in the job's thread: the run is over.
  void complete();
  // Writes into the job's log file (when the agent keeps job logs).
  std::shared_ptr<ACE_Log_Msg_Callback> log_msg_callback() const { return log_callback_; }
  // The job's log file; empty when the agent keeps no job logs.
  std::string log_path() const;
  // The last error logged by the job's threads, without its source position.
  std::string last_error() const;

  static void intrusive_add_ref(Job* job);
  static void intrusive_remove_ref(Job* job);

protected:
  virtual int start_i(const Action_Options* opts) = 0;
  virtual int stop_i(const Action_Options* opts);
  virtual int pause_i(const Action_Options* opts);
  virtual int resume_i(const Action_Options* opts);
  virtual int abort_i(const Action_Options* opts);
  virtual int switch_i(const Action_Options* opts);
  virtual int remove_i(bool force, const Action_Options* opts);
  virtual int update_i(Job_Definition_var definition);
  virtual int rollback_i();
  virtual void* run_i(const Action_Options* opts) = 0;
  virtual int abort_i();

private:
  Job(const Job&) = delete;
  Job& operator=(const Job&) = delete;

  Job_Definition_var definition_;
  std::unique_ptr<Job_Activity_Handle> activity_;
  std::shared_ptr<Job_Log_Callback> log_callback_;  // never null
  std::atomic<long> refcount_;
  std::atomic<bool> running_;
  ACE_Thread_Mutex lock_;
  ACE_Condition_Thread_Mutex done_;
};

typedef ACE_Intrusive_Auto_Ptr<Job> Job_var;

// The job's log callback, for streams that log on the job's behalf.
std::shared_ptr<ACE_Log_Msg_Callback> Job_log_msg_callback(const Job& job);

#endif
