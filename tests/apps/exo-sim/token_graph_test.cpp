// Token endpoint and Microsoft Graph /v1.0/users, driven over HTTP with libcurl.
#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <thread>

#include <curl/curl.h>

#include "sim_harness.h"

using namespace exo_sim_test;
using json = nlohmann::ordered_json;

namespace
{

std::string form(const std::string& client, const std::string& secret, const std::string& scope,
                 const std::string& grant = "client_credentials")
{
  char* enc = curl_easy_escape(nullptr, scope.c_str(), int(scope.size()));
  std::string f = "client_id=" + client + "&client_secret=" + secret + "&grant_type=" + grant + "&scope=" + enc;
  curl_free(enc);
  return f;
}

void expect_token_error(const Http_Result& r, long status, const std::string& error, int code)
{
  EXPECT_EQ(r.status, status) << r.body;
  auto j = json::parse(r.body, nullptr, false);
  ASSERT_FALSE(j.is_discarded()) << r.body;
  EXPECT_EQ(j["error"], error);
  ASSERT_TRUE(j["error_description"].is_string());
  EXPECT_EQ(j["error_description"].get<std::string>().rfind("AADSTS" + std::to_string(code) + ":", 0), 0u);
  ASSERT_TRUE(j["error_codes"].is_array());
  EXPECT_EQ(j["error_codes"][0], code);
  for (const char* key : {"timestamp", "trace_id", "correlation_id"})
    EXPECT_TRUE(j[key].is_string()) << key;
}

exo_sim::Sim_Options eight_mailboxes()
{
  exo_sim::Sim_Options o = tiny_options();
  o.profile.mailboxes = 8;
  return o;
}

}  // namespace

TEST(ExoSimToken, IssuesDocumentedSuccessShape)
{
  Sim_Fixture sim;
  Http_Result r = sim.token_request(form(k_client_id, k_client_secret, k_ews_scope));
  ASSERT_EQ(r.status, 200) << r.body;
  EXPECT_NE(r.header("Content-Type").find("application/json"), std::string::npos);
  auto j = json::parse(r.body);
  EXPECT_EQ(j["token_type"], "Bearer");
  ASSERT_TRUE(j["expires_in"].is_number_integer());
  EXPECT_EQ(j["expires_in"], 3599);
  ASSERT_TRUE(j["access_token"].is_string());
  EXPECT_GE(j["access_token"].get<std::string>().size(), 32u);
  EXPECT_FALSE(j.contains("refresh_token"));
  // Two requests give two different opaque tokens.
  EXPECT_NE(json::parse(sim.token_request(form(k_client_id, k_client_secret, k_ews_scope)).body)["access_token"],
            j["access_token"]);
}

