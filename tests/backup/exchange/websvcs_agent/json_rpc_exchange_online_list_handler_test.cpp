#include "backup/exchange/websvcs_agent/json_rpc_exchange_online_list_handler.h"

#include "host/http/http_query_string_iterator.h"
#include "support/scripted_server.h"
#include "tests/backup/exchange/websvcs_agent/handler_call.h"

#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace
{
// A login endpoint that hands out tokens and a Graph endpoint that answers every
// users request with the body set last, recording the query it was sent.
class Graph_Stub
{
public:
  Graph_Stub()
    : login_(
        [](const Scripted_Request&)
        {
          Scripted_Reply r;
          r.headers["Content-Type"] = "application/json";
          r.body = R"({"token_type":"Bearer","expires_in":3599,"access_token":"stub-token"})";
          return r;
        }),
      graph_(
        [this](const Scripted_Request& request)
        {
          std::lock_guard<std::mutex> guard(lock_);
          const size_t mark = request.target.find('?');
          queries_.push_back(decode(mark == std::string::npos ? "" : request.target.substr(mark + 1)));
          Scripted_Reply r;
          r.status = status_;
          r.headers["Content-Type"] = "application/json";
          r.body = body_;
          return r;
        })
  {
  }

  void answer(const std::string& body, int status = 200)
  {
    std::lock_guard<std::mutex> guard(lock_);
    body_ = body;
    status_ = status;
  }
  // The decoded query of the last users request.
  std::map<std::string, std::string> last_query() const
  {
    std::lock_guard<std::mutex> guard(lock_);
    return queries_.empty() ? std::map<std::string, std::string>() : queries_.back();
  }
  size_t requests() const
  {
    std::lock_guard<std::mutex> guard(lock_);
    return queries_.size();
  }

  Office365_Auth_Entry entry() const
  {
    Office365_Auth_Entry e;
    e.ms_login_endpoint = login_.url();
    e.ms_graph_endpoint = graph_.url();
    e.ews_endpoint = graph_.url("/EWS/Exchange.asmx");
    e.tenant_email = "admin@x.test";
    e.tenant_id = "tenant";
    e.client_id = "client";
    e.client_secret = "secret";
    return e;
  }
  std::string graph_url() const { return graph_.url(); }

private:
  static std::map<std::string, std::string> decode(const std::string& text)
  {
    std::map<std::string, std::string> pairs;
    const HTTP_Query_String_Iterator end(nullptr);
    for (HTTP_Query_String_Iterator it(text.c_str()); it != end; ++it)
      pairs.insert(*it);
    return pairs;
  }

  mutable std::mutex lock_;
  std::string body_ = R"({"value":[]})";
  int status_ = 200;
  std::vector<std::map<std::string, std::string>> queries_;
  Scripted_Server login_, graph_;
};

class ListHandler : public ::testing::Test
{
protected:
  ListHandler() : tenants_({{"t1", stub_.entry()}}) {}

  Handler_Call list(const json& params) { return call_handler(handler_, params); }
  // A page of users, with a next link carrying `skip` when not empty.
  std::string page(const std::vector<std::string>& names, int count, const std::string& skip) const
  {
    json body = json::object();
    if (count >= 0)
      body["@odata.count"] = count;
    if (!skip.empty())
      body["@odata.nextLink"] = stub_.graph_url() + "/v1.0/users?$top=2&$skiptoken=" + skip;
    body["value"] = json::array();
    for (const std::string& name : names)
      body["value"].push_back(json{{"userPrincipalName", name}});
    return body.dump();
  }

  Graph_Stub stub_;
  Registered_Tenants tenants_;
  JSON_RPC_Exchange_Online_List_Handler handler_;
};
}  // namespace

TEST_F(ListHandler, UuidMustBeAStringOfAKnownRegistration)
{
  for (const json& params : {json::object(), json{{"uuid", 7}}, json{{"uuid", json::array({"t1"})}}})
  {
    const Handler_Call call = list(params);
    EXPECT_EQ(call.code(), -32602);
    EXPECT_EQ(call.message(), "Invalid params: 'uuid' is expected as string in params.");
  }
  const Handler_Call call = list(json{{"uuid", "t2"}});
  EXPECT_EQ(call.code(), -32603);
  EXPECT_EQ(call.message(), "Failed to get Office365 auth entry");
  EXPECT_EQ(stub_.requests(), 0u);
}

TEST_F(ListHandler, PageSizeDefaultsTo100AndIsLoweredTo999)
{
  const std::pair<json, std::string> cases[] = {
    {json(), "100"}, {json(5000), "999"}, {json(1000), "999"},         {json(999), "999"},  {json(7), "7"},
    {json(0), "0"},  {json(-3), "-3"},    {json(5000000000LL), "999"}, {json("50"), "100"}, {json(2.5), "100"},
  };
  for (const auto& c : cases)
  {
    json params{{"uuid", "t1"}};
    if (!c.first.is_null())
      params["limit"] = c.first;
    ASSERT_EQ(list(params).result()["rows"], json::array()) << params.dump();
    EXPECT_EQ(stub_.last_query()["$top"], c.second) << params.dump();
  }
}

TEST_F(ListHandler, FirstPageHasTotalAndNextTokenFollowUpOnlyItsToken)
{
  stub_.answer(page({"a@x.test", "b@x.test"}, 3, "tok-2"));
  const Handler_Call first = list(json{{"uuid", "t1"}, {"limit", 2}, {"search", "a&\"b"}});
  EXPECT_EQ(first.result().dump(),
            R"({"skip_token":"tok-2","total":3,"rows":[{"mailbox":"a@x.test"},{"mailbox":"b@x.test"}]})");
  EXPECT_EQ(stub_.last_query()["$search"], "\"userPrincipalName:a&\"b\"");
  EXPECT_EQ(stub_.last_query().count("$skiptoken"), 0u);

  // Graph repeats its count on later pages; the handler does not pass it on.
  stub_.answer(page({"c@x.test"}, 3, ""));
  const Handler_Call last = list(json{{"uuid", "t1"}, {"limit", 2}, {"skip_token", "tok-2"}});
  EXPECT_EQ(last.result().dump(), R"({"rows":[{"mailbox":"c@x.test"}]})");
  EXPECT_EQ(stub_.last_query()["$skiptoken"], "tok-2");
  EXPECT_EQ(stub_.last_query().count("$search"), 0u);

  // An empty token is a first page again.
  const Handler_Call again = list(json{{"uuid", "t1"}, {"skip_token", ""}});
  EXPECT_EQ(again.result().dump(), R"({"total":3,"rows":[{"mailbox":"c@x.test"}]})");
  EXPECT_EQ(stub_.last_query().count("$skiptoken"), 0u);
}

TEST_F(ListHandler, FirstPageWithoutACountReportsZero)
{
  stub_.answer(page({"a@x.test"}, -1, ""));
  EXPECT_EQ(list(json{{"uuid", "t1"}}).result().dump(), R"({"total":0,"rows":[{"mailbox":"a@x.test"}]})");
}

TEST_F(ListHandler, GraphFailureIsAnInternalError)
{
  for (const std::pair<std::string, int>& answer :
       {std::make_pair(std::string(R"({"error":{"code":"Authorization_RequestDenied"}})"), 403),
        std::make_pair(std::string(R"({"value":[{"id":1}]})"), 200)})
  {
    stub_.answer(answer.first, answer.second);
    const Handler_Call call = list(json{{"uuid", "t1"}});
    EXPECT_EQ(call.code(), -32603) << answer.first;
    EXPECT_EQ(call.message(), "Failed to list mailboxes.");
  }
}
