#include "host/ews/ews_params.h"
#include "support/log_capture.h"
#include "host/base/agent_config.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace
{
// EWS_Params and the agent configuration are process-wide: both go back to their
// defaults after each test.
class EwsParams : public ::testing::Test
{
protected:
  void TearDown() override
  {
    EWS_Params::reset();
    std::string error;
    Agent_Config::instance().load_text("{}", error);
  }
};
}  // namespace

TEST_F(EwsParams, AgentConfigurationOverridesAndClampsTheDefaults)
{
  EXPECT_EQ(EWS_Params::paging_size(), 500);
  EXPECT_EQ(EWS_Params::batch_size(), 50);
  EXPECT_EQ(EWS_Params::export_concurrency(), 4);
  EWS_Params::set_retry_budget(7);

  std::string error;
  ASSERT_TRUE(Agent_Config::instance().load_text(
    R"({"settings": {"ews": {"paging_size": 250, "batch_size": 500, "retry_base_delay_ms": 0,
                                     "export_concurrency": 40}}})",
    error))
    << error;
  Log_Capture log;
  EWS_Params::configure(Agent_Config::instance());
  EXPECT_EQ(EWS_Params::paging_size(), 250);
  EXPECT_EQ(EWS_Params::batch_size(), 100);
  EXPECT_EQ(EWS_Params::retry_base_delay_ms(), 1);
  EXPECT_EQ(EWS_Params::export_concurrency(), 16);
  EXPECT_EQ(EWS_Params::retry_budget(), 7);  // not in the configuration: kept
  EXPECT_TRUE(log.contains("Setting ews.batch_size = 500 is outside 1..100; using 100")) << log.text();
  EXPECT_TRUE(log.contains("Setting ews.retry_base_delay_ms = 0 is outside 1..60000; using 1")) << log.text();
  EXPECT_TRUE(log.contains("Setting ews.export_concurrency = 40 is outside 1..16; using 16")) << log.text();
  EXPECT_EQ(log.count_at(LM_WARNING), 3u);

  // A configuration without EWS settings leaves the values alone.
  ASSERT_TRUE(Agent_Config::instance().load_text("{}", error));
  EWS_Params::configure(Agent_Config::instance());
  EXPECT_EQ(EWS_Params::paging_size(), 250);
  EXPECT_EQ(EWS_Params::batch_size(), 100);
}

TEST_F(EwsParams, JsonSettingsAreCheckedThenClamped)
{
  std::string error;
  EXPECT_FALSE(EWS_Params::configure(nlohmann::ordered_json::parse(R"({"paging_size": "10"})"), error));
  EXPECT_NE(error.find("'paging_size' must be an integer"), std::string::npos) << error;
  EXPECT_EQ(EWS_Params::paging_size(), 500);
  EXPECT_FALSE(EWS_Params::configure(nlohmann::ordered_json::array(), error));

  ASSERT_TRUE(
    EWS_Params::configure(nlohmann::ordered_json::parse(
                            R"({"paging_size": 0, "batch_size": 18446744073709551615, "retry_budget_seconds": -5,
                                "export_concurrency": 0})"),
                          error))
    << error;
  EXPECT_EQ(EWS_Params::paging_size(), 1);
  EXPECT_EQ(EWS_Params::batch_size(), 100);
  EXPECT_EQ(EWS_Params::retry_budget(), 0);
  EXPECT_EQ(EWS_Params::export_concurrency(), 1);
  EWS_Params::reset();
  EXPECT_EQ(EWS_Params::export_concurrency(), 4);
}
