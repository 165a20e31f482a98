#include "host/http/http_session_factory.h"
#include "host/http/http_status.h"
#include "host/http/json_restful_client.h"
#include "support/loopback_server.h"
#include "support/scripted_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <nlohmann/json.hpp>

namespace
{
HTTP_Session_Ptr session_to(const Loopback_Server& s)
{
  return HTTP_Session_Factory::create("127.0.0.1", s.port(), false);
}
}  // namespace

TEST(HttpSession, ReusesOneConnectionAndCarriesHeadersAndBodies)
{
  Loopback_Server s;
  std::atomic<int> calls{0};
  s.server().Post("/echo",
                  [&](const httplib::Request& req, httplib::Response& res)
                  {
                    ++calls;
                    res.set_header("X-Seen", req.get_header_value("X-Test"));
                    res.set_header("Retry-After", "7");
                    res.set_content(req.body + "|" + req.get_param_value("q"), "text/plain");
                  });
  s.start();
  HTTP_Session_Ptr session = session_to(s);
  ASSERT_TRUE(session);
  for (int i = 0; i < 3; ++i)
  {
    HTTP_Request request(HTTP_METHOD_POST, "/echo");
    request.query_string_buffer() = "q=a%20b";
    request.headers().put("X-Test", "v" + std::to_string(i));
    request.body() = "payload";
    HTTP_Response response;
    ASSERT_TRUE(session->perform(request, response)) << session->error();
    EXPECT_EQ(response.status(), 200);
    EXPECT_EQ(response.body(), "payload|a b");
    ASSERT_NE(response.headers().get("x-seen"), nullptr);
    EXPECT_EQ(*response.headers().get("X-SEEN"), "v" + std::to_string(i));
    EXPECT_EQ(*response.headers().get("retry-after"), "7");
  }
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(session->connections_opened(), 1);
}

TEST(HttpSession, ReportsTransportFailures)
{
  int port = 0;
  {
    Loopback_Server gone;
    gone.start();
    port = gone.port();
  }
  HTTP_Session_Ptr session = HTTP_Session_Factory::create("127.0.0.1", port, false, 5, 5);
  HTTP_Request request(HTTP_METHOD_GET, "/");
  HTTP_Response response;
  EXPECT_FALSE(session->perform(request, response));
  EXPECT_EQ(session->transport_error(), HTTP_TRANSPORT_CONNECT);
  EXPECT_FALSE(session->error().empty());

  Scripted_Server dropping(
    [](const Scripted_Request& r)
    {
      Scripted_Reply reply;
      reply.drop = r.target == "/cut";
      reply.body = "fine";
      return reply;
    });
  HTTP_Session_Ptr live = HTTP_Session_Factory::create("127.0.0.1", dropping.port(), false, 5, 5);
  HTTP_Request cut(HTTP_METHOD_GET, "/cut");
  EXPECT_FALSE(live->perform(cut, response));
  EXPECT_EQ(live->transport_error(), HTTP_TRANSPORT_DROPPED);
  // The session recovers on a new connection.
  HTTP_Request fine(HTTP_METHOD_GET, "/fine");
  ASSERT_TRUE(live->perform(fine, response)) << live->error();
  EXPECT_EQ(response.body(), "fine");
  EXPECT_EQ(dropping.connections(), 2);
}

TEST(HttpSessionFactory, RefusesPlainHttpToRemoteHostsAndBadAddresses)
{
  EXPECT_FALSE(HTTP_Session_Factory::create("graph.example.com", 80, false));
  EXPECT_TRUE(HTTP_Session_Factory::create("graph.example.com", 443, true));
  EXPECT_TRUE(HTTP_Session_Factory::create("localhost", 80, false));
  EXPECT_FALSE(HTTP_Session_Factory::create("", 443, true));
  EXPECT_FALSE(HTTP_Session_Factory::create("host", 0, true));
  EXPECT_FALSE(HTTP_Session_Factory::create("host", 443, true, "http://proxy:3128", 3, nullptr, false, 120, 120, 0, 0));
  HTTP_Session_Factory::allow_plain_http(true);
  EXPECT_TRUE(HTTP_Session_Factory::create("graph.example.com", 80, false));
  HTTP_Session_Factory::allow_plain_http(false);
}

