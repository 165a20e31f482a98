#include "host/ews/ews_request_budget.h"

#include <algorithm>
#include <cctype>
#include <memory>

EWS_Request_Budget::EWS_Request_Budget(int max_requests, int window_seconds)
  : max_requests_(std::max(1, max_requests)),
    slice_ms_(std::max<long long>(1, static_cast<long long>(std::max(1, window_seconds)) * 1000 / slices))
{
}

long EWS_Request_Budget::take(const std::string& mailbox, long long now_ms)
{
  std::string key = mailbox;
  for (char& c : key)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  const long long slice = now_ms / slice_ms_;
  std::lock_guard<std::mutex> guard(lock_);
  // Now and then, mailboxes no longer in use are forgotten.
  if (slice - last_sweep_ >= slices)
  {
    last_sweep_ = slice;
    for (auto it = used_.begin(); it != used_.end();)
      it = !it->second.empty() && it->second.back().first > slice - slices ? std::next(it) : used_.erase(it);
  }
  std::deque<std::pair<long long, int>>& used = used_[key];
  while (!used.empty() && used.front().first <= slice - slices)
    used.pop_front();
  long long total = 0;
  for (const auto& s : used)
    total += s.second;
  if (total >= max_requests_)
    return static_cast<long>(std::max<long long>(1, (used.front().first + slices) * slice_ms_ - now_ms));
  if (used.empty() || used.back().first != slice)
    used.emplace_back(slice, 0);
  ++used.back().second;
  return 0;
}

EWS_Request_Budget& EWS_Request_Budget::of(const std::string& transport, int max_requests, int window_seconds)
{
  static std::mutex lock;
  static std::map<std::string, std::unique_ptr<EWS_Request_Budget>> budgets;
  std::lock_guard<std::mutex> guard(lock);
  std::unique_ptr<EWS_Request_Budget>& b = budgets[transport];
  if (!b)
    b.reset(new EWS_Request_Budget(max_requests, window_seconds));
  return *b;
}
