#include "apps/exo-sim/mailbox_gate.h"

namespace exo_sim
{

bool Mailbox_Gate::enter(const std::string& mailbox, int limit, int& in_flight)
{
  std::lock_guard<std::mutex> lock(mutex_);
  int& n = in_flight_[mailbox];
  if (limit > 0 && n >= limit)
    return false;
  in_flight = ++n;
  return true;
}

void Mailbox_Gate::leave(const std::string& mailbox)
{
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = in_flight_.find(mailbox);
  if (it != in_flight_.end() && --it->second <= 0)
    in_flight_.erase(it);
}

}  // namespace exo_sim
