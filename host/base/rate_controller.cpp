#include "host/base/rate_controller.h"

#include <ctime>
#include <thread>

Rate_Controller::Rate_Controller(const std::vector<Rate_Control_Entry>& entries) : entries_(entries) {}

void Rate_Controller::set_entries(const std::vector<Rate_Control_Entry>& entries)
{
  std::lock_guard<std::mutex> guard(lock_);
  entries_ = entries;
  current_limit_ = 0;
  next_free_ = Clock::time_point{};
}

static bool window_contains(const Rate_Control_Entry& e, uint32_t t)
{
  if (e.start_time <= e.end_time)
    return t >= e.start_time && t < e.end_time;
  return t >= e.start_time || t < e.end_time;  // wraps over midnight
}

size_t Rate_Controller::limit_at(uint32_t seconds_of_day) const
{
  for (const Rate_Control_Entry& e : entries_)
    if (window_contains(e, seconds_of_day))
      return e.max_bytes_per_second;
  return 0;
}

uint32_t Rate_Controller::seconds_of_day_now()
{
  time_t now = time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  return static_cast<uint32_t>(local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec);
}

void Rate_Controller::throttle(size_t bytes)
{
  if (entries_.empty() || bytes == 0)
    return;
  size_t limit = limit_at(seconds_of_day_now());
  Clock::time_point wake;
  {
    std::lock_guard<std::mutex> guard(lock_);
    Clock::time_point now = Clock::now();
    // A new window starts its pacing afresh; idle time earns no credit, so a burst
    // after a pause still keeps to the limit.
    if (limit != current_limit_ || next_free_ < now)
      next_free_ = now;
    current_limit_ = limit;
    if (limit == 0)
      return;
    auto cost = std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(static_cast<double>(bytes) / static_cast<double>(limit)));
    next_free_ += cost;
    wake = next_free_;
  }
  std::this_thread::sleep_until(wake);
}