TEST(JsonRestfulClient, SendsStandingHeadersAndParsesOnlySuccessfulJson)
{
  Loopback_Server s;
  s.server().Get("/ok",
                 [](const httplib::Request& req, httplib::Response& res)
                 {
                   res.set_content("{\"auth\":\"" + req.get_header_value("Authorization") + "\",\"accept\":\"" +
                                     req.get_header_value("Accept") + "\",\"c\":\"" +
                                     req.get_header_value("ConsistencyLevel") + "\"}",
                                   "application/json");
                 });
  s.server().Get("/denied",
                 [](const httplib::Request&, httplib::Response& res)
                 {
                   res.status = 403;
                   res.set_content("{\"error\":{\"code\":\"Authorization_RequestDenied\"}}", "application/json");
                 });
  s.server().Get("/text",
                 [](const httplib::Request&, httplib::Response& res) { res.set_content("not json", "text/plain"); });
  s.start();

  JSON_RESTful_Client client(true);
  nlohmann::ordered_json value;
  HTTP_Request unbound(HTTP_METHOD_GET, "/ok");
  EXPECT_FALSE(client.get(unbound, &value));

  client.reset(session_to(s));
  client.set_header(HTTP_HEADER_AUTHORIZATION, "Bearer abc");
  HTTP_Request request(HTTP_METHOD_GET, "/ok");
  request.headers().put("ConsistencyLevel", "eventual");
  ASSERT_TRUE(client.get(request, &value)) << client.last_error();
  EXPECT_EQ(value["auth"], "Bearer abc");
  EXPECT_EQ(value["accept"], "application/json");
  EXPECT_EQ(value["c"], "eventual");

  HTTP_Request denied(HTTP_METHOD_GET, "/denied");
  EXPECT_FALSE(client.get(denied, &value));
  EXPECT_EQ(client.last_status(), 403);
  EXPECT_NE(client.last_error().find("Authorization_RequestDenied"), std::string::npos);
  EXPECT_EQ(client.last_error().find("Bearer"), std::string::npos);

  HTTP_Request text(HTTP_METHOD_GET, "/text");
  EXPECT_FALSE(client.get(text, &value));

  client.set_header(HTTP_HEADER_AUTHORIZATION, nullptr);
  HTTP_Request again(HTTP_METHOD_GET, "/ok");
  ASSERT_TRUE(client.get(again, &value));
  EXPECT_EQ(value["auth"], "");
}

