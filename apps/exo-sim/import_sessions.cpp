#include "apps/exo-sim/import_sessions.h"

#include <ctime>

#include "apps/exo-sim/graph_ids.h"

namespace exo_sim
{

Import_Sessions::Import_Sessions(int lifetime_seconds) : lifetime_(lifetime_seconds), rng_(std::random_device{}()) {}

std::string Import_Sessions::create(int mailbox, std::string& expiration)
{
  auto now = std::chrono::steady_clock::now();
  auto wall = std::chrono::system_clock::now() + std::chrono::seconds(lifetime_);
  std::time_t t = std::chrono::system_clock::to_time_t(wall);
  long ticks =
    long(std::chrono::duration_cast<std::chrono::microseconds>(wall.time_since_epoch()).count() % 1000000) * 10;
  std::tm tm{};
  gmtime_r(&t, &tm);
  char when[48];
  size_t n = std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%S", &tm);
  std::snprintf(when + n, sizeof when - n, ".%07ldZ", ticks);
  expiration = when;

  std::lock_guard<std::mutex> lock(mutex_);
  // Sessions expired an hour ago are forgotten; until then a use is answered as expired.
  for (auto it = sessions_.begin(); it != sessions_.end();)
    it = it->second.expires + std::chrono::hours(1) <= now ? sessions_.erase(it) : std::next(it);
  std::string raw;
  for (int k = 0; k < 36; ++k)
    raw += char(rng_() & 0xff);
  std::string token = base64url_encode(raw);
  sessions_[token] = Session{mailbox, now + std::chrono::seconds(lifetime_)};
  return token;
}

Session_Check Import_Sessions::check(const std::string& token, int mailbox)
{
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = sessions_.find(token);
  if (it == sessions_.end())
    return Session_Check::unknown;
  if (it->second.expires <= std::chrono::steady_clock::now())
    return Session_Check::expired;
  return it->second.mailbox == mailbox ? Session_Check::ok : Session_Check::other_mailbox;
}

}  // namespace exo_sim
