#ifndef HOST_EWS_EWS_RETRY_POLICY_H
#define HOST_EWS_EWS_RETRY_POLICY_H

#include "host/ews/ews_status.h"

#include <chrono>

// Decides, for one operation, whether and when a failed request is sent again:
// - THROTTLED with a suggested wait (BackOffMilliseconds, Retry-After): that wait;
// - TRANSIENT, or THROTTLED without a wait: exponential back-off from the base
//   delay (base, 2 x base, 4 x base, ... at most one minute);
// - anything else: never.
// A retry whose wait would end beyond the budget (seconds since the policy was
// made) is refused, so an operation fails cleanly rather than sleeping past it.
class EWS_Retry_Policy
{
public:
  EWS_Retry_Policy(int budget_seconds, int base_delay_ms);

  // Milliseconds to wait before the next attempt, or -1 to give up.
  long next_delay(const Host_Status& status);
  // Retries granted so far.
  int retries() const { return retries_; }
  // True when the last refusal was for lack of budget (not a permanent error).
  bool budget_exhausted() const { return budget_exhausted_; }

  static constexpr long max_backoff_ms = 60000;

private:
  long elapsed_ms() const;

  std::chrono::steady_clock::time_point start_;
  long budget_ms_;
  long base_delay_ms_;
  int retries_ = 0;
  int backoff_step_ = 0;
  bool budget_exhausted_ = false;
};

#endif
