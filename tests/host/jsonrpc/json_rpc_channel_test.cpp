#include "host/jsonrpc/json_rpc_channel.h"
#include "host/jsonrpc/object_inserter.h"
#include "tests/host/jsonrpc/recording_channel.h"

#include <gtest/gtest.h>

namespace
{
typedef nlohmann::ordered_json json;
}

TEST(JsonRpcChannel, ErrorWithoutMessageCarriesTheCodesStandardMessage)
{
  const std::pair<int, const char*> codes[] = {
    {-32700, "Parse error"},    {-32600, "Invalid Request"}, {-32601, "Method not found"},
    {-32602, "Invalid params"}, {-32603, "Internal error"},  {-32000, "Server error"},
    {-32099, "Server error"},   {-32100, "Unknown error"},   {1, "Unknown error"},
  };
  for (const auto& c : codes)
  {
    Recording_Channel channel;
    EXPECT_EQ(channel.send_error(c.first, json("r1"), nullptr, json()), 0);
    EXPECT_EQ(channel.only().dump(),
              json({{"jsonrpc", "2.0"}, {"error", {{"code", c.first}, {"message", c.second}}}, {"id", "r1"}}).dump())
      << c.first;
  }
}

TEST(JsonRpcChannel, ErrorKeepsItsMessageAndItsDataWhenGiven)
{
  Recording_Channel channel;
  channel.send_error(-32602, json(4), "Invalid params: 'uuid' is expected as string in params.", json{{"k", 1}});
  EXPECT_EQ(channel.only().dump(),
            R"({"jsonrpc":"2.0","error":{"code":-32602,)"
            R"("message":"Invalid params: 'uuid' is expected as string in params.","data":{"k":1}},"id":4})");
}

TEST(JsonRpcChannel, ResponseAnswersTheRequestsIdWithItsResultInOrder)
{
  const JSON_RPC_Object request(JSON_RPC_REQUEST, json("q"), "m", json::object());
  JSON_RPC_Response response(request);
  EXPECT_EQ(response.kind(), JSON_RPC_RESPONSE);
  EXPECT_FALSE(response.is_request());
  Object_Inserter(response.result())("zeta", 1)("alpha", json::array({"x"}))("zeta", 2);
  Recording_Channel channel;
  EXPECT_EQ(channel.send(response), 0);
  EXPECT_EQ(channel.only().dump(), R"({"jsonrpc":"2.0","result":{"zeta":2,"alpha":["x"]},"id":"q"})");
}

TEST(JsonRpcChannel, ObjectInserterTurnsANonObjectIntoAnObject)
{
  json value = json::array({1});
  Object_Inserter inserter(value);
  inserter("a", true);
  EXPECT_EQ(value, (json{{"a", true}}));
}
