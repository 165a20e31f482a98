#include "backup/exchange/core/office365/office365_console.h"

#include "support/exo_sim_process.h"
#include "host/http/http_query_string_iterator.h"
#include "support/scripted_server.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>
#include <nlohmann/json.hpp>

namespace
{
const std::string k_domain = "@demo.exosim.test";

// The decoded pairs of a query string or form body.
std::map<std::string, std::string> decode_pairs(const std::string& text)
{
  std::map<std::string, std::string> pairs;
  const HTTP_Query_String_Iterator end(nullptr);
  for (HTTP_Query_String_Iterator it(text.c_str()); it != end; ++it)
    pairs.insert(*it);
  return pairs;
}

// A token endpoint and a Graph endpoint on two loopback servers: the first hands
// out `token`, the second answers with the status and body set last. Both record
// what they were sent.
class Graph_Stub
{
public:
  explicit Graph_Stub(const std::string& token = "stub-token")
    : login_(
        [this, token](const Scripted_Request& r) {
          return reply(r, tokens_, 200, R"({"token_type":"Bearer","expires_in":3599,"access_token":")" + token + "\"}");
        }),
      graph_([this](const Scripted_Request& r) { return reply(r, users_, 0, std::string()); })
  {
  }

  void answer(const std::string& body, int status = 200)
  {
    std::lock_guard<std::mutex> guard(lock_);
    body_ = body;
    status_ = status;
  }

  Office365_Auth_Entry entry() const
  {
    Office365_Auth_Entry e;
    e.ms_login_endpoint = login_.url();
    e.ms_graph_endpoint = graph_.url();
    e.tenant_id = "tenant";
    e.client_id = "client";
    e.client_secret = "secret";
    return e;
  }

  std::vector<Scripted_Request> users() const { return copy(users_); }
  std::vector<Scripted_Request> tokens() const { return copy(tokens_); }
  std::string graph_url() const { return graph_.url(); }

private:
  // A zero status stands for the answer set last.
  Scripted_Reply reply(const Scripted_Request& request, std::vector<Scripted_Request>& log, int status,
                       const std::string& body)
  {
    std::lock_guard<std::mutex> guard(lock_);
    log.push_back(request);
    Scripted_Reply r;
    r.status = status ? status : status_;
    r.headers["Content-Type"] = "application/json";
    r.body = status ? body : body_;
    return r;
  }
  std::vector<Scripted_Request> copy(const std::vector<Scripted_Request>& v) const
  {
    std::lock_guard<std::mutex> guard(lock_);
    return v;
  }

  mutable std::mutex lock_;
  std::string body_ = R"({"value":[]})";
  int status_ = 200;
  std::vector<Scripted_Request> users_, tokens_;
  Scripted_Server login_, graph_;
};

struct Page
{
  bool ok = false;
  std::vector<std::string> names;
  int total = -1;
  std::string next = "untouched";
};

Page list_page(Office365_Console& console, const std::string* skip, int top, const std::string* search)
{
  Page page;
  page.ok = console.list_mailboxes(page.names, skip, top, page.total, page.next, search);
  return page;
}

// Lists every page of a search (null: none) with page size `top`.
bool list_all(Office365_Console& console, int top, const std::string* search, std::vector<std::string>& names,
              int& total, int& pages)
{
  std::string skip;
  pages = 0;
  total = -1;
  do
  {
    std::string next;
    int page_total = -1;
    const size_t before = names.size();
    if (!console.list_mailboxes(names, pages ? &skip : nullptr, top, page_total, next, search))
      return false;
    if (names.size() - before > static_cast<size_t>(top))
      return false;
    if (pages == 0)
      total = page_total;
    else if (page_total != -1)
      return false;  // the count comes with the first page only
    ++pages;
    skip = next;
  } while (!skip.empty() && pages < 100);
  return skip.empty();
}
}  // namespace