TEST(HttpSession, StreamsBodiesBothWaysAndNamesItself)
{
  Loopback_Server s;
  std::string stored;
  std::string agent;
  s.server().Put("/object",
                 [&](const httplib::Request& req, httplib::Response& res)
                 {
                   stored = req.body;
                   agent = req.get_header_value("User-Agent");
                   res.status = 201;
                 });
  s.server().Get("/object", [&](const httplib::Request&, httplib::Response& res)
                 { res.set_content(stored, "application/octet-stream"); });
  s.server().Get("/missing",
                 [](const httplib::Request&, httplib::Response& res)
                 {
                   res.status = 404;
                   res.set_content("{\"error\":\"no such object\"}", "application/json");
                 });
  s.start();
  HTTP_Session_Ptr session = session_to(s);

  // A chunked upload from a source that hands out 1000 pieces.
  std::string expected;
  int piece = 0;
  HTTP_Request put(HTTP_METHOD_PUT, "/object");
  put.set_body_source(
    [&](char* buffer, size_t size) -> size_t
    {
      if (piece == 1000)
        return 0;
      const std::string text = "piece " + std::to_string(piece++) + ";";
      EXPECT_GE(size, text.size());
      text.copy(buffer, text.size());
      expected += text;
      return text.size();
    });
  HTTP_Response response;
  ASSERT_TRUE(session->perform(put, response)) << session->error();
  EXPECT_EQ(response.status(), 201);
  EXPECT_EQ(stored, expected);
  EXPECT_EQ(agent.rfind("exchange-online-backup/", 0), 0u) << agent;

  // A 2xx body goes to the sink, an error body stays in the response.
  std::string received;
  HTTP_Response streamed;
  streamed.set_body_sink(
    [&](const char* data, size_t size, long status)
    {
      EXPECT_EQ(status, 200);
      received.append(data, size);
      return true;
    });
  HTTP_Request get(HTTP_METHOD_GET, "/object");
  ASSERT_TRUE(session->perform(get, streamed));
  EXPECT_EQ(received, expected);
  EXPECT_TRUE(streamed.body().empty());
  HTTP_Request missing(HTTP_METHOD_GET, "/missing");
  ASSERT_TRUE(session->perform(missing, streamed));
  EXPECT_EQ(streamed.status(), 404);
  EXPECT_NE(streamed.body().find("no such object"), std::string::npos);

  // A sink or source that gives up stops the transfer, reported as aborted.
  HTTP_Response refusing;
  refusing.set_body_sink([](const char*, size_t, long) { return false; });
  HTTP_Request again(HTTP_METHOD_GET, "/object");
  EXPECT_FALSE(session->perform(again, refusing));
  EXPECT_EQ(session->transport_error(), HTTP_TRANSPORT_ABORTED);
  HTTP_Request aborted(HTTP_METHOD_PUT, "/object");
  aborted.set_body_source([](char*, size_t) { return HTTP_Request::abort_body; });
  EXPECT_FALSE(session->perform(aborted, response));
  EXPECT_EQ(session->transport_error(), HTTP_TRANSPORT_ABORTED);
}

TEST(JsonRestfulClient, RetriesThrottledAnswersAfterTheirWaitOnly)
{
  std::atomic<int> calls{0};
  Scripted_Server server(
    [&](const Scripted_Request& r)
    {
      Scripted_Reply reply;
      ++calls;
      if (r.target == "/busy" && calls < 3)
      {
        reply.status = calls == 1 ? 429 : 503;
        reply.headers["Retry-After"] = "0";
      }
      else if (r.target == "/broken")
        reply.status = 500;
      reply.body = "{\"ok\":true}";
      return reply;
    });
  JSON_RESTful_Client client(true);
  client.reset(HTTP_Session_Factory::create("127.0.0.1", server.port(), false, 5, 5));
  nlohmann::ordered_json value;
  HTTP_Request busy(HTTP_METHOD_GET, "/busy");
  ASSERT_TRUE(client.get(busy, &value)) << client.last_error();
  EXPECT_EQ(calls, 3);
  EXPECT_TRUE(client.status().ok());

  calls = 0;
  HTTP_Request broken(HTTP_METHOD_GET, "/broken");
  EXPECT_FALSE(client.get(broken, &value));
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(client.status().kind, HOST_STATUS_TRANSIENT);

  calls = 0;
  client.set_retry_budget(0);
  HTTP_Request once(HTTP_METHOD_GET, "/busy");
  EXPECT_FALSE(client.get(once, &value));
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(client.status().kind, HOST_STATUS_THROTTLED);
  EXPECT_EQ(client.status().retry_after_ms, 0);
}

