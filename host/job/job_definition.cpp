#include "host/job/job_definition.h"

Job_Definition::Job_Definition()
  : type_(JOB_DEFINITION_NONE),
    ignore_pre_action_failure_(false),
    ignore_post_action_failure_(false),
    run_post_action_always_(false),
    max_seconds_retry_(300),
    resumption_buffer_size_(0)
{
}
