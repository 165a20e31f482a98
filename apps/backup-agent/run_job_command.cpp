#include "apps/backup-agent/run_job_command.h"

#include "apps/backup-agent/check_job_command.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>

namespace
{
std::atomic<bool> stop_requested(false);

void request_stop(int) { stop_requested = true; }

const char* result_name(int result)
{
  switch (result)
  {
  case JOB_RESULT_SUCCESS:
    return "succeeded";
  case JOB_RESULT_FAILURE:
    return "failed";
  case JOB_RESULT_CANCELED:
    return "was canceled";
  default:
    return "ended without an outcome";
  }
}
}  // namespace

int Run_Job_Command::run(const std::string& path, std::ostream& out, std::ostream& err)
{
  Job_Definition_var def;
  if (!Check_Job_Command(module_).read(path, def, err))
    return 1;
  errno = 0;
  Job_var job = module_.job_creator().create(def);
  if (job.get() == nullptr)
  {
    err << "error: the module made no job of " << path
        << (errno == ENOMEM ? ": out of memory" : ": unsupported job type") << "\n";
    return 1;
  }
  std::signal(SIGINT, request_stop);
  std::signal(SIGTERM, request_stop);
  if (job->start(nullptr) != 0)
  {
    err << "error: job " << def->id() << " could not be started\n";
    return 1;
  }
  int shown = -1;
  bool stopping = false;
  while (!job->wait(200))
  {
    const int progress = job->activity().progress;
    if (progress != shown)
      err << "progress: " << (shown = progress) << "%\n";
    if (stop_requested && !stopping)
    {
      err << "stopping job " << def->id() << "\n";
      job->stop(nullptr);
      stopping = true;
    }
  }
  return report(*job, out, err);
}

int Run_Job_Command::report(const Job& job, std::ostream& out, std::ostream& err)
{
  const Job_Activity& act = job.activity();
  out << "job " << job.definition().id() << " " << result_name(act.result);
  if (act.state == JOB_STATE_SKIPPED)
    out << " (skipped)";
  out << "\n";
  if (act.result == JOB_RESULT_SUCCESS || act.result == JOB_RESULT_FAILURE)
    out << "bytes: " << act.size << ", set: " << act.set_size << ", stored: " << act.set_storage_size << "\n";
  if (act.message[0] != '\0')
    out << "message: " << act.message << "\n";
  if (!job.log_path().empty())
    err << "job log: " << job.log_path() << "\n";
  switch (act.result)
  {
  case JOB_RESULT_FAILURE:
    return 2;
  case JOB_RESULT_CANCELED:
    return 3;
  default:
    return 0;
  }
}