TEST(Office365ConsoleSim, PagesThroughEveryMailboxInAscendingOrder)
{
  Exo_Sim_Process sim({"--profile", "tiny", "--mailboxes", "230"});
  Office365_Console console(sim.entry());

  for (int top : {37, static_cast<int>(Office365_Console::O365_DEFAULT_PAGE_SIZE),
                  static_cast<int>(Office365_Console::O365_MAX_PAGE_SIZE)})
  {
    SCOPED_TRACE(top);
    std::vector<std::string> names;
    int total = 0, pages = 0;
    ASSERT_TRUE(list_all(console, top, nullptr, names, total, pages));
    EXPECT_EQ(total, 230);
    EXPECT_EQ(pages, (230 + top - 1) / top);
    ASSERT_EQ(names.size(), 230u) << "pages are appended, never cleared";
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), names.size());
    EXPECT_EQ(names.back(), "user0229" + k_domain);
  }

  // An empty skip token asks for the first page, like a null one.
  const std::string empty;
  const Page first = list_page(console, &empty, 37, &empty);
  ASSERT_TRUE(first.ok);
  EXPECT_EQ(first.total, 230);
  ASSERT_EQ(first.names.size(), 37u);
  EXPECT_EQ(first.names.front(), "admin" + k_domain);
}

TEST(Office365ConsoleSim, SearchesQuotedUserPrincipalNamesAndRejectsAZeroPageSize)
{
  Exo_Sim_Process sim({"--profile", "tiny", "--mailboxes", "230"});
  Office365_Console console(sim.entry());

  const std::string alice = "ALICE";
  const Page one = list_page(console, nullptr, 10, &alice);
  ASSERT_TRUE(one.ok);
  EXPECT_EQ(one.names, std::vector<std::string>{"alice.archer" + k_domain});
  EXPECT_EQ(one.total, 1);
  EXPECT_EQ(one.next, "untouched");

  // The search goes with every page: the simulator binds a skip token to its query.
  const std::string prefix = "user01";
  std::vector<std::string> names;
  int total = 0, pages = 0;
  ASSERT_TRUE(list_all(console, 30, &prefix, names, total, pages));
  EXPECT_EQ(total, 100);
  EXPECT_EQ(pages, 4);
  ASSERT_EQ(names.size(), 100u);
  EXPECT_EQ(names.front(), "user0100" + k_domain);
  EXPECT_EQ(names.back(), "user0199" + k_domain);

  // Quotes and ampersands stay inside the encoded search text, which the
  // service reads as one (unmatched) term rather than as broken query syntax.
  for (const std::string term : {"a&b", "al\"ice", "a=b;c", "#x+y%"})
  {
    const Page none = list_page(console, nullptr, 10, &term);
    EXPECT_TRUE(none.ok) << term;
    EXPECT_TRUE(none.names.empty()) << term;
    EXPECT_EQ(none.total, 0) << term;
  }

  // Graph takes page sizes 1 to 999; a zero is still sent and refused.
  Log_Capture log;
  const Page zero = list_page(console, nullptr, 0, nullptr);
  EXPECT_FALSE(zero.ok);
  EXPECT_EQ(log.count("Failed to list Office365 users.\n"), 1u);
  EXPECT_EQ(log.priority_of("Failed to list Office365 users."), static_cast<unsigned long>(LM_ERROR));
}

TEST(Office365ConsoleSim, TokenFailuresSendNoListingAndTestAuthGivesTheReason)
{
  Exo_Sim_Process sim;
  std::string error;
  EXPECT_TRUE(Office365_Console::test_auth(sim.entry(), error)) << error;

  Office365_Auth_Entry wrong = sim.entry();
  wrong.client_secret = "not-the-secret";
  EXPECT_FALSE(Office365_Console::test_auth(wrong, error));
  EXPECT_NE(error.find("AADSTS7000215"), std::string::npos) << error;

  sim.reset_counters();
  Log_Capture log;
  Office365_Console console(wrong);
  const Page page = list_page(console, nullptr, 10, nullptr);
  EXPECT_FALSE(page.ok);
  EXPECT_TRUE(page.names.empty());
  EXPECT_EQ(page.next, "untouched");
  EXPECT_EQ(sim.status()["calls"].value("users", 0L), 0);
  EXPECT_FALSE(log.contains("Failed to list Office365 users.")) << "the token failure is the host's to report";
  EXPECT_FALSE(log.contains("not-the-secret"));
}

