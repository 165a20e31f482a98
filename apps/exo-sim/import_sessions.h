#pragma once
// Import sessions of the Graph mailbox API (createImportSession): each is an opaque random token,
// carried as the importUrl's `authtoken` query parameter, bound to one mailbox and valid until it
// expires. Held in memory only: sessions do not survive a restart. Thread-safe.
#include <chrono>
#include <map>
#include <mutex>
#include <random>
#include <string>

namespace exo_sim
{

enum class Session_Check
{
  ok,
  unknown,  // not a token this simulator issued (forged, or from before a restart)
  expired,
  other_mailbox,  // issued for another mailbox than the URL names
};

class Import_Sessions
{
public:
  explicit Import_Sessions(int lifetime_seconds);

  // A new session for `mailbox`: its token, and its expiry as ISO 8601 UTC with 7 decimals.
  std::string create(int mailbox, std::string& expiration);
  Session_Check check(const std::string& token, int mailbox);

private:
  struct Session
  {
    int mailbox = -1;
    std::chrono::steady_clock::time_point expires;
  };

  int lifetime_;
  std::mutex mutex_;
  std::mt19937_64 rng_;
  std::map<std::string, Session> sessions_;
};

}  // namespace exo_sim
