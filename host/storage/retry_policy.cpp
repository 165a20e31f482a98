#include "host/storage/retry_policy.h"

#include <algorithm>
#include <thread>

Retry_Policy::Retry_Policy(int max_seconds)
    : deadline_(Clock::now() + std::chrono::seconds(std::max(max_seconds, 0))), single_attempt_(max_seconds <= 0)
{
}

bool Retry_Policy::wait_before_retry()
{
  if (single_attempt_)
    return false;
  Clock::time_point now = Clock::now();
  if (now >= deadline_)
    return false;
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - now);
  std::this_thread::sleep_for(std::min(delay_, left));
  delay_ = std::min(delay_ * 2, std::chrono::milliseconds(5000));
  ++attempts_;
  return true;
}
