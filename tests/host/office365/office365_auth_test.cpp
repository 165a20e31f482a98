#include "support/exo_sim_process.h"
#include "support/log_capture.h"
#include "support/loopback_server.h"
#include "host/office365/office365_auth.h"
#include "host/office365/office365_token.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <nlohmann/json.hpp>

namespace
{
const char* const graph_scope = "https://graph.microsoft.com/.default";

nlohmann::ordered_json entry_json()
{
  return nlohmann::ordered_json{{"ms_login_endpoint", "https://login.microsoftonline.com"},
                                {"ms_graph_endpoint", "https://graph.microsoft.com"},
                                {"ews_endpoint", "https://outlook.office365.com/EWS/Exchange.asmx"},
                                {"tenant_email", "admin@contoso.test"},
                                {"tenant_id", "tid"},
                                {"client_id", "cid"},
                                {"client_secret", "s3cret"}};
}
}  // namespace

TEST(Office365AuthEntry, LoadsEveryFieldAndRejectsMissingOrMistypedOnes)
{
  Office365_Auth_Entry entry;
  ASSERT_TRUE(entry.load(entry_json()));
  EXPECT_EQ(entry.ms_login_endpoint, "https://login.microsoftonline.com");
  EXPECT_EQ(entry.ews_endpoint, "https://outlook.office365.com/EWS/Exchange.asmx");
  EXPECT_EQ(entry.tenant_email, "admin@contoso.test");
  EXPECT_EQ(entry.client_secret, "s3cret");
  EXPECT_EQ(entry.to_json(false).count("client_secret"), 0u);
  auto written = entry_json();
  written["transport"] = "ews";  // the default, written out
  EXPECT_EQ(entry.to_json(true), written);

  for (const char* key : {"ms_login_endpoint", "ms_graph_endpoint", "ews_endpoint", "tenant_email", "tenant_id",
                          "client_id", "client_secret"})
  {
    Office365_Auth_Entry other;
    other.tenant_id = "untouched";
    auto missing = entry_json();
    missing.erase(key);
    EXPECT_FALSE(other.load(missing)) << key;
    auto mistyped = entry_json();
    mistyped[key] = 5;
    EXPECT_FALSE(other.load(mistyped)) << key;
    EXPECT_EQ(other.tenant_id, "untouched");
  }
  EXPECT_FALSE(entry.load(nlohmann::ordered_json::array()));
}

TEST(Office365Token, GetsATokenAndReportsTheServiceReasonOnFailure)
{
  Exo_Sim_Process sim;
  std::string token, error;
  long expires = 0;
  ASSERT_TRUE(get_office365_token(sim.entry(), graph_scope, token, expires, error)) << error;
  EXPECT_FALSE(token.empty());
  EXPECT_EQ(expires, 3599);

  Office365_Auth_Entry wrong = sim.entry();
  wrong.client_secret = "not-the-secret";
  EXPECT_FALSE(get_office365_token(wrong, graph_scope, token, expires, error));
  EXPECT_NE(error.find("AADSTS7000215"), std::string::npos) << error;

  Office365_Auth_Entry unknown = sim.entry();
  unknown.tenant_id = "00000000-0000-0000-0000-000000000000";
  EXPECT_FALSE(get_office365_token(unknown, graph_scope, token, expires, error));
  EXPECT_NE(error.find("AADSTS90002"), std::string::npos) << error;

  EXPECT_FALSE(get_office365_token(sim.entry(), "https://graph.microsoft.com/User.Read", token, expires, error));
  EXPECT_NE(error.find("AADSTS1002012"), std::string::npos) << error;

  Office365_Auth_Entry bad = sim.entry();
  bad.ms_login_endpoint = "not a url";
  EXPECT_FALSE(get_office365_token(bad, graph_scope, token, expires, error));
}

