#include "apps/backup-agent/agent_jobs.h"

#include <vector>

Agent_Jobs::~Agent_Jobs() { stop_all(); }

void Agent_Jobs::add(const std::shared_ptr<Agent_Job>& job)
{
  std::lock_guard<std::mutex> guard(lock_);
  jobs_[job->id()] = job;
}

std::shared_ptr<Agent_Job> Agent_Jobs::find(const std::string& id) const
{
  std::lock_guard<std::mutex> guard(lock_);
  const auto found = jobs_.find(id);
  return found == jobs_.end() ? nullptr : found->second;
}

void Agent_Jobs::stop_all()
{
  std::vector<std::shared_ptr<Agent_Job>> jobs;
  {
    std::lock_guard<std::mutex> guard(lock_);
    for (const auto& entry : jobs_)
      jobs.push_back(entry.second);
  }
  // Waited for outside the lock: a job's status may be asked for meanwhile.
  for (const auto& job : jobs)
    job->stop();
  for (const auto& job : jobs)
    job->wait();
}
