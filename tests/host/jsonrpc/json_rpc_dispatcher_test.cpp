#include "host/jsonrpc/json_rpc_dispatcher.h"
#include "host/jsonrpc/json_rpc_thread_handler.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace
{
typedef nlohmann::ordered_json json;
typedef std::function<int(JSON_RPC_Channel_Ptr, JSON_RPC_Object_Ptr)> Behaviour;

std::atomic<int> made{0};
std::atomic<int> released{0};

// A handler whose work is given by the test.
class Scripted_Handler : public JSON_RPC_Thread_Handler
{
public:
  explicit Scripted_Handler(Behaviour behaviour) : behaviour_(std::move(behaviour)) {}

protected:
  int handle_object_i(JSON_RPC_Channel_Ptr channel, JSON_RPC_Object_Ptr obj) override
  {
    return behaviour_(channel, obj);
  }

private:
  Behaviour behaviour_;
};

void release_handler(void* object)
{
  ++released;
  delete static_cast<JSON_RPC_Handler*>(object);
}

JSON_RPC_Dispatcher::Factory factory(Behaviour behaviour)
{
  return [behaviour](void (**release)(void*)) -> JSON_RPC_Handler*
  {
    ++made;
    *release = release_handler;
    return new Scripted_Handler(behaviour);
  };
}

// Answers with {"method", "params"} of the request.
int echo(JSON_RPC_Channel_Ptr channel, JSON_RPC_Object_Ptr obj)
{
  JSON_RPC_Response response(*obj);
  response.result() = json::object();
  response.result()["method"] = obj->method();
  response.result()["params"] = obj->params();
  return channel->send(response);
}

class JsonRpcDispatcher : public ::testing::Test
{
protected:
  JsonRpcDispatcher()
    : dispatcher_({
        {"echo", factory(echo)},
        {"silent", factory([](JSON_RPC_Channel_Ptr, JSON_RPC_Object_Ptr) { return -1; })},
        {"throws",
         factory([](JSON_RPC_Channel_Ptr, JSON_RPC_Object_Ptr) -> int { throw std::runtime_error("broken"); })},
        {"twice", factory(
                    [](JSON_RPC_Channel_Ptr channel, JSON_RPC_Object_Ptr obj)
                    {
                      channel->send_error(-32602, obj->id(), "first", json());
                      return channel->send_error(-32603, obj->id(), "second", json());
                    })},
        {"gone", factory(
                   [this](JSON_RPC_Channel_Ptr channel, JSON_RPC_Object_Ptr)
                   {
                     saw_null_channel_ = channel.null();
                     return -1;
                   })},
        {"nothing", [](void (**)(void*)) -> JSON_RPC_Handler* { return nullptr; }},
        {"unmakeable", [](void (**)(void*)) -> JSON_RPC_Handler* { throw std::bad_alloc(); }},
        {"throws_int", factory([](JSON_RPC_Channel_Ptr, JSON_RPC_Object_Ptr) -> int { throw 5; })},
      })
  {
    made = 0;
    released = 0;
  }

  // The reply to `body`, parsed; a null value for an empty reply body.
  json reply(const std::string& body, const JSON_RPC_Dispatcher::Requester_Check& present = {})
  {
    const std::string text = dispatcher_.dispatch(body, present);
    return text.empty() ? json() : json::parse(text);
  }

  static json error(int code, const char* message, const json& id)
  {
    return json{{"jsonrpc", "2.0"}, {"error", {{"code", code}, {"message", message}}}, {"id", id}};
  }

  JSON_RPC_Dispatcher dispatcher_;
  bool saw_null_channel_ = false;
};
}  // namespace

TEST_F(JsonRpcDispatcher, RequestIsAnsweredWithItsIdByAHandlerMadeAndReleasedForIt)
{
  EXPECT_EQ(reply(R"({"jsonrpc":"2.0","method":"echo","params":{"a":[1,2]},"id":7})"),
            (json{{"jsonrpc", "2.0"}, {"result", {{"method", "echo"}, {"params", {{"a", {1, 2}}}}}}, {"id", 7}}));
  EXPECT_EQ(reply(R"({"jsonrpc":"2.0","method":"echo","params":["x"],"id":"abc"})")["id"], "abc");
  EXPECT_EQ(reply(R"({"jsonrpc":"2.0","method":"echo","id":null})")["result"]["params"], json());
  EXPECT_EQ(made, 3);
  EXPECT_EQ(released, 3);
}

