#ifndef HOST_STORAGE_RATE_CONTROLLER_H
#define HOST_STORAGE_RATE_CONTROLLER_H

#include <cstddef>
#include <cstdint>

// One bandwidth limit of a job: between `start_time` and `end_time` (seconds since
// local midnight, end exclusive) transfers keep to `max_bytes_per_second`; 0 means
// no limit.
struct Rate_Control_Entry
{
  uint32_t start_time = 0;
  uint32_t end_time = 0;
  size_t max_bytes_per_second = 0;
};

#endif
