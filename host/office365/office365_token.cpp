#include "host/office365/office365_token.h"

#include "host/http/http_encoding.h"
#include "host/http/http_session_factory.h"
#include "host/http/json_restful_client.h"
#include "host/http/uri_parser.h"
#include "host/base/log.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace
{
void append_form_field(std::string& body, const char* key, const std::string& value)
{
  std::string encoded;
  http_encode_string_i(value.c_str(), HTTP_ENCODE_MODE_FORM, encoded);
  if (!body.empty())
    body += '&';
  body += key;
  body += '=';
  body += encoded;
}

std::string token_path(const URI& login, const std::string& tenant_id)
{
  std::string base = login.path();
  while (!base.empty() && base.back() == '/')
    base.pop_back();
  std::string tenant;
  http_encode_string_i(tenant_id.c_str(), HTTP_ENCODE_MODE_NAME, tenant);
  return base + "/" + tenant + "/oauth2/v2.0/token";
}

// The reason a failed answer gives: its "error_description", else its "error".
std::string service_reason(const JSON_RESTful_Client& client)
{
  const auto body = nlohmann::ordered_json::parse(client.last_body(), nullptr, false);
  if (body.is_object())
  {
    for (const char* key : {"error_description", "error"})
    {
      const auto it = body.find(key);
      if (it != body.end() && it->is_string())
        return it->get<std::string>();
    }
  }
  if (client.last_status() != 0)
    return "HTTP status " + std::to_string(client.last_status());
  return client.last_error();
}

// A reason is logged and shown: should a server quote the request back, the
// secret in it (as sent or form-encoded) is masked.
void mask_secret(std::string& text, const std::string& secret)
{
  if (secret.empty())
    return;
  std::string encoded;
  http_encode_string_i(secret.c_str(), HTTP_ENCODE_MODE_FORM, encoded);
  const std::string* const forms[] = {&secret, &encoded};
  for (const std::string* s : forms)
    for (size_t at = text.find(*s); at != std::string::npos; at = text.find(*s, at + 3))
      text.replace(at, s->size(), "***");
  std::fill(encoded.begin(), encoded.end(), '\0');
}

bool read_token(const nlohmann::ordered_json& answer, std::string& token, long& expires)
{
  const auto access = answer.find("access_token");
  const auto lifetime = answer.find("expires_in");
  if (access == answer.end() || !access->is_string() || access->get<std::string>().empty() || lifetime == answer.end())
    return false;
  if (lifetime->is_number_integer())
    expires = lifetime->get<long>();
  else if (lifetime->is_string())
    expires = std::strtol(lifetime->get<std::string>().c_str(), nullptr, 10);
  else
    return false;
  token = access->get<std::string>();
  return true;
}
}  // namespace

bool get_office365_token(const Office365_Auth_Entry& entry, const std::string& scope, std::string& token, long& expires,
                         std::string& error)
{
  URI login;
  if (!URI_Parser::parse(entry.ms_login_endpoint.c_str(), login))
  {
    error = "invalid login endpoint '" + entry.ms_login_endpoint + "'";
    LOG_MSG(LM_ERROR, "Failed to get Office365 token of tenant '%s': %s\n", entry.tenant_id.c_str(), error.c_str());
    return false;
  }
  if (entry.tenant_id.empty() || entry.client_id.empty() || entry.client_secret.empty())
  {
    error = "tenant id, client id and client secret are required";
    LOG_MSG(LM_ERROR, "Failed to get Office365 token of tenant '%s': %s\n", entry.tenant_id.c_str(), error.c_str());
    return false;
  }
  HTTP_Session_Ptr session = HTTP_Session_Factory::create(login.host(false), login.port(), login.is_ssl(), 30, 60);
  JSON_RESTful_Client client(true);
  client.reset(session);

  std::string body;
  append_form_field(body, "client_id", entry.client_id);
  append_form_field(body, "scope", scope);
  append_form_field(body, "client_secret", entry.client_secret);
  append_form_field(body, "grant_type", "client_credentials");

  HTTP_Request request(HTTP_METHOD_POST, token_path(login, entry.tenant_id).c_str(), false);
  nlohmann::ordered_json answer;
  const bool sent = client.post(request, body, "application/x-www-form-urlencoded", &answer);
  std::fill(body.begin(), body.end(), '\0');
  if (!sent)
  {
    error = service_reason(client);
    mask_secret(error, entry.client_secret);
    LOG_MSG(LM_ERROR, "Failed to get Office365 token of tenant '%s': %s\n", entry.tenant_id.c_str(), error.c_str());
    return false;
  }
  if (!read_token(answer, token, expires))
  {
    error = "the token answer has no access_token or expires_in";
    LOG_MSG(LM_ERROR, "Failed to get Office365 token of tenant '%s': %s\n", entry.tenant_id.c_str(), error.c_str());
    return false;
  }
  return true;
}