TEST_F(JsonRpcDispatcher, BodyThatIsNotJsonIsAParseErrorWithNullId)
{
  for (const char* body : {"", "{", R"({"jsonrpc":"2.0","method":"echo","id":1)", "[1,]", "nul"})
    EXPECT_EQ(reply(body), error(-32700, "Parse error", json())) << body;
  EXPECT_EQ(made, 0);
}

TEST_F(JsonRpcDispatcher, MalformedRequestsAreInvalidRequests)
{
  struct Case
  {
    const char* body;
    json id;
  };
  const Case cases[] = {
    {R"({"jsonrpc":"1.0","method":"echo","id":1})", 1},
    {R"({"jsonrpc":2.0,"method":"echo","id":1})", 1},
    {R"({"method":"echo","id":2})", 2},
    {R"({"jsonrpc":"2.0","id":3})", 3},
    {R"({"jsonrpc":"2.0","method":5,"id":4})", 4},
    {R"({"jsonrpc":"2.0","method":"echo","params":"bar","id":5})", 5},
    {R"({"jsonrpc":"2.0","method":"echo","params":7,"id":"six"})", "six"},
    {R"({"jsonrpc":"2.0","method":"echo","id":{"x":1}})", json()},
    {R"({"jsonrpc":"2.0","method":"echo","id":[1]})", json()},
    {R"({"jsonrpc":"2.0","method":"echo","id":true})", json()},
    {R"({"jsonrpc":"2.0","method":1,"params":"bar"})", json()},
    {"1", json()},
    {R"("text")", json()},
  };
  for (const Case& c : cases)
    EXPECT_EQ(reply(c.body), error(-32600, "Invalid Request", c.id)) << c.body;
  EXPECT_EQ(made, 0);
}

TEST_F(JsonRpcDispatcher, UnknownMethodIsNotFound)
{
  EXPECT_EQ(reply(R"({"jsonrpc":"2.0","method":"nope","id":9})"), error(-32601, "Method not found", 9));
  EXPECT_EQ(reply(R"({"jsonrpc":"2.0","method":"ECHO","id":10})"), error(-32601, "Method not found", 10));
}

TEST_F(JsonRpcDispatcher, NotificationsGetNoReplyAndRunNoHandler)
{
  EXPECT_TRUE(dispatcher_.dispatch(R"({"jsonrpc":"2.0","method":"echo","params":[1]})").empty());
  EXPECT_TRUE(dispatcher_.dispatch(R"({"jsonrpc":"2.0","method":"nope"})").empty());
  EXPECT_TRUE(
    dispatcher_.dispatch(R"([{"jsonrpc":"2.0","method":"echo"},{"jsonrpc":"2.0","method":"nope","params":{}}])")
      .empty());
  EXPECT_EQ(made, 0);
}

TEST_F(JsonRpcDispatcher, BatchIsAnsweredMemberByMemberInOrder)
{
  const json replies = reply(R"([
    {"jsonrpc":"2.0","method":"echo","params":{"n":1},"id":"1"},
    {"jsonrpc":"2.0","method":"echo","params":{"n":2}},
    1,
    {"jsonrpc":"2.0","method":"nope","id":"3"},
    {"foo":"boo"},
    {"jsonrpc":"2.0","method":"echo","params":[4],"id":4}
  ])");
  ASSERT_TRUE(replies.is_array());
  ASSERT_EQ(replies.size(), 5u);
  EXPECT_EQ(replies[0]["id"], "1");
  EXPECT_EQ(replies[0]["result"]["params"], (json{{"n", 1}}));
  EXPECT_EQ(replies[1], error(-32600, "Invalid Request", json()));
  EXPECT_EQ(replies[2], error(-32601, "Method not found", "3"));
  EXPECT_EQ(replies[3], error(-32600, "Invalid Request", json()));
  EXPECT_EQ(replies[4]["result"]["params"], json::array({4}));
  EXPECT_EQ(made, 2);
  EXPECT_EQ(released, 2);
}

TEST_F(JsonRpcDispatcher, EmptyOrOversizedBatchIsOneInvalidRequest)
{
  EXPECT_EQ(reply("[]"), error(-32600, "Invalid Request", json()));
  EXPECT_EQ(reply(" [ ] "), error(-32600, "Invalid Request", json()));

  json batch = json::array();
  for (int i = 0; i < JSON_RPC_Dispatcher::MAX_BATCH; ++i)
    batch.push_back({{"jsonrpc", "2.0"}, {"method", "echo"}, {"id", i}});
  EXPECT_EQ(reply(batch.dump()).size(), size_t(JSON_RPC_Dispatcher::MAX_BATCH));
  batch.push_back({{"jsonrpc", "2.0"}, {"method", "echo"}, {"id", 100}});
  made = 0;
  EXPECT_EQ(reply(batch.dump()), error(-32600, "Invalid Request: a batch holds at most 100 requests.", json()));
  EXPECT_EQ(made, 0);
}

