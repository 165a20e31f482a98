#include "host/http/retry_policy.h"

#include <algorithm>
#include <thread>

Retry_Policy::Retry_Policy(int max_seconds, Scope scope)
    : deadline_(Clock::now() + std::chrono::seconds(std::max(max_seconds, 0))), scope_(scope),
      single_attempt_(max_seconds <= 0)
{
}

bool Retry_Policy::retried(const Host_Status& status) const
{
  if (scope_ == RETRY_THROTTLED)
    return status.kind == HOST_STATUS_THROTTLED;
  return status.retryable();
}

bool Retry_Policy::wait_before_retry(const Host_Status& status)
{
  if (single_attempt_ || !retried(status))
    return false;
  const Clock::time_point now = Clock::now();
  if (now >= deadline_)
    return false;
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - now);
  std::chrono::milliseconds wait;
  if (status.retry_after_ms >= 0)
  {
    wait = std::chrono::milliseconds(status.retry_after_ms);
    if (wait > left)
      return false;
  }
  else
  {
    wait = std::min(delay_, left);
    delay_ = std::min(delay_ * 2, std::chrono::milliseconds(5000));
  }
  std::this_thread::sleep_for(wait);
  ++attempts_;
  return true;
}
