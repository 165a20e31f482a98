#include "backup/scrt/thread_helper.h"
#include "support/log_capture.h"

#include <ace/Thread_Manager.h>

#include <chrono>
#include <condition_variable>
#include <gtest/gtest.h>
#include <mutex>
#include <pthread.h>
#include <thread>

namespace
{
// Work bound to an object in the test's frame.
struct Gate
{
  std::mutex lock;
  std::condition_variable changed;
  bool open = false;
  bool ran = false;
  pthread_t thread{};

  void work()
  {
    std::unique_lock<std::mutex> guard(lock);
    ran = true;
    thread = pthread_self();
    changed.notify_all();
    changed.wait(guard, [this] { return open; });
  }
  int work_with_result()
  {
    work();
    return 42;
  }
  void let_go()
  {
    std::lock_guard<std::mutex> guard(lock);
    open = true;
    changed.notify_all();
  }
  bool wait_ran()
  {
    std::unique_lock<std::mutex> guard(lock);
    return changed.wait_for(guard, std::chrono::seconds(20), [this] { return ran; });
  }
};

bool eventually(const std::function<bool()>& condition)
{
  for (int i = 0; i < 2000 && !condition(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return condition();
}
}  // namespace

TEST(ThreadHelper, DetachedHelperKeepsNothing)
{
  Gate gate;
  {
    Thread_Helper helper(THR_DETACHED | THR_NEW_LWP, 0);
    ASSERT_GE(helper.spawn(&Gate::work_with_result, &gate), 0);
    EXPECT_FALSE(helper.exists());
    EXPECT_FALSE(helper.running());
    helper.set_name("ignored");
    helper.join();  // returns at once
  }                 // and so does the destructor, with the thread still blocked
  EXPECT_TRUE(gate.wait_ran());
  gate.let_go();
  // The gate lives in this frame: wait until the detached thread has really exited
  // (the thread manager keeps track of detached threads until their end) so that it
  // never touches the gate after the test returns.
  EXPECT_EQ(ACE_Thread_Manager::instance()->wait(), 0);
}

TEST(ThreadHelper, JoinableHelperTracksItsThread)
{
  Gate gate;
  Thread_Helper helper(THR_NEW_LWP | THR_JOINABLE, 0);
  ASSERT_GE(helper.spawn(&Gate::work, &gate), 0);
  ASSERT_TRUE(gate.wait_ran());
  EXPECT_TRUE(helper.exists());
  EXPECT_TRUE(helper.running());
  // A second spawn while the thread exists is refused.
  EXPECT_EQ(helper.spawn(&Gate::work, &gate), -1);

  gate.let_go();
  EXPECT_TRUE(eventually([&] { return !helper.running(); }));
  EXPECT_TRUE(helper.exists());
  helper.join();
  EXPECT_FALSE(helper.exists());
}

TEST(ThreadHelper, LongNamesAreCutToFifteenCharacters)
{
  Gate gate;
  Thread_Helper helper(THR_NEW_LWP | THR_JOINABLE, 0);
  ASSERT_GE(helper.spawn(&Gate::work, &gate), 0);
  ASSERT_TRUE(gate.wait_ran());
  {
    Log_Capture log;
    helper.set_name("EWSExportWorkerThread");
    EXPECT_EQ(log.count("Thread name(EWSExportWorkerThread) is too long, truncate to 15 chars.\n"), 1u);
  }
  char name[32] = "";
  ASSERT_EQ(pthread_getname_np(gate.thread, name, sizeof(name)), 0);
  EXPECT_STREQ(name, "EWSExportWorker");

  Log_Capture quiet;
  helper.set_name("EWSExport");
  ASSERT_EQ(pthread_getname_np(gate.thread, name, sizeof(name)), 0);
  EXPECT_STREQ(name, "EWSExport");
  EXPECT_TRUE(quiet.lines().empty());
  gate.let_go();
  helper.join();
}