TEST_F(JsonRpcDispatcher, BatchOfNonObjectsAnswersEachMember)
{
  EXPECT_EQ(reply("[1,2,3]"),
            json::array({error(-32600, "Invalid Request", json()), error(-32600, "Invalid Request", json()),
                         error(-32600, "Invalid Request", json())}));
}

TEST_F(JsonRpcDispatcher, HandlerThatAnswersNothingOrThrowsYieldsInternalError)
{
  EXPECT_EQ(reply(R"({"jsonrpc":"2.0","method":"silent","id":1})"), error(-32603, "Internal error", 1));
  EXPECT_EQ(reply(R"({"jsonrpc":"2.0","method":"throws","id":2})"), error(-32603, "Internal error", 2));
  EXPECT_EQ(reply(R"({"jsonrpc":"2.0","method":"nothing","id":3})"), error(-32603, "Internal error", 3));
  EXPECT_EQ(reply(R"({"jsonrpc":"2.0","method":"unmakeable","id":4})"), error(-32603, "Internal error", 4));
  EXPECT_EQ(reply(R"({"jsonrpc":"2.0","method":"throws_int","id":5})"), error(-32603, "Internal error", 5));
  EXPECT_EQ(made, 3);
  EXPECT_EQ(released, 3);
}

TEST_F(JsonRpcDispatcher, OnlyTheFirstReplyOfARequestIsSent)
{
  EXPECT_EQ(reply(R"({"jsonrpc":"2.0","method":"twice","id":1})"), error(-32602, "first", 1));
}

TEST_F(JsonRpcDispatcher, HandlerGetsNullChannelWhenTheRequesterHasGone)
{
  int asked = 0;
  EXPECT_TRUE(dispatcher_
                .dispatch(R"({"jsonrpc":"2.0","method":"gone","id":1})",
                          [&asked]
                          {
                            ++asked;
                            return false;
                          })
                .empty());
  EXPECT_EQ(asked, 1);
  EXPECT_TRUE(saw_null_channel_);
  EXPECT_EQ(released, 1);

  saw_null_channel_ = true;
  EXPECT_EQ(reply(R"({"jsonrpc":"2.0","method":"gone","id":1})", [] { return true; }),
            error(-32603, "Internal error", 1));
  EXPECT_FALSE(saw_null_channel_);
}

TEST_F(JsonRpcDispatcher, DeeplyNestedBodyIsRefused)
{
  const std::string deep =
    std::string(JSON_RPC_Dispatcher::MAX_DEPTH + 10, '[') + std::string(JSON_RPC_Dispatcher::MAX_DEPTH + 10, ']');
  EXPECT_EQ(reply(deep), error(-32600, "Invalid Request", json()));
  const std::string params =
    R"({"jsonrpc":"2.0","method":"echo","id":1,"params":)" + std::string(20, '[') + std::string(20, ']') + "}";
  EXPECT_TRUE(reply(params).contains("result"));
}

TEST_F(JsonRpcDispatcher, ResultWithInvalidUtf8IsSentWithReplacements)
{
  JSON_RPC_Dispatcher dispatcher({{"bad", factory(
                                            [](JSON_RPC_Channel_Ptr channel, JSON_RPC_Object_Ptr obj)
                                            {
                                              JSON_RPC_Response response(*obj);
                                              response.result() = std::string(
                                                "a\xff"
                                                "b");
                                              return channel->send(response);
                                            })}});
  const json answer = json::parse(dispatcher.dispatch(R"({"jsonrpc":"2.0","method":"bad","id":1})"));
  EXPECT_EQ(answer["result"],
            "a\xEF\xBF\xBD"
            "b");
}

TEST_F(JsonRpcDispatcher, ServesSeveralThreadsAtOnce)
{
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 4; ++t)
    threads.emplace_back(
      [this, t, &wrong]
      {
        for (int i = 0; i < 100; ++i)
        {
          const std::string id = std::to_string(t) + "-" + std::to_string(i);
          const json answer = json::parse(dispatcher_.dispatch(R"({"jsonrpc":"2.0","method":"echo","params":{"t":)" +
                                                               std::to_string(t) + R"(},"id":")" + id + "\"}"));
          if (answer["id"] != id || answer["result"]["params"]["t"] != t)
            ++wrong;
        }
      });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(made, 400);
  EXPECT_EQ(released, 400);
}
