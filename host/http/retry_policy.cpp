#include "host/http/retry_policy.h"

#include <algorithm>
#include <thread>

Retry_Policy::Retry_Policy(int max_seconds, Scope scope, long base_delay_ms, long max_delay_ms)
  : deadline_(Clock::now() + std::chrono::seconds(std::max(max_seconds, 0))),
    scope_(scope),
    delay_ms_(std::max(1L, base_delay_ms)),
    max_delay_ms_(std::max(1L, max_delay_ms)),
    single_attempt_(max_seconds <= 0)
{
}

bool Retry_Policy::retried(const Host_Status& status) const
{
  if (scope_ == RETRY_THROTTLED)
    return status.kind == HOST_STATUS_THROTTLED;
  return status.retryable();
}

long Retry_Policy::next_delay(const Host_Status& status)
{
  budget_exhausted_ = false;
  if (!retried(status))
    return -1;
  const long left =
    static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - Clock::now()).count());
  if (single_attempt_ || left <= 0)
  {
    budget_exhausted_ = true;
    return -1;
  }
  long wait;
  if (status.retry_after_ms >= 0)
    wait = status.retry_after_ms <= left ? status.retry_after_ms : -1;
  else
  {
    wait = std::min(delay_ms_, left);
    delay_ms_ = std::min(delay_ms_ * 2, max_delay_ms_);
  }
  if (wait < 0)
  {
    budget_exhausted_ = true;
    return -1;
  }
  ++retries_;
  return wait;
}

bool Retry_Policy::wait_before_retry(const Host_Status& status)
{
  const long wait = next_delay(status);
  if (wait < 0)
    return false;
  std::this_thread::sleep_for(std::chrono::milliseconds(wait));
  return true;
}
