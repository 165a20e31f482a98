#ifndef BACKUP_EXCHANGE_JOB_EWS_MTF_EVENT_HANDLER_H
#define BACKUP_EXCHANGE_JOB_EWS_MTF_EVENT_HANDLER_H

#include "host/job/job_activity.h"
#include "host/job/job_event_handler.h"
#include "host/mtf/mtf_event_handler.h"

// Connects a backup or restore stream to the job: the stream's progress goes to
// the job's event handler, and the stream stops when the job is being
// cancelled. Holds references only; the handler and the activity must outlive
// it. Called from the stream's channel threads: it keeps no state of its own and
// reads the activity's state without a lock.
class EWS_MTF_Event_Handler : public MTF::Event_Handler
{
public:
  EWS_MTF_Event_Handler(Job_Event_Handler& handler, Job_Activity& act, Progress_Report_Mode mode);

  // Forwards the percentage alone (the stream's byte and file figures are not
  // passed on) and returns the job handler's answer.
  int handle_progress(int percent, ACE_UINT64 bytes_done, ACE_UINT64 bytes_total, ACE_UINT64 files_done) override;
  // True exactly while the job's state is "canceling" (8).
  bool canceling() override;

  ~EWS_MTF_Event_Handler() override;

private:
  Job_Event_Handler& handler_;
  Job_Activity& act_;
};

#endif
