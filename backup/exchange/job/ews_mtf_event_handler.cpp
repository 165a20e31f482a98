#include "backup/exchange/job/ews_mtf_event_handler.h"

#include "host/job/job_types.h"

EWS_MTF_Event_Handler::EWS_MTF_Event_Handler(Job_Event_Handler& handler, Job_Activity& act, Progress_Report_Mode mode)
    : MTF::Event_Handler(mode), handler_(handler), act_(act)
{
}

int EWS_MTF_Event_Handler::handle_progress(int percent, ACE_UINT64 done, ACE_UINT64 total, ACE_UINT64 files)
{
  return handler_.handle_progress(percent, done, total, files);
}

bool EWS_MTF_Event_Handler::canceling()
{
  return act_.state == JOB_STATE_CANCELING;
}

EWS_MTF_Event_Handler::~EWS_MTF_Event_Handler() = default;
