#ifndef HOST_HTTP_RETRY_POLICY_H
#define HOST_HTTP_RETRY_POLICY_H

#include "host/base/host_status.h"

#include <chrono>

// The retry budget of one host operation (a storage request, a backupd call, a
// token or Graph request): a number of seconds during which retryable failures
// are tried again.
// - A status with the server's wait (Retry-After) sleeps that wait, or gives up
//   when the wait would end beyond the budget: waiting less than the server asked
//   only earns another refusal.
// - Any other retryable status sleeps an exponential back-off: 200 ms, doubling,
//   at most 5 s per wait, cut to what is left of the budget.
// Which statuses are retryable depends on the scope: RETRY_TRANSIENT takes both
// throttled and transient ones (for idempotent requests to our own servers);
// RETRY_THROTTLED takes only the ones where the server asked to wait (429, 503).
// A budget of 0 or less means one attempt only. One object per operation; not
// shared between threads.
class Retry_Policy
{
public:
  enum Scope
  {
    RETRY_TRANSIENT,
    RETRY_THROTTLED,
  };

  explicit Retry_Policy(int max_seconds, Scope scope = RETRY_TRANSIENT);

  // Sleeps before the next attempt after `status`; false (without sleeping) when
  // the status is not retried or the budget does not allow another attempt.
  bool wait_before_retry(const Host_Status& status);

  int attempts() const { return attempts_; }

private:
  using Clock = std::chrono::steady_clock;
  bool retried(const Host_Status& status) const;

  Clock::time_point deadline_;
  Scope scope_;
  std::chrono::milliseconds delay_{200};
  int attempts_ = 1;
  bool single_attempt_ = false;
};

// Runs `attempt` (a callable returning Host_Status) until it succeeds, fails for
// good or `policy` gives up; returns the last status.
template <typename Attempt_T>
Host_Status run_with_retry_T(Retry_Policy& policy, Attempt_T attempt)
{
  for (;;)
  {
    Host_Status status = attempt();
    if (status.ok() || !policy.wait_before_retry(status))
      return status;
  }
}

#endif
