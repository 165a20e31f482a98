#ifndef HOST_JOB_JOB_EVENT_HANDLER_H
#define HOST_JOB_JOB_EVENT_HANDLER_H

#include <ace/Basic_Types.h>

class Job;

// Reports the course of one run of a job: each event is logged for the
// administrator and recorded in the job's activity record, where the agent and
// other processes read it. Called from the job thread; `handle_progress` also
// from stream channel threads.
class Job_Event_Handler
{
public:
  explicit Job_Event_Handler(Job& job);
  virtual ~Job_Event_Handler();

  virtual int handle_start_job();
  virtual int handle_success();
  // `percent` from 0 to 100; the figures are bytes done, bytes in all and items
  // done, 0 where unknown. Answers 0.
  virtual int handle_progress(int percent, ACE_UINT64 done, ACE_UINT64 total, ACE_UINT64 items);
  // `format` (printf-style) describes the failure; when it is null the last
  // error the job logged stands for it.
  virtual int handle_failure(int code, const char* format, ...);
  virtual int handle_canceled();

private:
  Job& job_;
};

#endif
