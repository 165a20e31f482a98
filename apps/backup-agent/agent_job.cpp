#include "apps/backup-agent/agent_job.h"

#include "host/base/log.h"
#include "host/base/uuid.h"

Agent_Job::Agent_Job(Kind kind, Job_var job)
  : kind_(kind), id_(uuid_generate_string()), job_(job), started_(std::chrono::steady_clock::now())
{
}

std::shared_ptr<Agent_Job> Agent_Job::start_backup(Module_Host& module, const Backup_Command::Request& request,
                                                   std::string& error)
{
  Job_var job = Backup_Command(module).make_job(request, error);
  if (job.get() == nullptr)
    return nullptr;
  std::shared_ptr<Agent_Job> agent_job(new Agent_Job(BACKUP, job));
  agent_job->backup_ = request;
  // Made before the start so that it reads every line of this run, as the
  // command's own does.
  agent_job->progress_.reset(new Backup_Progress(request.mailboxes.size(), job->log_path()));
  if (job->start(nullptr) != 0)
  {
    error = "the backup could not be started";
    return nullptr;
  }
  agent_job->watcher_ = std::thread([raw = agent_job.get()] { raw->watch(); });
  LOG_MSG(LM_INFO, "Job %s: backup of %d mailboxes of tenant '%s' to pool '%s' started\n", agent_job->id_.c_str(),
          static_cast<int>(request.mailboxes.size()), request.tenant.c_str(), request.pool.c_str());
  return agent_job;
}

std::shared_ptr<Agent_Job> Agent_Job::start_restore(Module_Host& module, const Restore_Command::Request& request,
                                                    std::string& error)
{
  Exchange_Backup_Set record;
  nlohmann::ordered_json storages = nlohmann::ordered_json::array();
  Restore_Command::Selection_Size selected;
  if (!Restore_Command::select(request, record, storages, selected, error))
    return nullptr;
  Job_var job = Restore_Command(module).make_job(record, request.from, request.to, request.relocation, storages, error);
  if (job.get() == nullptr)
    return nullptr;
  std::shared_ptr<Agent_Job> agent_job(new Agent_Job(RESTORE, job));
  agent_job->restore_ = request;
  agent_job->record_ = record;
  agent_job->selected_ = selected;
  if (job->start(nullptr) != 0)
  {
    error = "the restore could not be started";
    return nullptr;
  }
  agent_job->watcher_ = std::thread([raw = agent_job.get()] { raw->watch(); });
  LOG_MSG(LM_INFO, "Job %s: restore of set '%s' from '%s' to '%s' started\n", agent_job->id_.c_str(),
          record.uuid.c_str(), request.from.c_str(), request.to.c_str());
  return agent_job;
}

nlohmann::ordered_json Agent_Job::status()
{
  std::lock_guard<std::mutex> guard(lock_);
  const Job_Activity& act = job_->activity();
  const uint64_t items = act.items_done, bytes = act.bytes_done;
  size_t done = 0, total = 1;
  if (kind_ == BACKUP)
  {
    std::string ended;
    if (!ending_)
      progress_->poll(items, bytes, ended);
    done = progress_->done();
    total = backup_.mailboxes.size();
  }
  else
    done = finished_ ? 1 : 0;
  const double elapsed =
    finished_ ? elapsed_s_ : std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
  nlohmann::ordered_json status = {{"job_id", id_},
                                   {"kind", kind_ == BACKUP ? "backup" : "restore"},
                                   {"state", state_},
                                   {"progress",
                                    {{"mailboxes_done", done},
                                     {"mailboxes_total", total},
                                     {"items", items},
                                     {"bytes", bytes},
                                     {"elapsed_s", static_cast<long>(elapsed)}}}};
  if (finished_)
    status["summary"] = summary_;
  if (!error_.empty())
    status["error"] = error_;
  return status;
}

void Agent_Job::finish()
{
  const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
  const long seconds = static_cast<long>(elapsed);
  const Job_Activity& act = job_->activity();
  bool stopped = false;
  {
    std::lock_guard<std::mutex> guard(lock_);
    stopped = stopped_;
    // The last lines of the job log: mailboxes that ended and items that failed.
    // status() reads the progress no more from here on, so the summary below
    // may read it without the lock.
    if (kind_ == BACKUP)
    {
      std::string ended;
      progress_->poll(act.items_done, act.bytes_done, ended);
    }
    ending_ = true;
  }
  // Worked out without the lock (reading the set back takes a while): status()
  // meanwhile still says "running".
  std::string state, error;
  nlohmann::ordered_json summary;
  if (stopped || act.result == JOB_RESULT_CANCELED)
    state = "cancelled";
  else if (act.result != JOB_RESULT_SUCCESS)
  {
    state = "failed";
    error = act.message[0] != '\0' ? std::string(act.message) : std::string("the job failed");
  }
  else if (kind_ == BACKUP)
  {
    if (!Backup_Command::summarize(backup_, *job_, *progress_, seconds, summary))
    {
      state = "failed";
      error = "the backup ran but its set could not be read back for the summary";
      summary = nullptr;
    }
    else
      state = Backup_Command::complete(summary) ? "succeeded" : "partial";
  }
  else
  {
    Restore_Command::Outcome outcome;
    Restore_Command::take_outcome(*job_, outcome);
    summary = Restore_Command::summary(restore_, record_, selected_, outcome, seconds);
    state = outcome.failures.empty() ? "succeeded" : "partial";
  }
  LOG_MSG(LM_INFO, "Job %s: %s\n", id_.c_str(), state.c_str());
  std::lock_guard<std::mutex> guard(lock_);
  state_ = state;
  error_ = error;
  summary_ = summary;
  elapsed_s_ = elapsed;
  finished_ = true;
}

void Agent_Job::stop()
{
  std::lock_guard<std::mutex> guard(lock_);
  if (job_->running())
  {
    stopped_ = true;
    job_->stop(nullptr);
  }
}

void Agent_Job::watch()
{
  job_->wait(-1);
  finish();
}

void Agent_Job::wait()
{
  if (watcher_.joinable())
    watcher_.join();
}

Agent_Job::~Agent_Job() { wait(); }
