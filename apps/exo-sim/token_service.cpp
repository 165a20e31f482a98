#include "apps/exo-sim/token_service.h"

#include <ctime>
#include <random>

#include <nlohmann/json.hpp>

#include "apps/exo-sim/ascii_case.h"
#include "apps/exo-sim/base64_codec.h"
#include "apps/exo-sim/sim_hash.h"

namespace exo_sim
{

namespace
{

int hex_value(char c)
{
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  return -1;
}

std::string random_guid(std::mt19937_64& rng)
{
  uint64_t a = rng(), b = rng();
  char buf[40];
  std::snprintf(buf, sizeof buf, "%08x-%04x-%04x-%04x-%012llx", unsigned(a >> 32), unsigned((a >> 16) & 0xffff),
                unsigned(a & 0xffff), unsigned(b >> 48), static_cast<unsigned long long>(b & 0xffffffffffffULL));
  return buf;
}

}  // namespace

std::string url_decode(const std::string& text, bool plus_is_space)
{
  std::string out;
  for (size_t i = 0; i < text.size(); ++i)
  {
    char c = text[i];
    if (c == '+' && plus_is_space)
    {
      out += ' ';
    }
    else if (c == '%' && i + 2 < text.size() && hex_value(text[i + 1]) >= 0 && hex_value(text[i + 2]) >= 0)
    {
      out += char(hex_value(text[i + 1]) * 16 + hex_value(text[i + 2]));
      i += 2;
    }
    else
    {
      out += c;
    }
  }
  return out;
}

std::map<std::string, std::string> parse_form(const std::string& body)
{
  std::map<std::string, std::string> out;
  size_t pos = 0;
  while (pos <= body.size())
  {
    size_t amp = body.find('&', pos);
    std::string pair = body.substr(pos, amp == std::string::npos ? std::string::npos : amp - pos);
    if (!pair.empty())
    {
      size_t eq = pair.find('=');
      std::string key = url_decode(pair.substr(0, eq), true);
      std::string value = eq == std::string::npos ? "" : url_decode(pair.substr(eq + 1), true);
      out.emplace(key, value);
    }
    if (amp == std::string::npos)
      break;
    pos = amp + 1;
  }
  return out;
}

Token_Service::Token_Service(const Tenant_Config& tenant, int lifetime_seconds)
  : tenant_(tenant), lifetime_(lifetime_seconds)
{
}

void Token_Service::set_own_bases(const std::vector<std::string>& bases)
{
  std::lock_guard<std::mutex> lock(mutex_);
  own_bases_ = bases;
}

void Token_Service::set_tenant(const Tenant_Config& tenant)
{
  std::lock_guard<std::mutex> lock(mutex_);
  tenant_ = tenant;
}

Sim_Reply Token_Service::error(int status, const std::string& code, int aadsts, const std::string& text) const
{
  thread_local std::mt19937_64 rng(std::random_device{}());
  std::string trace = random_guid(rng);
  std::string correlation = random_guid(rng);
  char when[32];
  std::time_t now = std::time(nullptr);
  std::tm tm{};
  gmtime_r(&now, &tm);
  std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%SZ", &tm);
  nlohmann::ordered_json j;
  j["error"] = code;
  j["error_description"] = "AADSTS" + std::to_string(aadsts) + ": " + text + " Trace ID: " + trace +
                           " Correlation ID: " + correlation + " Timestamp: " + when;
  j["error_codes"] = {aadsts};
  j["timestamp"] = when;
  j["trace_id"] = trace;
  j["correlation_id"] = correlation;
  j["error_uri"] = "https://login.microsoftonline.com/error?code=" + std::to_string(aadsts);
  Sim_Reply r;
  r.status = status;
  r.body = j.dump();
  r.code = code;
  return r;
}

int Token_Service::audience_of_scope(const std::string& scope) const
{
  const std::string suffix = "/.default";
  if (scope.find(' ') != std::string::npos || scope.size() <= suffix.size() ||
      scope.compare(scope.size() - suffix.size(), suffix.size(), suffix) != 0)
    return 0;
  std::string resource = ascii_lower(scope.substr(0, scope.size() - suffix.size()));
  if (resource == "https://graph.microsoft.com" || resource == "00000003-0000-0000-c000-000000000000")
    return k_audience_graph;
  if (resource == "https://outlook.office365.com" || resource == "https://outlook.office.com" ||
      resource == "00000002-0000-0ff1-ce00-000000000000")
    return k_audience_ews;
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& base : own_bases_)
    if (resource == ascii_lower(base) || resource == ascii_lower(base) + "/")
      return k_audience_graph | k_audience_ews;
  return 0;
}

