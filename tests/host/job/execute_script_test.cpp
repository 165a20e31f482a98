#include "host/job/execute_script.h"
#include "support/log_capture.h"

#include <ace/Log_Record.h>
#include <chrono>
#include <cstdio>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

namespace
{
struct Collect : ACE_Log_Msg_Callback
{
  std::vector<std::string> lines;
  void log(ACE_Log_Record& r) override { lines.emplace_back(r.msg_data()); }
};
}  // namespace

TEST(ExecuteScript, ExitStatusDecides)
{
  EXPECT_TRUE(execute_script("", false, nullptr));
  EXPECT_TRUE(execute_script("true", false, nullptr));
  EXPECT_FALSE(execute_script("exit 3", false, nullptr));
  EXPECT_FALSE(execute_script("kill -9 $$", false, nullptr));
  EXPECT_FALSE(execute_script("/no/such/program", false, nullptr));
}

TEST(ExecuteScript, OutputLinesGoToTheCallbackOrTheLog)
{
  auto collect = std::make_shared<Collect>();
  EXPECT_TRUE(execute_script("echo one; echo two >&2; printf three", false, collect));
  ASSERT_EQ(collect->lines.size(), 3u);
  EXPECT_EQ(collect->lines[0], "Script: one\n");
  EXPECT_EQ(collect->lines[2], "Script: three\n");

  Log_Capture log;
  EXPECT_TRUE(execute_script("echo to-the-log", false, nullptr));
  EXPECT_TRUE(log.contains("Script: to-the-log\n"));
}

TEST(ExecuteScript, BackgroundScriptsDoNotBlock)
{
  // The script waits for a file that the test creates only after the call has
  // returned: a call that waited for the script would never return.
  const std::string base = "/tmp/exo_bg_script_" + std::to_string(::getpid());
  const std::string go = base + ".go", done = base + ".done";
  ::unlink(go.c_str());
  ::unlink(done.c_str());
  EXPECT_TRUE(execute_script("while [ ! -e " + go + " ]; do sleep 0.05; done; touch " + done, true, nullptr));
  FILE* f = std::fopen(go.c_str(), "w");
  ASSERT_NE(f, nullptr);
  std::fclose(f);
  for (int i = 0; i < 400 && ::access(done.c_str(), F_OK) != 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(::access(done.c_str(), F_OK), 0);
  ::unlink(go.c_str());
  ::unlink(done.c_str());
}
