#include "host/job/job_activity.h"

#include "host/job/job_types.h"

#include <unistd.h>

void Job_Activity::init()
{
  magic = MAGIC;
  version = VERSION;
  std::memset(uid, 0, sizeof(uid));
  state = JOB_STATE_IDLE;
  progress = 0;
  result = JOB_RESULT_NONE;
  pid = 0;
  code = 0;
  start_time = 0;
  last_run_time = 0;
  size = 0;
  set_size = 0;
  set_storage_size = 0;
  message[0] = '\0';
  items_done = 0;
  bytes_done = 0;
}

void Job_Activity::set_message(const char* text)
{
  if (text == nullptr)
    text = "";
  std::strncpy(message, text, MESSAGE_SIZE - 1);
  message[MESSAGE_SIZE - 1] = '\0';
}
