#pragma once
// The identity platform's client-credentials token endpoint for the simulated tenant, and the
// bearer-token check the Graph and EWS services use. Tokens are opaque random strings remembered
// with their audience and expiry. Thread-safe.
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "apps/exo-sim/sim_options.h"
#include "apps/exo-sim/sim_reply.h"

namespace exo_sim
{

enum Token_Audience
{
  k_audience_graph = 1,
  k_audience_ews = 2
};

class Token_Service
{
public:
  Token_Service(const Tenant_Config& tenant, int lifetime_seconds);

  // Base URLs of this simulator ("http://127.0.0.1:PORT"); a scope naming one of them gets both
  // audiences, because Graph and EWS share the simulator's URL.
  void set_own_bases(const std::vector<std::string>& bases);
  // Replaces the tenant registrations (after a state directory was loaded).
  void set_tenant(const Tenant_Config& tenant);

  // POST /{tenant}/oauth2/v2.0/token with a form-encoded body.
  Sim_Reply issue(const std::string& tenant, const std::string& form_body, const std::string& authorization);

  // True when `authorization` is "Bearer <token>" for a live token with `audience`; otherwise
  // `reason` says why (never containing the token).
  bool check(const std::string& authorization, int audience, std::string& reason);

private:
  struct Grant
  {
    int audience = 0;
    std::chrono::steady_clock::time_point expires;
  };

  Sim_Reply error(int status, const std::string& code, int aadsts, const std::string& text) const;
  int audience_of_scope(const std::string& scope) const;
  std::string new_token();

  Tenant_Config tenant_;
  int lifetime_;
  mutable std::mutex mutex_;
  std::vector<std::string> own_bases_;
  std::map<std::string, Grant> tokens_;
  unsigned long long counter_ = 0;
};

// Decodes an application/x-www-form-urlencoded body ("+" is a space).
std::map<std::string, std::string> parse_form(const std::string& body);
std::string url_decode(const std::string& text, bool plus_is_space);

}  // namespace exo_sim