std::string Token_Service::new_token()
{
  thread_local std::mt19937_64 rng(std::random_device{}());
  std::string raw;
  for (int k = 0; k < 5; ++k)
  {
    uint64_t v = rng();
    raw.append(reinterpret_cast<const char*>(&v), sizeof v);
  }
  std::string token = base64_encode(raw);
  for (auto& c : token)
  {  // base64url, no padding
    if (c == '+')
      c = '-';
    if (c == '/')
      c = '_';
  }
  while (!token.empty() && token.back() == '=')
    token.pop_back();
  return token;
}

Sim_Reply Token_Service::issue(const std::string& tenant, const std::string& form_body,
                               const std::string& authorization)
{
  Tenant_Config tenant_config;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    tenant_config = tenant_;
  }
  auto form = parse_form(form_body);
  std::string client_id = form["client_id"];
  std::string secret = form["client_secret"];
  // HTTP basic client authentication (client_id:client_secret, each form-encoded).
  if (authorization.compare(0, 6, "Basic ") == 0)
  {
    std::string pair;
    if (base64_decode(authorization.substr(6), pair))
    {
      auto colon = pair.find(':');
      if (colon != std::string::npos)
      {
        client_id = url_decode(pair.substr(0, colon), true);
        secret = url_decode(pair.substr(colon + 1), true);
      }
    }
  }
  if (ascii_lower(tenant) != ascii_lower(tenant_config.tenant_id) &&
      ascii_lower(tenant) != ascii_lower(tenant_config.domain))
    return error(400, "invalid_request", 90002,
                 "Tenant '" + tenant +
                   "' not found. Check to make sure you have the correct tenant ID and are "
                   "signing into the correct cloud.");
  if (form["grant_type"] != "client_credentials")
    return error(400, "unsupported_grant_type", 70003,
                 "The app requested an unsupported grant type '" + form["grant_type"] + "'.");
  const Registration* reg = nullptr;
  for (const auto& r : tenant_config.registrations)
    if (ascii_lower(r.client_id) == ascii_lower(client_id))
      reg = &r;
  if (!reg)
    return error(400, "unauthorized_client", 700016,
                 "Application with identifier '" + client_id + "' was not found in the directory '" + tenant + "'.");
  if (secret.empty())
    return error(401, "invalid_client", 7000218,
                 "The request body must contain the following parameter: 'client_assertion' or 'client_secret'.");
  if (secret != reg->client_secret)
    return error(401, "invalid_client", 7000215,
                 "Invalid client secret provided. Ensure the secret being sent in the request is the client secret "
                 "value, not the client secret ID, for a secret added to app '" +
                   reg->client_id + "'.");
  int audience = audience_of_scope(form["scope"]);
  if (audience == 0)
    return error(400, "invalid_scope", 1002012,
                 "The provided value for scope " + form["scope"] +
                   " is not valid. Client credential flows must have "
                   "a scope value with /.default suffixed to the resource identifier (application ID URI).");
  std::string token = new_token();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto now = std::chrono::steady_clock::now();
    for (auto it = tokens_.begin(); it != tokens_.end();)
      it = it->second.expires < now ? tokens_.erase(it) : std::next(it);
    tokens_[token] = Grant{audience, now + std::chrono::seconds(lifetime_)};
  }
  nlohmann::ordered_json j;
  j["token_type"] = "Bearer";
  j["expires_in"] = lifetime_;
  j["ext_expires_in"] = lifetime_;
  j["access_token"] = token;
  Sim_Reply r;
  r.body = j.dump();
  return r;
}

bool Token_Service::check(const std::string& authorization, int audience, std::string& reason)
{
  if (authorization.compare(0, 7, "Bearer ") != 0)
  {
    reason = "Access token is empty.";
    return false;
  }
  std::string token = authorization.substr(7);
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = tokens_.find(token);
  if (it == tokens_.end())
  {
    reason = "Invalid access token.";
    return false;
  }
  if (it->second.expires < std::chrono::steady_clock::now())
  {
    reason = "Lifetime validation failed, the token is expired.";
    return false;
  }
  if ((it->second.audience & audience) == 0)
  {
    reason = "Invalid audience.";
    return false;
  }
  return true;
}

}  // namespace exo_sim