TEST(ExoSimToken, AcceptsTenantDomainAndBasicClientAuthentication)
{
  Sim_Fixture sim;
  EXPECT_EQ(sim.token_request(form(k_client_id, k_client_secret, k_graph_scope), "demo.exosim.test").status, 200);
  std::string creds = std::string(k_client_id) + ":" + k_client_secret;
  std::string b64;
  {
    static const char a[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    size_t i = 0;
    for (; i + 2 < creds.size(); i += 3)
    {
      unsigned v = (unsigned(uint8_t(creds[i])) << 16) | (unsigned(uint8_t(creds[i + 1])) << 8) | uint8_t(creds[i + 2]);
      b64 += a[v >> 18];
      b64 += a[(v >> 12) & 63];
      b64 += a[(v >> 6) & 63];
      b64 += a[v & 63];
    }
    ASSERT_EQ(creds.size() % 3, 2u);  // "<36-char id>:<19-char secret>" = 56 bytes
    unsigned v = (unsigned(uint8_t(creds[i])) << 16) | (unsigned(uint8_t(creds[i + 1])) << 8);
    b64 += a[v >> 18];
    b64 += a[(v >> 12) & 63];
    b64 += a[(v >> 6) & 63];
    b64 += '=';
  }
  Http_Result r = http_request("POST", sim.base() + "/" + k_tenant_id + "/oauth2/v2.0/token",
                               "grant_type=client_credentials&scope=https%3A%2F%2Fgraph.microsoft.com%2F.default",
                               {"Authorization: Basic " + b64, "Content-Type: application/x-www-form-urlencoded"});
  EXPECT_EQ(r.status, 200) << r.body;
}

TEST(ExoSimToken, RefusesBadRequestsWithDocumentedErrors)
{
  Sim_Fixture sim;
  expect_token_error(sim.token_request(form(k_client_id, k_client_secret, k_ews_scope), "no-such-tenant"), 400,
                     "invalid_request", 90002);
  expect_token_error(sim.token_request(form("11111111-2222-3333-4444-555555555555", k_client_secret, k_ews_scope)), 400,
                     "unauthorized_client", 700016);
  Http_Result wrong = sim.token_request(form(k_client_id, "WrongSecretValue42", k_ews_scope));
  expect_token_error(wrong, 401, "invalid_client", 7000215);
  EXPECT_EQ(wrong.body.find("WrongSecretValue42"), std::string::npos) << "a secret must never be echoed";
  expect_token_error(sim.token_request(form(k_client_id, "", k_ews_scope)), 401, "invalid_client", 7000218);
  expect_token_error(sim.token_request(form(k_client_id, k_client_secret, k_ews_scope, "password")), 400,
                     "unsupported_grant_type", 70003);
  expect_token_error(sim.token_request(form(k_client_id, k_client_secret, "https://graph.microsoft.com/User.Read.All")),
                     400, "invalid_scope", 1002012);
  expect_token_error(
    sim.token_request(form(k_client_id, k_client_secret, std::string(k_graph_scope) + " " + k_ews_scope)), 400,
    "invalid_scope", 1002012);
}

TEST(ExoSimToken, TokensCarryTheirAudience)
{
  Sim_Fixture sim;
  std::string graph = sim.token(k_graph_scope);
  std::string ews = sim.token(k_ews_scope);
  Http_Result g_on_ews = sim.ews(find_folder_body(distinguished("msgfolderroot")), k_admin, graph);
  EXPECT_EQ(g_on_ews.status, 401);
  EXPECT_NE(g_on_ews.header("WWW-Authenticate").find("Bearer"), std::string::npos);
  Http_Result e_on_graph = sim.graph_users("", true, ews);
  EXPECT_EQ(e_on_graph.status, 401);
  EXPECT_EQ(json::parse(e_on_graph.body)["error"]["code"], "InvalidAuthenticationToken");
  // A scope derived from the simulator's own URL serves both services.
  std::string own = sim.token(sim.base() + "/.default");
  EXPECT_EQ(sim.graph_users("", true, own).status, 200);
  EXPECT_EQ(sim.ews(find_folder_body(distinguished("msgfolderroot")), k_admin, own).status, 200);
  EXPECT_EQ(sim.graph_users("", true, "not-a-token").status, 401);
}

TEST(ExoSimToken, TokensExpireAfterTheirLifetime)
{
  exo_sim::Sim_Options o = tiny_options();
  o.token_lifetime = 1;
  Sim_Fixture sim(o);
  Http_Result r = sim.token_request(form(k_client_id, k_client_secret, k_graph_scope));
  EXPECT_EQ(json::parse(r.body)["expires_in"], 1);
  std::string token = json::parse(r.body)["access_token"];
  EXPECT_EQ(sim.graph_users("", true, token).status, 200);
  std::this_thread::sleep_for(std::chrono::milliseconds(2100));
  Http_Result expired = sim.graph_users("", true, token);
  EXPECT_EQ(expired.status, 401);
  EXPECT_NE(json::parse(expired.body)["error"]["message"].get<std::string>().find("expired"), std::string::npos);
}

TEST(ExoSimGraph, PagesThroughUsersWithNextLinkAndCount)
{
  Sim_Fixture sim(eight_mailboxes());
  std::string query = "$select=userPrincipalName&$orderBy=userPrincipalName&$count=true&$top=3";
  Http_Result r = sim.graph_users(query);
  ASSERT_EQ(r.status, 200) << r.body;
  auto j = json::parse(r.body);
  EXPECT_EQ(j["@odata.context"], "https://graph.microsoft.com/v1.0/$metadata#users(userPrincipalName)");
  EXPECT_EQ(j["@odata.count"], 8);
  std::vector<std::string> names;
  int pages = 0;
  while (true)
  {
    ++pages;
    ASSERT_TRUE(j["value"].is_array());
    for (const auto& u : j["value"])
    {
      ASSERT_EQ(u.size(), 1u) << "only the selected property";
      names.push_back(u["userPrincipalName"]);
    }
    if (!j.contains("@odata.nextLink"))
      break;
    std::string link = j["@odata.nextLink"];
    ASSERT_EQ(link.rfind(sim.base() + "/v1.0/users?", 0), 0u) << link;
    ASSERT_NE(link.find("$skiptoken="), std::string::npos);
    ASSERT_NE(link.find("$top=3"), std::string::npos) << "original options are carried";
    r = http_request("GET", link, "",
                     {"Authorization: Bearer " + sim.token(k_graph_scope), "ConsistencyLevel: eventual"});
    ASSERT_EQ(r.status, 200) << r.body;
    j = json::parse(r.body);
    EXPECT_FALSE(j.contains("@odata.count")) << "count only on the first page";
  }
  EXPECT_EQ(pages, 3);
  ASSERT_EQ(names.size(), 8u);
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), 8u);
  EXPECT_EQ(names[0], "admin@demo.exosim.test");
}

