#include "backup/exchange/job/ews_mtf_event_handler.h"

#include "host/job/job_types.h"

EWS_MTF_Event_Handler::EWS_MTF_Event_Handler(Job_Event_Handler& handler, Job_Activity& act, Progress_Report_Mode mode)
  : MTF::Event_Handler(mode), handler_(handler), act_(act)
{
}

int EWS_MTF_Event_Handler::handle_progress(int percent, ACE_UINT64, ACE_UINT64, ACE_UINT64)
{
  // The stream's figures reach the job's activity through the job's log callback
  // (see MTF_Backup); the job framework gets the percentage alone.
  return handler_.handle_progress(percent, 0, 0, 0);
}

bool EWS_MTF_Event_Handler::canceling() { return act_.state == JOB_STATE_CANCELING; }

EWS_MTF_Event_Handler::~EWS_MTF_Event_Handler() = default;
