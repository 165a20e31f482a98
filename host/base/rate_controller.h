#ifndef HOST_BASE_RATE_CONTROLLER_H
#define HOST_BASE_RATE_CONTROLLER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

// One bandwidth limit of a job: between `start_time` and `end_time` (seconds since
// local midnight, end exclusive) transfers keep to `max_bytes_per_second`; 0 means
// no limit.
struct Rate_Control_Entry
{
  uint32_t start_time = 0;
  uint32_t end_time = 0;
  size_t max_bytes_per_second = 0;
};

// Paces the transfers of one storage client so that they keep to the limit of the
// time-of-day window they happen in.
//
// Every transfer announces its bytes through `throttle` before (or while) moving
// them; `throttle` sleeps until the bytes fit the limit, so that N bytes announced
// from the first call on take at least N / limit seconds in all. A window whose
// `start_time` is after its `end_time` wraps over midnight; when windows overlap
// the first matching entry wins; outside every window there is no limit.
// Thread-safe: the streamed reader and writer of one client may share it.
class Rate_Controller
{
public:
  Rate_Controller() = default;
  explicit Rate_Controller(const std::vector<Rate_Control_Entry>& entries);

  void set_entries(const std::vector<Rate_Control_Entry>& entries);

  // Bytes per second allowed at `seconds_of_day` (0 .. 86399); 0 means no limit.
  size_t limit_at(uint32_t seconds_of_day) const;

  // Waits until `bytes` more may be moved at the limit now in force.
  void throttle(size_t bytes);

  // Seconds since local midnight now.
  static uint32_t seconds_of_day_now();

private:
  using Clock = std::chrono::steady_clock;

  std::vector<Rate_Control_Entry> entries_;
  std::mutex lock_;
  Clock::time_point next_free_{};
  size_t current_limit_ = 0;
};

#endif
