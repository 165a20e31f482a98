#include "backup/exchange/instance_handler/exchange_instance_handler.h"

#include <gtest/gtest.h>

TEST(ExchangeInstanceHandler, ProbingTwiceKeepsOneProxyInstance)
{
  Exchange_Instance_Handler handler;
  EXPECT_EQ(handler.type(), "exchange");
  Instance_Handler::instances_type instances;
  auto other = std::make_shared<Instance>();
  other->name = "Other";
  instances["Other"] = other;

  ASSERT_EQ(handler.probe_instances(instances), 0);
  const std::shared_ptr<Instance> first = instances["Exchange_Online_Proxy"];
  ASSERT_EQ(handler.probe_instances(instances), 0);
  ASSERT_EQ(instances.size(), 2u) << "one proxy entry beside what was there";
  EXPECT_EQ(instances["Other"], other);

  const std::shared_ptr<Instance> proxy = instances["Exchange_Online_Proxy"];
  ASSERT_NE(proxy, nullptr);
  EXPECT_NE(proxy, first) << "the second probe replaces the entry";
  EXPECT_EQ(proxy->type, "exchange");
  EXPECT_EQ(proxy->name, "Exchange_Online_Proxy");
  EXPECT_EQ(proxy->uuid, "");
  ASSERT_EQ(proxy->options.size(), 1u);
  EXPECT_TRUE(proxy->options.at("is_proxy").is_boolean());
  EXPECT_EQ(proxy->options.at("is_proxy"), true);
  EXPECT_TRUE(proxy->logon_options.empty());
}

TEST(ExchangeInstanceHandler, StateIsEnabledForAnyNameAndLogonAndOptionsAlwaysSucceed)
{
  Exchange_Instance_Handler handler;
  for (const char* name : {"Exchange_Online_Proxy", "never-probed", ""})
  {
    std::string state = "disabled";
    EXPECT_EQ(&handler.get_state(name, state), &state);
    EXPECT_EQ(state, "enabled") << name;
  }
  EXPECT_EQ(handler.logon("Exchange_Online_Proxy", "user", "password"), 0);
  EXPECT_EQ(handler.logon(nullptr, nullptr, nullptr), 0);
  Instance_Handler::options_type options{{"is_proxy", false}};
  EXPECT_EQ(handler.update_options("exchange", "Exchange_Online_Proxy", "", options), 0);
  EXPECT_EQ(options.at("is_proxy"), false) << "nothing is changed";
}

TEST(Instance, JsonFormLeavesLogonValuesOut)
{
  Instance instance;
  instance.type = "exchange";
  instance.name = "n";
  instance.uuid = "u";
  instance.options["b"] = 1;
  instance.options["a"] = "x";
  instance.logon_options["password"] = "pw";
  EXPECT_EQ(instance.to_json().dump(), R"({"type":"exchange","name":"n","uuid":"u","options":{"a":"x","b":1}})");
}
