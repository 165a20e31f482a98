#ifndef HOST_JOB_JOB_TYPES_H
#define HOST_JOB_JOB_TYPES_H

#include <map>
#include <string>

// States of a job as recorded in its activity record. The values are shared with
// every process that watches activity records; never renumber them.
enum Job_State
{
  JOB_STATE_NONE = 0,
  JOB_STATE_IDLE = 1,
  JOB_STATE_RUNNING = 3,
  JOB_STATE_PAUSING = 4,
  JOB_STATE_COMPLETING = 6,
  JOB_STATE_CANCELING = 8,
  JOB_STATE_SKIPPED = 17,
  JOB_STATE_ABORTING = 20,
  JOB_STATE_SWITCHING = 23,
};

// Kinds of job definition.
enum Job_Definition_Type
{
  JOB_DEFINITION_NONE = 0,
  JOB_DEFINITION_BACKUP = 1,
  JOB_DEFINITION_RESTORE = 2,
  JOB_DEFINITION_STANDBY = 3,
};

// How the last run of a job ended, as the event handler reports it.
enum Job_Result
{
  JOB_RESULT_NONE = 0,
  JOB_RESULT_SUCCESS = 1,
  JOB_RESULT_FAILURE = 2,
  JOB_RESULT_CANCELED = 3,
};

// Options of one request to a job (start, stop, ...): string keys to string values.
typedef std::map<std::string, std::string> Action_Options;

// The name of a state ("running"), or "unknown".
const char* job_state_name(int state);

#endif
