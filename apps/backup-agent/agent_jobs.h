#ifndef APPS_BACKUP_AGENT_AGENT_JOBS_H
#define APPS_BACKUP_AGENT_AGENT_JOBS_H

#include "apps/backup-agent/agent_job.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>

// The background jobs of one `backup-agent serve`, by job id, kept for the
// server's lifetime so that their status can be asked for after they ended.
// Thread-safe.
class Agent_Jobs
{
public:
  Agent_Jobs() = default;
  Agent_Jobs(const Agent_Jobs&) = delete;
  Agent_Jobs& operator=(const Agent_Jobs&) = delete;
  // Stops the jobs still running and waits for them.
  ~Agent_Jobs();

  void add(const std::shared_ptr<Agent_Job>& job);
  // Null when there is no job `id`.
  std::shared_ptr<Agent_Job> find(const std::string& id) const;

  // Asks every running job to stop and waits until each has ended.
  void stop_all();

private:
  mutable std::mutex lock_;
  std::map<std::string, std::shared_ptr<Agent_Job>> jobs_;
};

#endif
