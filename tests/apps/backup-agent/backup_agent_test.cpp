#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace
{
struct Outcome
{
  int status;
  std::string out;  // standard output and error together
};

Outcome agent(const std::string& args)
{
  const std::string command = std::string(BACKUP_AGENT_PATH) + " " + args + " 2>&1";
  FILE* pipe = ::popen(command.c_str(), "r");
  Outcome o{-1, ""};
  if (pipe == nullptr)
    return o;
  std::array<char, 4096> buf;
  size_t n;
  while ((n = std::fread(buf.data(), 1, buf.size(), pipe)) > 0)
    o.out.append(buf.data(), n);
  const int raw = ::pclose(pipe);
  o.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  return o;
}

class BackupAgent : public ::testing::Test
{
protected:
  void SetUp() override
  {
    char pattern[] = "/tmp/exo_agent_XXXXXX";
    dir_ = ::mkdtemp(pattern);
  }
  void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }

  std::string write(const std::string& name, const std::string& text)
  {
    const std::string path = dir_ + "/" + name;
    std::ofstream(path) << text;
    return path;
  }

  std::string dir_;
};

bool has(const Outcome& o, const std::string& text) { return o.out.find(text) != std::string::npos; }
}  // namespace

TEST_F(BackupAgent, CheckJobPrintsWhatTheModuleUnderstood)
{
  Outcome backup = agent("check-job " EXAMPLES_DIR "/backup-job.json");
  EXPECT_EQ(backup.status, 0) << backup.out;
  EXPECT_TRUE(has(backup, "type: backup"));
  EXPECT_TRUE(has(backup, "schedule: ondemand"));
  EXPECT_TRUE(has(backup, "options: {\"method\":\"ews\",\"truncate\":true,\"compression\":\"zstd\""));
  EXPECT_TRUE(
    has(backup, "\"entries\":[\"exchange://4c1d2e3f-5a6b-4c7d-8e9f-0a1b2c3d4e5f/alice.archer%40demo.exosim.test\""));

  Outcome restore = agent("check-job " EXAMPLES_DIR "/restore-job.json");
  EXPECT_EQ(restore.status, 0) << restore.out;
  // The other spelling of the catalog key is read and written back as catalog_id.
  EXPECT_TRUE(has(restore, "\"catalog_id\":\"5b4c3d2e-1f0a-4b9c-8d7e-6f5a4b3c2d1e\""));
}

TEST_F(BackupAgent, CheckJobRefusesBadDefinitionsWithTheModulesMessages)
{
  Outcome missing = agent("check-job " + write("missing.json", R"({"type":"restore","uid":"u","id":"i",
                                "source":{"id":"t","catalog_id":"c"}})"));
  EXPECT_EQ(missing.status, 1);
  EXPECT_TRUE(has(missing, "Failed to parse job definition source, lack of 'restore_as'."));
  EXPECT_TRUE(has(missing, "invalid job source"));

  Outcome options = agent("check-job " + write("options.json", R"({"type":"backup","uid":"u","id":"i",
                          "options":{"channels":-3},"source":{"id":"t","entries":[]}})"));
  EXPECT_EQ(options.status, 1);
  EXPECT_TRUE(has(options, "Invalid number: -3."));

  Outcome unknown = agent("check-job " + write("unknown.json", R"({"type":"archive","uid":"u","id":"i"})"));
  EXPECT_EQ(unknown.status, 1);
  EXPECT_TRUE(has(unknown, "unknown job type 'archive'"));

  Outcome standby = agent("check-job " + write("standby.json", R"({"type":"standby","uid":"u","id":"i"})"));
  EXPECT_EQ(standby.status, 1);
  EXPECT_TRUE(has(standby, "runs no job of type standby"));

  Outcome truncated = agent("check-job " + write("truncated.json", R"({"type":"backup","uid")"));
  EXPECT_EQ(truncated.status, 1);
  EXPECT_TRUE(has(truncated, "malformed job definition"));

  Outcome absent = agent("check-job " + dir_ + "/absent.json");
  EXPECT_EQ(absent.status, 1);
  EXPECT_TRUE(has(absent, "cannot open"));
}