// What a failed request may have done on the server: nothing when it never got
// there, unknown once it went out whole and the answer did not come back whole.
TEST(HttpSession, TellsARequestThatCannotHaveArrivedFromOneThatMayHaveBeenApplied)
{
  int port = 0;
  {
    Loopback_Server gone;
    gone.start();
    port = gone.port();
  }
  HTTP_Session_Ptr refused = HTTP_Session_Factory::create("127.0.0.1", port, false, 5, 5);
  HTTP_Request post(HTTP_METHOD_POST, "/make");
  post.body() = "item";
  HTTP_Response response;
  EXPECT_FALSE(refused->perform(post, response));
  EXPECT_FALSE(refused->request_sent());
  EXPECT_EQ(http_transport_outcome(*refused), HTTP_OUTCOME_NOT_APPLIED);

  // The server reads the whole request, then closes without a byte of answer:
  // on a fresh connection and, for a request that must not be repeated, on a
  // kept-alive one, where libcurl would otherwise send it again by itself.
  std::atomic<int> made{0};
  std::atomic<int> drop_at{1};
  Scripted_Server server(
    [&](const Scripted_Request& r)
    {
      Scripted_Reply reply;
      const int n = ++made;
      reply.drop = n == drop_at;
      reply.body = r.body;
      return reply;
    });
  HTTP_Session_Ptr live = HTTP_Session_Factory::create("127.0.0.1", server.port(), false, 5, 5);
  post.repeatable(false);
  EXPECT_FALSE(live->perform(post, response));
  EXPECT_TRUE(live->request_sent());
  EXPECT_FALSE(live->answer_started());
  EXPECT_EQ(http_transport_outcome(*live), HTTP_OUTCOME_UNKNOWN);
  EXPECT_EQ(made, 1);

  drop_at = 3;  // the second request on the next connection
  ASSERT_TRUE(live->perform(post, response)) << live->error();
  EXPECT_EQ(response.body(), "item");
  EXPECT_FALSE(live->perform(post, response));
  EXPECT_EQ(http_transport_outcome(*live), HTTP_OUTCOME_UNKNOWN);
  EXPECT_EQ(made, 3);  // once each, never resent by libcurl
  ASSERT_TRUE(live->perform(post, response)) << live->error();
  EXPECT_EQ(made, 4);

  // A repeatable request in the same place is sent again by libcurl on a fresh
  // connection, and answered: the server saw it twice.
  drop_at = 5;
  post.repeatable(true);
  ASSERT_TRUE(live->perform(post, response)) << live->error();
  EXPECT_EQ(made, 6);
}

TEST(HttpSession, ACutAnswerOrATimeOutLeavesTheOutcomeOpen)
{
  Loopback_Server s;
  s.server().Post("/cut",
                  [](const httplib::Request&, httplib::Response& res)
                  {
                    res.set_content_provider(1000, "text/plain",
                                             [](size_t offset, size_t, httplib::DataSink& sink)
                                             {
                                               if (offset >= 100)
                                                 return false;
                                               const std::string half(100, 'x');
                                               return sink.write(half.data(), half.size());
                                             });
                  });
  std::atomic<bool> release{false};
  s.server().Post("/slow",
                  [&](const httplib::Request&, httplib::Response& res)
                  {
                    for (int i = 0; i < 300 && !release; ++i)
                      std::this_thread::sleep_for(std::chrono::milliseconds(10));
                    res.set_content("late", "text/plain");
                  });
  s.start();
  HTTP_Session_Ptr session = HTTP_Session_Factory::create("127.0.0.1", s.port(), false, 5, 1);
  HTTP_Request cut(HTTP_METHOD_POST, "/cut");
  cut.body() = "item";
  cut.repeatable(false);
  HTTP_Response response;
  EXPECT_FALSE(session->perform(cut, response));
  EXPECT_EQ(session->transport_error(), HTTP_TRANSPORT_DROPPED);
  EXPECT_TRUE(session->answer_started());
  EXPECT_EQ(http_transport_outcome(*session), HTTP_OUTCOME_UNKNOWN);

  HTTP_Request slow(HTTP_METHOD_POST, "/slow");
  slow.body() = "item";
  EXPECT_FALSE(session->perform(slow, response));
  release = true;
  EXPECT_EQ(session->transport_error(), HTTP_TRANSPORT_TIMEOUT);
  EXPECT_EQ(http_transport_outcome(*session), HTTP_OUTCOME_UNKNOWN);
}