TEST(Office365Console, SendsTheUsersQueryEncodedWithHeadersAndTheEndpointScope)
{
  const std::string token(400, 'k');  // longer than the inline header buffer
  Graph_Stub stub(token);
  // The endpoint's path is ignored by requests and kept in the scope, trailing slash and all.
  Office365_Auth_Entry entry = stub.entry();
  entry.ms_graph_endpoint = stub.graph_url() + "/beta/";
  Office365_Console console(entry);

  ASSERT_TRUE(list_page(console, nullptr, 25, nullptr).ok);
  const std::string long_term(90, 'q');
  const std::string search = "a\"b&c d:" + long_term;
  const std::string skip = "x/y+z=&%";
  ASSERT_TRUE(list_page(console, &skip, 0, &search).ok);
  const std::string empty;
  ASSERT_TRUE(list_page(console, &empty, Office365_Console::O365_MAX_PAGE_SIZE, &empty).ok);

  const std::vector<Scripted_Request> sent = stub.users();
  ASSERT_EQ(sent.size(), 3u);
  const std::string base = "/v1.0/users?%24select=userPrincipalName&%24orderBy=userPrincipalName&%24count=true";
  EXPECT_EQ(sent[0].target, base + "&%24top=25");
  EXPECT_EQ(sent[1].target, base + "&%24top=0&%24search=%22userPrincipalName%3Aa%22b%26c%20d%3A" + long_term +
                              "%22&%24skiptoken=x%2Fy%2Bz%3D%26%25");
  EXPECT_EQ(sent[2].target, base + "&%24top=999");

  const std::map<std::string, std::string> pairs = decode_pairs(sent[1].target.substr(sent[1].target.find('?') + 1));
  EXPECT_EQ(pairs.at("$search"), "\"userPrincipalName:" + search + "\"");
  EXPECT_EQ(pairs.at("$skiptoken"), skip);

  for (const Scripted_Request& r : sent)
  {
    EXPECT_EQ(r.method, "GET");
    EXPECT_EQ(r.headers.count("consistencylevel") ? r.headers.at("consistencylevel") : "", "eventual");
    EXPECT_EQ(r.headers.count("authorization") ? r.headers.at("authorization") : "", "Bearer " + token);
    EXPECT_EQ(r.headers.count("accept") ? r.headers.at("accept") : "", "application/json");
  }
  std::string error;
  ASSERT_TRUE(Office365_Console::test_auth(entry, error)) << error;
  const std::vector<Scripted_Request> tokens = stub.tokens();
  ASSERT_EQ(tokens.size(), 2u) << "one for the console, cached between pages, one for test_auth";
  for (const Scripted_Request& t : tokens)
    EXPECT_EQ(decode_pairs(t.body).at("scope"), stub.graph_url() + "/beta//.default");
  EXPECT_EQ(ms_graph_default_scope("https://graph.microsoft.com"), "https://graph.microsoft.com/.default");
}

TEST(Office365Console, ReadsPagesStrictlyAndReportsMalformedOnesExactly)
{
  Graph_Stub stub;
  Office365_Console console(stub.entry());
  const std::string unknown = "Unknown Microsoft graph response of request '/users': ";

  // A well-formed page: names appended in the given order after what the caller had.
  stub.answer(R"({"@odata.context":"x","@odata.count":1234,"value":[{"userPrincipalName":"b@x","id":"1"},)"
              R"({"userPrincipalName":"a@x"}],"@odata.nextLink":"https://graph.microsoft.com/v1.0/users?)"
              R"(%24top=2&%24skiptoken=first%2Btoken&%24skiptoken=second"})");
  {
    Page page;
    page.names = {"kept@x"};
    page.ok = console.list_mailboxes(page.names, nullptr, 2, page.total, page.next, nullptr);
    ASSERT_TRUE(page.ok);
    EXPECT_EQ(page.names, (std::vector<std::string>{"kept@x", "b@x", "a@x"}));
    EXPECT_EQ(page.total, 1234);
    EXPECT_EQ(page.next, "first+token");
  }

  struct Malformed
  {
    const char* body;
    std::vector<std::string> kept;  // names appended before the fault
    int total;                      // what `total` holds afterwards
  };
  const std::vector<Malformed> malformed = {
    {R"({})", {}, -1},
    {R"([])", {}, -1},
    {R"({"value":{"userPrincipalName":"a@x"}})", {}, -1},
    {R"({"value":[{"userPrincipalName":"a@x"},5]})", {"a@x"}, -1},
    {R"({"value":[{"userPrincipalName":"a@x"},{"mail":"b@x"}]})", {"a@x"}, -1},
    {R"({"value":[{"userPrincipalName":"a@x"},{"userPrincipalName":7}]})", {"a@x"}, -1},
    {R"({"value":[["a@x"]]})", {}, -1},
    {R"({"@odata.count":2.5,"value":[]})", {}, -1},
    {R"({"@odata.count":4,"value":[{"userPrincipalName":null}]})", {}, 4},
    {R"({"@odata.nextLink":5,"value":[]})", {}, -1},
  };
  for (const Malformed& m : malformed)
  {
    SCOPED_TRACE(m.body);
    stub.answer(m.body);
    Log_Capture log;
    const Page page = list_page(console, nullptr, 2, nullptr);
    EXPECT_FALSE(page.ok);
    EXPECT_EQ(page.names, m.kept);
    EXPECT_EQ(page.total, m.total);
    EXPECT_EQ(page.next, "untouched");
    const std::vector<std::string> lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(unknown), std::string::npos) << lines[0];
    EXPECT_EQ(lines[0].back(), '.') << "the message ends in '.', without a newline";
    EXPECT_EQ(log.priority_of(unknown), static_cast<unsigned long>(LM_ERROR));
  }

  // Transport-level failures: an error status or a body that is not JSON.
  for (const auto& reply : std::vector<std::pair<int, std::string>>{{500, R"({"value":[]})"}, {200, "not json"}})
  {
    stub.answer(reply.second, reply.first);
    Log_Capture log;
    const Page page = list_page(console, nullptr, 2, nullptr);
    EXPECT_FALSE(page.ok);
    EXPECT_TRUE(page.names.empty());
    const std::vector<std::string> lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("Failed to list Office365 users.\n"), std::string::npos) << lines[0];
    EXPECT_EQ(log.priority_of("Failed to list Office365 users."), static_cast<unsigned long>(LM_ERROR));
  }
}