TEST(Office365Auth, CachesTheTokenAndRenewsItAheadOfExpiry)
{
  EXPECT_EQ(Office365_Auth::renew_margin(3599), 300);
  EXPECT_EQ(Office365_Auth::renew_margin(2), 1);

  Exo_Sim_Process sim({"--token-lifetime", "2"});
  Office365_Auth auth(sim.entry(), graph_scope);
  std::string first, second, third;
  ASSERT_TRUE(auth.get_token(first));
  ASSERT_TRUE(auth.get_token(second));
  EXPECT_EQ(first, second);
  EXPECT_EQ(auth.requests(), 1u);
  EXPECT_EQ(sim.status()["tokens_issued"], 1);

  // Lifetime 2 s, renewed 1 s ahead of expiry.
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  ASSERT_TRUE(auth.get_token(third));
  EXPECT_NE(third, first);
  EXPECT_EQ(auth.requests(), 2u);

  auth.invalidate();
  ASSERT_TRUE(auth.get_token(third));
  EXPECT_EQ(auth.requests(), 3u);
  EXPECT_EQ(sim.status()["tokens_issued"], 3);
}

TEST(Office365Auth, SharedBetweenThreadsAsksOnce)
{
  Exo_Sim_Process sim;
  Office365_Auth auth("", sim.entry(), graph_scope);
  std::vector<std::thread> threads;
  std::vector<std::string> tokens(6);
  for (size_t i = 0; i < tokens.size(); ++i)
    threads.emplace_back([&, i] { auth.get_token(tokens[i]); });
  for (auto& t : threads)
    t.join();
  for (const std::string& t : tokens)
    EXPECT_EQ(t, tokens[0]);
  EXPECT_FALSE(tokens[0].empty());
  EXPECT_EQ(auth.requests(), 1u);
}

TEST(Office365Auth, FailureKeepsTheReasonAndLogsNoSecret)
{
  Exo_Sim_Process sim;
  Office365_Auth_Entry wrong = sim.entry();
  wrong.client_secret = "wrong-secret-value";
  Log_Capture capture;
  Office365_Auth auth(wrong, graph_scope);
  std::string token;
  EXPECT_FALSE(auth.get_token(token));
  EXPECT_NE(auth.last_error().find("AADSTS7000215"), std::string::npos);
  EXPECT_TRUE(capture.contains("AADSTS7000215"));
  EXPECT_FALSE(capture.contains("wrong-secret-value"));
}

TEST(Office365Token, ReasonQuotingTheRequestHasTheSecretMasked)
{
  // A login endpoint (or a proxy in front of it) that quotes the request body back.
  Loopback_Server server;
  server.server().Post(R"(/[^/]+/oauth2/v2\.0/token)",
                       [](const httplib::Request& req, httplib::Response& res)
                       {
                         res.status = 400;
                         res.set_content(
                           nlohmann::ordered_json{{"error", "invalid_request"},
                                                  {"error_description", "Cannot read the request: " + req.body}}
                             .dump(),
                           "application/json");
                       });
  server.start();
  Office365_Auth_Entry entry;
  entry.ms_login_endpoint = server.url();
  entry.tenant_id = "tid";
  entry.client_id = "cid";
  entry.client_secret = "p@ss+w/rd=Q8";
  Log_Capture capture;
  std::string token, error;
  long expires = 0;
  EXPECT_FALSE(get_office365_token(entry, graph_scope, token, expires, error));
  EXPECT_NE(error.find("Cannot read the request: client_id=cid"), std::string::npos) << error;
  EXPECT_NE(error.find("client_secret=***"), std::string::npos) << error;
  EXPECT_EQ(error.find("w/rd"), std::string::npos) << error;
  EXPECT_EQ(error.find("rd%3DQ8"), std::string::npos) << error;
  EXPECT_TRUE(capture.contains("client_secret=***")) << capture.text();
  EXPECT_FALSE(capture.contains("rd%3DQ8"));
  EXPECT_FALSE(capture.contains("w/rd"));
}
