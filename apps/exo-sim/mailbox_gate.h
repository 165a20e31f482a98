#pragma once
// Counts the Graph requests in flight per mailbox, as Outlook's per-mailbox concurrency limit does,
// and remembers the highest count each mailbox reached. Thread-safe.
#include <map>
#include <mutex>
#include <string>

namespace exo_sim
{

class Mailbox_Gate
{
public:
  // Admits one more request for `mailbox` unless `limit` (> 0) are already in flight; 0 = no
  // limit. On admission `in_flight` is the count including this request. Every true must be
  // paired with leave().
  bool enter(const std::string& mailbox, int limit, int& in_flight);
  void leave(const std::string& mailbox);

private:
  std::mutex mutex_;
  std::map<std::string, int> in_flight_;
};

}  // namespace exo_sim