TEST(Office365Console, NextLinksWithoutAUsableSkipTokenEndTheListing)
{
  Graph_Stub stub;
  Office365_Console console(stub.entry());
  const std::string users = R"(,"value":[{"userPrincipalName":"a@x"}]})";

  // No link, a link without "$skiptoken", one whose key differs in case.
  for (const std::string& link : {std::string(), std::string("https://graph.microsoft.com/v1.0/users?$top=1"),
                                  std::string("https://graph.microsoft.com/v1.0/users?%24SkipToken=abc")})
  {
    SCOPED_TRACE(link);
    stub.answer((link.empty() ? std::string("{\"@odata.count\":1") : "{\"@odata.nextLink\":\"" + link + "\"") + users);
    Log_Capture log;
    const Page page = list_page(console, nullptr, 1, nullptr);
    EXPECT_TRUE(page.ok);
    EXPECT_EQ(page.names, std::vector<std::string>{"a@x"});
    EXPECT_EQ(page.next, "untouched");
    EXPECT_TRUE(log.lines().empty());
  }

  // A link that is not a URL is logged as a warning; the page still counts.
  stub.answer(R"({"@odata.nextLink":"ftp://graph/v1.0/users?$skiptoken=abc")" + users);
  Log_Capture log;
  const Page page = list_page(console, nullptr, 1, nullptr);
  EXPECT_TRUE(page.ok);
  EXPECT_EQ(page.names, std::vector<std::string>{"a@x"});
  EXPECT_EQ(page.next, "untouched");
  EXPECT_EQ(log.count("Failed to parse Office365 next link 'ftp://graph/v1.0/users?$skiptoken=abc'.\n"), 1u);
  EXPECT_EQ(log.priority_of("Failed to parse Office365 next link"), static_cast<unsigned long>(LM_WARNING));
}

TEST(Office365Console, AnInvalidGraphEndpointIsLoggedAndEveryListingFails)
{
  Graph_Stub stub;
  Office365_Auth_Entry entry = stub.entry();
  for (const char* endpoint : {"not a url", "", "graph.microsoft.com"})
  {
    SCOPED_TRACE(endpoint);
    entry.ms_graph_endpoint = endpoint;
    Log_Capture log;
    Office365_Console console(entry);
    EXPECT_EQ(log.count("Invalid Microsoft graph endpoint '" + std::string(endpoint) + "'\n"), 1u);
    EXPECT_EQ(log.priority_of("Invalid Microsoft graph endpoint"), static_cast<unsigned long>(LM_ERROR));
    const Page page = list_page(console, nullptr, 10, nullptr);
    EXPECT_FALSE(page.ok);
    EXPECT_EQ(log.count("Failed to list Office365 users.\n"), 1u);
  }
  EXPECT_TRUE(stub.users().empty());
}
