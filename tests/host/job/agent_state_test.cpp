#include "host/base/agent_config.h"
#include "host/job/instance_manager.h"
#include "host/job/job.h"
#include "host/job/job_alert.h"
#include "support/log_capture.h"
#include "temp_dir.h"

#include <fstream>
#include "support/plain_job.h"

#include <gtest/gtest.h>
#include <sstream>
#include <nlohmann/json.hpp>

namespace
{
std::string read_file(const std::string& path)
{
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Restores an empty configuration after each test: the configuration is process-wide.
class AgentState : public ::testing::Test
{
protected:
  void TearDown() override
  {
    std::string error;
    Agent_Config::instance().load_text("{}", error);
  }
};
}  // namespace

TEST_F(AgentState, ConfigurationAccountsAndSettings)
{
  std::string error;
  const std::string text = R"({
    "state_dir": "/var/lib/agent", "host_id": "host-7", "log_file": "/var/log/agent.log",
    "backup_server": {"url": "http://127.0.0.1:8400", "access_key": "k3y", "on_backupd": true,
                      "node_access_key": "n0de"},
    "settings": {"ews": {"paging_size": 250}},
    "accounts": [{"module": "exchange", "type": "exchange", "uid": "u1",
                  "username": "svc", "password": "s3cret"}]
  })";
  ASSERT_TRUE(Agent_Config::instance().load_text(text, error)) << error;
  Agent_Config& config = Agent_Config::instance();
  EXPECT_EQ(config.state_dir(), "/var/lib/agent");
  EXPECT_EQ(config.host_id(), "host-7");
  EXPECT_EQ(config.backup_server_url(), "http://127.0.0.1:8400");
  EXPECT_EQ(std::string(config.access_key().c_str()), "k3y");
  EXPECT_TRUE(config.on_backupd());
  EXPECT_EQ(config.setting("ews.paging_size", 100), 250);
  EXPECT_EQ(config.setting("ews.batch_size", 100), 100);

  std::string user;
  Secure_String password;
  EXPECT_EQ(Instance_Manager::instance().get_account("exchange", "exchange", "u1", user, password, nullptr), 0);
  EXPECT_EQ(user, "svc");
  EXPECT_EQ(std::string(password.c_str()), "s3cret");
  Log_Capture log;
  EXPECT_EQ(Instance_Manager::instance().get_account("exchange", "exchange", "u2", user, password, nullptr), -1);
  EXPECT_TRUE(log.contains("No account is stored"));
  EXPECT_FALSE(log.contains("s3cret"));

  // A bad document changes nothing.
  EXPECT_FALSE(config.load_text("{\"accounts\": 5}", error));
  EXPECT_FALSE(config.load_text("not json", error));
  // Settings are integers; a mistyped one is named rather than ignored.
  EXPECT_FALSE(config.load_text(R"({"settings": {"ews": {"paging_size": "250"}}})", error));
  EXPECT_NE(error.find("\"ews.paging_size\" must be an integer"), std::string::npos) << error;
  EXPECT_FALSE(config.load_text(R"({"settings": [1]})", error));
  EXPECT_NE(error.find("\"settings\" must be an object"), std::string::npos) << error;
  EXPECT_EQ(config.host_id(), "host-7");
}

TEST_F(AgentState, AlertsAreLoggedAndAppendedAsJsonLines)
{
  Temp_Dir dir;
  Agent_Config::instance().state_dir(dir.path());
  Plain_Job job(plain_definition());

  Log_Capture log;
  EXPECT_EQ(write_job_alert(&job, 7, 0x7000003050000006ULL, 0, nullptr), 0);
  EXPECT_EQ(write_job_alert(&job, 5, 0x5000003050000002ULL, 0, nlohmann::ordered_json::array({"a | b"})), 0);
  EXPECT_EQ(log.priority_of("0x7000003050000006"), static_cast<unsigned long>(LM_ERROR));
  EXPECT_EQ(log.priority_of("0x5000003050000002"), static_cast<unsigned long>(LM_WARNING));

  std::istringstream lines(read_file(dir.path() + "/alerts.jsonl"));
  std::string first, second;
  ASSERT_TRUE(std::getline(lines, first));
  ASSERT_TRUE(std::getline(lines, second));
  auto a = nlohmann::json::parse(first);
  auto b = nlohmann::json::parse(second);
  EXPECT_EQ(a["job_id"], "nightly");
  EXPECT_EQ(a["level"], 7);
  EXPECT_EQ(a["code"], "0x7000003050000006");
  EXPECT_TRUE(a["params"].is_null());
  EXPECT_EQ(b["params"][0], "a | b");
}

TEST_F(AgentState, JobLogsCarryTheJobsLinesAndItsLastError)
{
  Temp_Dir dir;
  Agent_Config::instance().state_dir(dir.path());
  Plain_Job job(plain_definition());
  ASSERT_EQ(job.log_path(), dir.path() + "/jobs/nightly.log");

  job.set_job_thread();
  ACE_DEBUG((LM_INFO, "%N:%l: first line\n"));
  ACE_DEBUG((LM_ERROR, "%N:%l: Failed to reach the mailbox 'a@b'.\n"));
  job.complete();
  ACE_DEBUG((LM_ERROR, "after the job\n"));  // not the job's any more

  const std::string log = read_file(job.log_path());
  EXPECT_NE(log.find(" INFO tests/host/job/agent_state_test.cpp:"), std::string::npos);
  EXPECT_NE(log.find(" ERROR "), std::string::npos);
  EXPECT_EQ(log.find("after the job"), std::string::npos);
  EXPECT_EQ(job.last_error(), "Failed to reach the mailbox 'a@b'.");
}
