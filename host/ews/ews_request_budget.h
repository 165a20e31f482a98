#ifndef HOST_EWS_EWS_REQUEST_BUDGET_H
#define HOST_EWS_EWS_REQUEST_BUDGET_H

#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <utility>

// The requests a service takes per mailbox within a sliding window (Exchange
// Online's Graph limit: 10 000 per 10 minutes per application and mailbox),
// counted for every client of the process together, so that concurrent
// exports, siblings and jobs of one mailbox share one budget. The window is
// kept in 60 slices: a request counts until the slice it was made in has left
// the window, which errs on the side of waiting. Thread-safe.
class EWS_Request_Budget
{
public:
  EWS_Request_Budget(int max_requests, int window_seconds);

  // Takes one request of `mailbox` at `now_ms` (a steady clock): 0 when it may
  // go now (and it is counted), else the milliseconds until one may (it is not).
  long take(const std::string& mailbox, long long now_ms);

  // The budget of `transport`'s service, shared by the whole process, made with
  // these limits on first use.
  static EWS_Request_Budget& of(const std::string& transport, int max_requests, int window_seconds);

  static const int slices = 60;

private:
  int max_requests_;
  long long slice_ms_;
  std::mutex lock_;
  // Per mailbox (lower case): (slice number, requests made in it), oldest first.
  std::map<std::string, std::deque<std::pair<long long, int>>> used_;
  long long last_sweep_ = 0;
};

#endif
