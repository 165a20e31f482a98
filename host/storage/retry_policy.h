#ifndef HOST_STORAGE_RETRY_POLICY_H
#define HOST_STORAGE_RETRY_POLICY_H

#include <chrono>

// A budget of seconds for retrying transient failures (a refused or dropped
// connection, HTTP 408/429/5xx), with exponential back-off: 200 ms, doubling, at
// most 5 s per wait, never beyond the budget. A budget of 0 or less means one
// attempt only. One object per operation; not shared between threads.
class Retry_Policy
{
public:
  explicit Retry_Policy(int max_seconds);

  // Sleeps before the next attempt; false when the budget is spent (no sleep).
  bool wait_before_retry();

  int attempts() const { return attempts_; }

private:
  using Clock = std::chrono::steady_clock;
  Clock::time_point deadline_;
  std::chrono::milliseconds delay_{200};
  int attempts_ = 1;
  bool single_attempt_ = false;
};

#endif
