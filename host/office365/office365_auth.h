#ifndef HOST_OFFICE365_OFFICE365_AUTH_H
#define HOST_OFFICE365_OFFICE365_AUTH_H

#include "host/office365/office365_auth_entry.h"

#include <cstdint>
#include <mutex>
#include <string>

// A tenant registration with one token scope and its cached bearer token.
// Thread-safe: any number of threads may share one object. A token is reused
// until it comes within renew_margin() of its expiry, then fetched anew.
class Office365_Auth
{
public:
  Office365_Auth(const Office365_Auth_Entry& entry, const std::string& scope);
  // `login_endpoint` overrides the entry's ms_login_endpoint when not empty.
  Office365_Auth(const std::string& login_endpoint, const Office365_Auth_Entry& entry, const std::string& scope);

  // A valid token, from the cache or freshly requested. False (logged) when none
  // can be obtained; last_error() then holds the service's reason.
  bool get_token(std::string& token);
  // Drops the cached token (after the service refused it), so the next
  // get_token() asks for a new one.
  void invalidate();

  const Office365_Auth_Entry& get() const { return entry_; }
  const std::string& scope() const { return scope_; }
  std::string last_error() const;
  // Token requests made so far (for diagnostics and tests).
  unsigned requests() const;

  // Seconds before expiry at which a token is renewed: five minutes, or half the
  // lifetime of tokens shorter than ten minutes.
  static int64_t renew_margin(long lifetime);

private:
  mutable std::mutex lock_;
  Office365_Auth_Entry entry_;
  std::string scope_;
  std::string token_;
  int64_t expired_at_ = 0;  // when the cached token stops being used (monotonic seconds)
  std::string last_error_;
  unsigned requests_ = 0;
};

#endif
