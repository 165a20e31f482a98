#include "host/job/job_event_handler.h"

#include "host/job/job.h"
#include "host/base/log.h"

#include <ace/OS_NS_time.h>
#include <cstdarg>
#include <cstdio>

Job_Event_Handler::Job_Event_Handler(Job& job) : job_(job) {}

Job_Event_Handler::~Job_Event_Handler() {}

int Job_Event_Handler::handle_start_job()
{
  Job_Activity& act = job_.activity();
  act.start_time = ACE_OS::time();
  act.progress = 0;
  act.items_done = 0;
  act.bytes_done = 0;
  act.result = JOB_RESULT_NONE;
  act.code = 0;
  act.set_message("");
  LOG_MSG(LM_INFO, "Job '%s' started.\n", job_.definition().id().c_str());
  return 0;
}

int Job_Event_Handler::handle_success()
{
  Job_Activity& act = job_.activity();
  act.progress = 100;
  act.result = JOB_RESULT_SUCCESS;
  act.last_run_time = ACE_OS::time();
  LOG_MSG(LM_INFO, "Job '%s' completed successfully.\n", job_.definition().id().c_str());
  return 0;
}

int Job_Event_Handler::handle_progress(int percent, ACE_UINT64, ACE_UINT64, ACE_UINT64)
{
  if (percent < 0)
    percent = 0;
  if (percent > 100)
    percent = 100;
  // Log each tenth once, so long runs show steady progress without flooding the log.
  const int previous = job_.activity().progress.exchange(percent);
  if (percent / 10 != previous / 10)
    LOG_MSG(LM_INFO, "Job '%s' progress: %d%%.\n", job_.definition().id().c_str(), percent);
  return 0;
}

int Job_Event_Handler::handle_failure(int code, const char* format, ...)
{
  char text[Job_Activity::MESSAGE_SIZE] = "";
  if (format != nullptr)
  {
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof(text), format, args);
    va_end(args);
  }
  if (text[0] == '\0')
    std::snprintf(text, sizeof(text), "%s", job_.last_error().c_str());
  Job_Activity& act = job_.activity();
  act.result = JOB_RESULT_FAILURE;
  act.code = code;
  act.set_message(text);
  act.last_run_time = ACE_OS::time();
  LOG_MSG(LM_ERROR, "Job '%s' failed (code %d)%s%s\n", job_.definition().id().c_str(), code,
          text[0] != '\0' ? ": " : ".", text);
  return 0;
}

int Job_Event_Handler::handle_canceled()
{
  Job_Activity& act = job_.activity();
  act.result = JOB_RESULT_CANCELED;
  act.last_run_time = ACE_OS::time();
  LOG_MSG(LM_WARNING, "Job '%s' was canceled.\n", job_.definition().id().c_str());
  return 0;
}
