#include "host/job/job_alert.h"

#include "host/job/job.h"
#include "host/base/log.h"
#include "host/base/state_dir.h"

#include <ace/OS_NS_time.h>
#include <ace/Thread_Mutex.h>
#include <ace/Guard_T.h>
#include <cinttypes>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace
{
std::string hex(uint64_t v)
{
  char text[24];
  std::snprintf(text, sizeof(text), "0x%" PRIx64, v);
  return text;
}

ACE_Log_Priority alert_priority(int level)
{
  if (level >= 7)
    return LM_ERROR;
  if (level >= 5)
    return LM_WARNING;
  return LM_INFO;
}
}  // namespace

int write_job_alert(const Job* job, int level, uint64_t code, uint64_t code2, const nlohmann::ordered_json& params)
{
  nlohmann::ordered_json alert;
  alert["time"] = static_cast<int64_t>(ACE_OS::time());
  alert["job_id"] = job ? job->definition().id() : std::string();
  alert["job_uid"] = job ? job->definition().uid() : std::string();
  alert["level"] = level;
  alert["code"] = hex(code);
  alert["code2"] = hex(code2);
  alert["params"] = params;
  const std::string line = alert.dump();
  LOG_MSG(alert_priority(level), "Job alert: %s\n", line.c_str());

  const std::string dir = state_subdir("");
  if (dir.empty())
    return -1;
  static ACE_Thread_Mutex file_lock;
  ACE_Guard<ACE_Thread_Mutex> guard(file_lock);
  FILE* f = std::fopen((dir + "/alerts.jsonl").c_str(), "ae");
  if (f == nullptr)
    return -1;
  const bool ok = std::fprintf(f, "%s\n", line.c_str()) > 0;
  return (std::fclose(f) == 0 && ok) ? 0 : -1;
}