TEST_F(BackupAgent, BadInvocationsAndModulesAreReported)
{
  EXPECT_EQ(agent("").status, 64);
  EXPECT_EQ(agent("frobnicate x").status, 64);
  EXPECT_EQ(agent("check-job").status, 64);
  Outcome no_module = agent("--module " + dir_ + "/none.so check-job " EXAMPLES_DIR "/backup-job.json");
  EXPECT_EQ(no_module.status, 1);
  EXPECT_TRUE(has(no_module, "cannot load module"));
  Outcome not_module = agent("--module /lib/x86_64-linux-gnu/libz.so.1 check-job " EXAMPLES_DIR "/backup-job.json");
  EXPECT_EQ(not_module.status, 1);
  EXPECT_TRUE(has(not_module, "incomplete"));
}

TEST_F(BackupAgent, RunJobReportsTheOutcomeAndKeepsAJobLog)
{
  const std::string config =
    write("agent.json", "{\"state_dir\": \"" + dir_ + "/state\", \"log_file\": \"" + dir_ + "/agent.log\"}");
  Outcome run = agent("--config " + config + " run-job " EXAMPLES_DIR "/backup-job.json");
  // The tenant of the job is not registered: the job must fail and say why.
  EXPECT_EQ(run.status, 2) << run.out;
  EXPECT_TRUE(has(run, "job demo-backup failed"));
  EXPECT_TRUE(has(run, "message: Failed to get Office365 auth entry 4c1d2e3f-5a6b-4c7d-8e9f-0a1b2c3d4e5f."));

  std::ifstream log(dir_ + "/state/jobs/demo-backup.log");
  std::stringstream text;
  text << log.rdbuf();
  EXPECT_NE(text.str().find("Job 'demo-backup' started."), std::string::npos);
  EXPECT_NE(text.str().find("Job 'demo-backup' failed"), std::string::npos);
  std::ifstream agent_log(dir_ + "/agent.log");
  std::stringstream agent_text;
  agent_text << agent_log.rdbuf();
  EXPECT_NE(agent_text.str().find("Failed to get Office365 auth entry"), std::string::npos);
  EXPECT_EQ(::access((dir_ + "/state/activities/6f1c2b7e-3d4a-4f5b-9c8d-1e2f3a4b5c6d.act").c_str(), F_OK), 0);
}

TEST_F(BackupAgent, AppliesTheEwsSettingsOfItsConfiguration)
{
  const std::string config = write("agent.json", "{\"log_file\": \"" + dir_ +
                                                   "/agent.log\", \"settings\": "
                                                   "{\"ews\": {\"paging_size\": 250, \"batch_size\": 500}}}");
  Outcome verbose = agent("--verbose --config " + config + " check-job " EXAMPLES_DIR "/backup-job.json");
  EXPECT_EQ(verbose.status, 0) << verbose.out;
  EXPECT_TRUE(has(verbose, "Setting ews.batch_size = 500 is outside 1..100; using 100")) << verbose.out;
  EXPECT_TRUE(has(verbose,
                  "EWS settings: paging_size 250, batch_size 100, retry_budget_seconds 600, "
                  "retry_base_delay_ms 1000"))
    << verbose.out;
  std::ifstream log(dir_ + "/agent.log");
  std::stringstream text;
  text << log.rdbuf();
  EXPECT_NE(text.str().find("EWS settings: paging_size 250, batch_size 100"), std::string::npos) << text.str();

  Outcome mistyped =
    agent("--config " + write("mistyped.json", "{\"settings\": {\"ews\": {\"paging_size\": \"250\"}}}") +
          " check-job " EXAMPLES_DIR "/backup-job.json");
  EXPECT_EQ(mistyped.status, 1);
  EXPECT_TRUE(has(mistyped, "setting \"ews.paging_size\" must be an integer")) << mistyped.out;
}
