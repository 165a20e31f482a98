#ifndef TESTS_SUPPORT_PLAIN_JOB_H
#define TESTS_SUPPORT_PLAIN_JOB_H

#include "host/job/job.h"

// A job that only holds a definition and an activity record.
class Plain_Job : public Job
{
public:
  explicit Plain_Job(Job_Definition_var def) : Job(def) {}

protected:
  int start_i(const Action_Options*) override { return 0; }
  void* run_i(const Action_Options*) override { return nullptr; }
};

// A definition with an id and uid and nothing else.
inline Job_Definition_var plain_definition(const std::string& id = "nightly",
                                           const std::string& uid = "6f1c2b7e-3d4a-4f5b-9c8d-1e2f3a4b5c6d")
{
  Job_Definition_var def(new Job_Definition());
  def->id(id);
  def->uid(uid);
  return def;
}

#endif
