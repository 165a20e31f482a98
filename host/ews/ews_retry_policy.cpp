#include "host/ews/ews_retry_policy.h"

#include <algorithm>

EWS_Retry_Policy::EWS_Retry_Policy(int budget_seconds, int base_delay_ms)
  : start_(std::chrono::steady_clock::now()),
    budget_ms_(static_cast<long>(budget_seconds) * 1000),
    base_delay_ms_(std::max(1, base_delay_ms))
{
}

long EWS_Retry_Policy::elapsed_ms() const
{
  return static_cast<long>(
    std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start_).count());
}

long EWS_Retry_Policy::next_delay(const Host_Status& status)
{
  budget_exhausted_ = false;
  long delay = -1;
  if (status.kind == HOST_STATUS_THROTTLED && status.retry_after_ms >= 0)
    delay = status.retry_after_ms;
  else if (status.kind == HOST_STATUS_THROTTLED || status.kind == HOST_STATUS_TRANSIENT)
  {
    const int step = std::min(backoff_step_++, 16);
    delay = std::min(max_backoff_ms, base_delay_ms_ << step);
  }
  else
    return -1;
  if (elapsed_ms() + delay > budget_ms_)
  {
    budget_exhausted_ = true;
    return -1;
  }
  ++retries_;
  return delay;
}
