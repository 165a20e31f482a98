#ifndef APPS_BACKUP_AGENT_AGENT_JOB_H
#define APPS_BACKUP_AGENT_AGENT_JOB_H

#include "apps/backup-agent/backup_command.h"
#include "apps/backup-agent/backup_progress.h"
#include "apps/backup-agent/module_host.h"
#include "apps/backup-agent/restore_command.h"
#include "host/job/job.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

// A backup or restore job that `backup-agent serve` runs in the background for
// "agent.start_backup" / "agent.start_restore". The job is made and started as
// the backup and restore commands make and start theirs (Backup_Command,
// Restore_Command), on the module's own job thread; a watcher thread of this
// object waits for its end and then works its outcome out once (for a backup,
// the set's record and indexes read back) and keeps it. status() is what
// "agent.job_status" answers. Any thread may call; the calls are serialised.
// The object must not go before the job has ended (wait()).
class Agent_Job
{
public:
  // Starts a backup of `request` (its mailboxes already listed); null with
  // `error` when the job cannot be made or started.
  static std::shared_ptr<Agent_Job> start_backup(Module_Host& module, const Backup_Command::Request& request,
                                                 std::string& error);
  // Starts a restore of `request`; the selection is read from the set first.
  // Null with `error` when the set, a path or an item is not found, or the job
  // cannot be made or started.
  static std::shared_ptr<Agent_Job> start_restore(Module_Host& module, const Restore_Command::Request& request,
                                                  std::string& error);

  const std::string& id() const { return id_; }

  // {"job_id", "kind", "state", "progress": {"mailboxes_done", "mailboxes_total",
  // "items", "bytes", "elapsed_s"}} and, once the job has ended, "summary" (the
  // command's --json summary; null when the job failed or was cancelled) and,
  // when it failed, "error". States: "running", "succeeded", "partial" (done with
  // failed mailboxes or items), "failed", "cancelled".
  nlohmann::ordered_json status();

  // Asks a running job to stop; it ends "cancelled".
  void stop();
  // Waits for the job's end and for its outcome to be worked out.
  void wait();

  ~Agent_Job();
  Agent_Job(const Agent_Job&) = delete;
  Agent_Job& operator=(const Agent_Job&) = delete;

private:
  enum Kind
  {
    BACKUP,
    RESTORE
  };
  Agent_Job(Kind kind, Job_var job);
  // The watcher thread: waits for the job's end, then finish().
  void watch();
  // Works the outcome out once the job has ended (on the watcher thread).
  void finish();

  const Kind kind_;
  const std::string id_;
  Job_var job_;
  const std::chrono::steady_clock::time_point started_;
  std::mutex lock_;
  bool ending_ = false;    // the job has ended and its outcome is being worked out
  bool finished_ = false;  // the outcome is known
  bool stopped_ = false;
  double elapsed_s_ = 0;
  std::string state_ = "running";
  std::string error_;
  nlohmann::ordered_json summary_;
  // Backup: the request and the job log's mailbox events.
  Backup_Command::Request backup_;
  std::unique_ptr<Backup_Progress> progress_;
  // Restore: the request, its set and what the selection stands for.
  Restore_Command::Request restore_;
  Exchange_Backup_Set record_;
  Restore_Command::Selection_Size selected_;
  std::thread watcher_;
};

#endif
