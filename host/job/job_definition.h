#ifndef HOST_JOB_JOB_DEFINITION_H
#define HOST_JOB_JOB_DEFINITION_H

#include "host/job/job_options.h"
#include "host/job/job_schedule.h"
#include "host/job/job_source.h"
#include "host/job/job_target.h"
#include "host/job/job_types.h"
#include "host/base/rate_controller.h"

#include <ace/Refcounted_Auto_Ptr.h>
#include <ace/Thread_Mutex.h>
#include <memory>
#include <string>
#include <vector>

// One job definition: what kind of job, its identity, schedule, target, scripts,
// retry and rate limits, and the module's own options and source objects.
// A definition is immutable once a job holds it; an update replaces the handle.
class Job_Definition
{
public:
  Job_Definition();

  Job_Definition_Type type() const { return type_; }
  const std::string& uid() const { return uid_; }
  const std::string& id() const { return id_; }
  const std::string& name() const { return name_; }
  const std::string& host_id() const { return host_id_; }
  const std::string& module() const { return module_; }
  const std::string& subtype() const { return subtype_; }

  // Null when the definition has no schedule.
  const Job_Schedule* schedule() const { return schedule_.get(); }
  const Job_Target& target() const { return target_; }

  // The module's objects; null handles when the definition has none.
  Job_Source_var source() const { return source_; }
  Job_Options_var options() const { return options_; }

  const std::string& precondition() const { return precondition_; }
  const std::string& pre_action() const { return pre_action_; }
  const std::string& post_action() const { return post_action_; }
  bool ignore_pre_action_failure() const { return ignore_pre_action_failure_; }
  bool ignore_post_action_failure() const { return ignore_post_action_failure_; }
  bool run_post_action_always() const { return run_post_action_always_; }

  // How long transient storage and catalog failures are retried, in seconds.
  int max_seconds_retry() const { return max_seconds_retry_; }
  // Bytes of stream data kept to resume an interrupted transfer.
  size_t resumption_buffer_size() const { return resumption_buffer_size_; }
  const std::vector<Rate_Control_Entry>& max_rate_limits() const { return max_rate_limits_; }

  // Setters used by the reader and by tests.
  void type(Job_Definition_Type v) { type_ = v; }
  void uid(const std::string& v) { uid_ = v; }
  void id(const std::string& v) { id_ = v; }
  void name(const std::string& v) { name_ = v; }
  void host_id(const std::string& v) { host_id_ = v; }
  void module(const std::string& v) { module_ = v; }
  void subtype(const std::string& v) { subtype_ = v; }
  void schedule(const Job_Schedule& s) { schedule_.reset(new Job_Schedule(s)); }
  Job_Target& target() { return target_; }
  void source(const Job_Source_var& s) { source_ = s; }
  void options(const Job_Options_var& o) { options_ = o; }
  void precondition(const std::string& v) { precondition_ = v; }
  void pre_action(const std::string& v) { pre_action_ = v; }
  void post_action(const std::string& v) { post_action_ = v; }
  void ignore_pre_action_failure(bool v) { ignore_pre_action_failure_ = v; }
  void ignore_post_action_failure(bool v) { ignore_post_action_failure_ = v; }
  void run_post_action_always(bool v) { run_post_action_always_ = v; }
  void max_seconds_retry(int v) { max_seconds_retry_ = v; }
  void resumption_buffer_size(size_t v) { resumption_buffer_size_ = v; }
  std::vector<Rate_Control_Entry>& max_rate_limits() { return max_rate_limits_; }

private:
  Job_Definition_Type type_;
  std::string uid_;
  std::string id_;
  std::string name_;
  std::string host_id_;
  std::string module_;
  std::string subtype_;
  std::shared_ptr<Job_Schedule> schedule_;
  Job_Target target_;
  Job_Source_var source_;
  Job_Options_var options_;
  std::string precondition_;
  std::string pre_action_;
  std::string post_action_;
  bool ignore_pre_action_failure_;
  bool ignore_post_action_failure_;
  bool run_post_action_always_;
  int max_seconds_retry_;
  size_t resumption_buffer_size_;
  std::vector<Rate_Control_Entry> max_rate_limits_;
};

typedef ACE_Refcounted_Auto_Ptr<Job_Definition, ACE_Thread_Mutex> Job_Definition_var;

#endif