TEST(ExoSimGraph, DefaultPropertiesAndCountNeedsConsistencyHeader)
{
  Sim_Fixture sim;
  Http_Result r = sim.graph_users("$count=true", false);
  ASSERT_EQ(r.status, 200);
  auto j = json::parse(r.body);
  EXPECT_FALSE(j.contains("@odata.count"));
  EXPECT_FALSE(j.contains("@odata.nextLink"));
  ASSERT_EQ(j["value"].size(), 2u);
  for (const char* key : {"businessPhones", "displayName", "givenName", "id", "jobTitle", "mail", "mobilePhone",
                          "officeLocation", "preferredLanguage", "surname", "userPrincipalName"})
    EXPECT_TRUE(j["value"][0].contains(key)) << key;
}

TEST(ExoSimGraph, SearchRequiresEventualConsistencyAndFilters)
{
  Sim_Fixture sim(eight_mailboxes());
  Http_Result r = sim.graph_users("$search=%22userPrincipalName:chloe%22", false);
  EXPECT_EQ(r.status, 400);
  EXPECT_EQ(json::parse(r.body)["error"]["code"], "Request_UnsupportedQuery");
  r = sim.graph_users("$select=userPrincipalName&$search=%22userPrincipalName:chloe%22&$count=true");
  ASSERT_EQ(r.status, 200) << r.body;
  auto j = json::parse(r.body);
  ASSERT_EQ(j["value"].size(), 1u);
  EXPECT_EQ(j["value"][0]["userPrincipalName"], "chloe.chen@demo.exosim.test");
  EXPECT_EQ(j["@odata.count"], 1);
  // Token prefix: "chen" starts the second token of chloe.chen.
  j = json::parse(sim.graph_users("$search=%22userPrincipalName:chen%22").body);
  EXPECT_EQ(j["value"].size(), 1u);
  j = json::parse(sim.graph_users("$search=%22userPrincipalName:nobody%22").body);
  EXPECT_EQ(j["value"].size(), 0u);
}

TEST(ExoSimGraph, RejectsBadQueryOptions)
{
  Sim_Fixture sim;
  for (const char* q :
       {"$top=0", "$top=1000", "$top=abc", "$select=noSuchProperty", "$orderby=jobTitle", "$skiptoken=garbage"})
  {
    Http_Result r = sim.graph_users(q);
    EXPECT_EQ(r.status, 400) << q;
    auto j = json::parse(r.body, nullptr, false);
    ASSERT_FALSE(j.is_discarded()) << q;
    EXPECT_TRUE(j["error"]["code"].is_string()) << q;
    EXPECT_TRUE(j["error"]["innerError"]["request-id"].is_string()) << q;
  }
  EXPECT_EQ(sim.graph_users("$top=999").status, 200);
  Http_Result none = http_request("GET", sim.base() + "/v1.0/users", "", {});
  EXPECT_EQ(none.status, 401);
  EXPECT_EQ(json::parse(none.body)["error"]["code"], "InvalidAuthenticationToken");
}
