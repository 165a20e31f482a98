#ifndef TESTS_BACKUP_EXCHANGE_WEBSVCS_AGENT_HANDLER_CALL_H
#define TESTS_BACKUP_EXCHANGE_WEBSVCS_AGENT_HANDLER_CALL_H

#include "tests/host/job/temp_dir.h"
#include "host/jsonrpc/json_rpc_handler.h"
#include "host/office365/office365_tenant_registry.h"
#include "tests/host/jsonrpc/recording_channel.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

typedef nlohmann::ordered_json json;

// What one call of a handler did: its return value and what it sent.
struct Handler_Call
{
  int rc = 0;
  std::vector<json> replies;

  // The one reply's error code and message; 0 and "" when it is not one error.
  int code() const { return one_error() ? replies[0]["error"]["code"].get<int>() : 0; }
  std::string message() const
  {
    return one_error() ? replies[0]["error"]["message"].get<std::string>() : std::string();
  }
  // The one reply's result; null when it is not one successful response.
  json result() const { return replies.size() == 1 && replies[0].contains("result") ? replies[0]["result"] : json(); }

private:
  bool one_error() const { return replies.size() == 1 && replies[0].contains("error"); }
};

// Hands `handler` a message of `kind` with `params` over a recording channel (or
// a null channel, the requester gone), as the server does.
inline Handler_Call call_handler(JSON_RPC_Handler& handler, const json& params,
                                 JSON_RPC_Object_Kind kind = JSON_RPC_REQUEST, bool requester_gone = false)
{
  Recording_Channel* recording = new Recording_Channel();
  JSON_RPC_Channel_Ptr channel(recording);
  JSON_RPC_Object_Ptr obj(new JSON_RPC_Object(kind, json("req-1"), "method", params));
  Handler_Call call;
  call.rc = handler.handle_object(requester_gone ? JSON_RPC_Channel_Ptr() : channel, obj);
  call.replies = recording->replies();
  for (const json& reply : call.replies)
    EXPECT_EQ(reply["id"], "req-1") << reply.dump();
  return call;
}

// Tenant registrations in a registry file that get_office365_auth_entry reads
// while the object lives.
class Registered_Tenants
{
public:
  explicit Registered_Tenants(const std::vector<std::pair<std::string, Office365_Auth_Entry>>& tenants)
  {
    const std::string path = dir_.path() + "/tenants.json";
    Office365_Tenant_Registry registry(path);
    for (const auto& tenant : tenants)
      EXPECT_TRUE(registry.add(tenant.first, tenant.second));
    std::string error;
    EXPECT_TRUE(registry.save(error)) << error;
    Office365_Tenant_Registry::set_default_path(path);
  }
  ~Registered_Tenants() { Office365_Tenant_Registry::set_default_path(""); }

private:
  Temp_Dir dir_;
};

#endif
