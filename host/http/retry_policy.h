#ifndef HOST_HTTP_RETRY_POLICY_H
#define HOST_HTTP_RETRY_POLICY_H

#include "host/base/host_status.h"

#include <chrono>

// The retry budget of one host operation (a storage request, a backupd call, a
// token or Graph request, an EWS operation): a number of seconds during which
// retryable failures are tried again.
// - A status with the server's wait (Retry-After, BackOffMilliseconds) waits that
//   long, or gives up when the wait would end beyond the budget: waiting less than
//   the server asked only earns another refusal.
// - Any other retryable status backs off exponentially from the base delay,
//   doubling up to the longest wait, cut to what is left of the budget.
// Which statuses are retryable depends on the scope: RETRY_TRANSIENT takes both
// throttled and transient ones (idempotent requests); RETRY_THROTTLED takes only
// the ones where the server asked to wait (429, 503).
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

  explicit Retry_Policy(int max_seconds, Scope scope = RETRY_TRANSIENT, long base_delay_ms = 200,
                        long max_delay_ms = 5000);

  // Milliseconds to wait before the next attempt after `status`, or -1 to give up
  // (a status that is not retried, or no budget left for the wait). Does not sleep,
  // so that a caller can wait in a way that a cancellation cuts short.
  long next_delay(const Host_Status& status);
  // next_delay, then sleeps that long; false (without sleeping) when giving up.
  bool wait_before_retry(const Host_Status& status);

  int attempts() const { return retries_ + 1; }
  int retries() const { return retries_; }
  // True when the last refusal was for lack of budget, not for the status' kind.
  bool budget_exhausted() const { return budget_exhausted_; }

private:
  using Clock = std::chrono::steady_clock;
  bool retried(const Host_Status& status) const;

  Clock::time_point deadline_;
  Scope scope_;
  long delay_ms_;
  long max_delay_ms_;
  int retries_ = 0;
  bool single_attempt_ = false;
  bool budget_exhausted_ = false;
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
