#include "backup/job/controllable_job_t.h"
#include "host/base/uuid.h"
#include "test_executor.h"

#include <ace/Thread_Manager.h>

#include <gtest/gtest.h>

namespace
{
typedef Controllable_Job_T<Test_Executor> Controllable_Test_Job;
typedef Default_Job_T<Test_Executor> Default_Test_Job;
typedef std::vector<std::string> Events;

class JobLifecycle : public ::testing::Test
{
protected:
  void SetUp() override { script().reset(); }
  static Executor_Script& script() { return Executor_Script::current(); }
};
}  // namespace

TEST_F(JobLifecycle, StartRunsTheJobOnItsOwnThreadWithoutWaiting)
{
  script().block = true;
  Job_var job(new Controllable_Test_Job(make_test_definition()));
  ASSERT_EQ(job->start(nullptr), 0);
  ASSERT_TRUE(script().wait_for("execute_i"));
  // start() has returned while the work is still going on.
  EXPECT_TRUE(job->running());
  EXPECT_EQ(job->activity().state, JOB_STATE_RUNNING);
  EXPECT_NE(script().thread, std::this_thread::get_id());
  EXPECT_EQ(job->start(nullptr), -1);  // one run at a time
  script().release();
  EXPECT_TRUE(job->wait(20000));
  EXPECT_EQ(script().recorded().back(), "success");
  EXPECT_EQ(job->activity().state, JOB_STATE_IDLE);

  unsigned char uid[16];
  ASSERT_EQ(uuid_string_to_binary(job->definition().uid().c_str(), uid), 0);
  EXPECT_EQ(std::memcmp(job->activity().uid, uid, 16), 0);
}

TEST_F(JobLifecycle, EmptyOptionsReachTheExecutorAsNull)
{
  Job_var job(new Controllable_Test_Job(make_test_definition()));
  Action_Options empty;
  ASSERT_EQ(job->start(&empty), 0);
  ASSERT_TRUE(job->wait(20000));
  EXPECT_TRUE(script().saw_null_opts);

  Action_Options given{{"level", "full"}};
  ASSERT_EQ(job->start(&given), 0);
  ASSERT_TRUE(job->wait(20000));
  EXPECT_FALSE(script().saw_null_opts);
}

TEST_F(JobLifecycle, StopCancelsARunningJobCooperatively)
{
  script().block = true;
  Job_var job(new Controllable_Test_Job(make_test_definition()));
  ASSERT_EQ(job->start(nullptr), 0);
  ASSERT_TRUE(script().wait_for("execute_i"));
  EXPECT_EQ(job->stop(nullptr), 0);
  ASSERT_TRUE(job->wait(20000));
  EXPECT_EQ(script().recorded().back(), "canceled");
}

TEST_F(JobLifecycle, ControlRequestsOnlyRecordTheirState)
{
  Job_var job(new Controllable_Test_Job(make_test_definition()));
  EXPECT_EQ(job->pause(nullptr), 0);
  EXPECT_EQ(job->activity().state, JOB_STATE_PAUSING);
  EXPECT_EQ(job->resume(nullptr), 0);
  EXPECT_EQ(job->activity().state, JOB_STATE_RUNNING);
  EXPECT_EQ(job->switch_job(nullptr), 0);
  EXPECT_EQ(job->activity().state, JOB_STATE_SWITCHING);
  EXPECT_EQ(job->abort(), 0);
  EXPECT_EQ(job->activity().state, JOB_STATE_ABORTING);
  EXPECT_EQ(job->abort(nullptr), 0);
  EXPECT_EQ(job->activity().state, JOB_STATE_CANCELING);

  Job_var plain(new Default_Test_Job(make_test_definition()));
  EXPECT_EQ(plain->stop(nullptr), -1);
  EXPECT_EQ(plain->resume(nullptr), -1);
  EXPECT_EQ(plain->pause(nullptr), -1);
  EXPECT_EQ(plain->abort(), -1);
  EXPECT_TRUE(script().recorded().empty());
}

TEST_F(JobLifecycle, OnDemandJobsAreSetUpAndTornDown)
{
  script().others_result = false;  // answers are ignored
  Job_var job(new Controllable_Test_Job(make_test_definition(true)));
  EXPECT_EQ(script().recorded(), (Events{"setup_ondemand"}));
  EXPECT_EQ(job->remove(false, nullptr), 0);
  EXPECT_EQ(script().recorded(), (Events{"setup_ondemand", "remove_ondemand", "remove"}));
  EXPECT_EQ(job->update(make_test_definition(true)), 0);
  EXPECT_EQ(script().recorded().back(), "update");

  script().reset();
  Job_var scheduled(new Controllable_Test_Job(make_test_definition(false)));
  EXPECT_TRUE(script().recorded().empty());
  EXPECT_EQ(scheduled->remove(true, nullptr), 0);
  EXPECT_EQ(script().recorded(), (Events{"remove"}));
}

TEST_F(JobLifecycle, RollbackRunsOnADetachedThread)
{
  Job_var job(new Controllable_Test_Job(make_test_definition()));
  EXPECT_EQ(job->rollback(), 0);
  ASSERT_TRUE(script().wait_for("rollback"));
  EXPECT_NE(script().thread, std::this_thread::get_id());
  // The rollback thread is detached: wait for its end before the job and the script
  // it reports to go away.
  EXPECT_EQ(ACE_Thread_Manager::instance()->wait(), 0);
}
