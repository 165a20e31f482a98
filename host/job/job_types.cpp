#include "host/job/job_types.h"

const char* job_state_name(int state)
{
  switch (state)
  {
  case JOB_STATE_NONE:
    return "none";
  case JOB_STATE_IDLE:
    return "idle";
  case JOB_STATE_RUNNING:
    return "running";
  case JOB_STATE_PAUSING:
    return "pausing";
  case JOB_STATE_COMPLETING:
    return "completing";
  case JOB_STATE_CANCELING:
    return "canceling";
  case JOB_STATE_SKIPPED:
    return "skipped";
  case JOB_STATE_ABORTING:
    return "aborting";
  case JOB_STATE_SWITCHING:
    return "switching";
  default:
    return "unknown";
  }
}
