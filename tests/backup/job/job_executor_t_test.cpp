#include "support/log_capture.h"
#include "test_executor.h"

#include <cstdio>
#include "support/plain_job.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace
{
class JobExecutorTemplate : public ::testing::Test
{
protected:
  void SetUp() override
  {
    Executor_Script::current().reset();
    def_ = make_test_definition();
    marker_ = "/tmp/exo_post_action_" + std::to_string(::getpid());
    std::remove(marker_.c_str());
  }
  void TearDown() override { std::remove(marker_.c_str()); }

  // Runs one execution on a fresh job in the running state.
  bool run()
  {
    job_.reset(new Plain_Job(def_));
    job_->activity().state = state_before_;
    Test_Executor executor(*job_);
    return executor.execute(nullptr);
  }
  std::vector<std::string> events() { return Executor_Script::current().recorded(); }
  bool post_action_ran() { return ::access(marker_.c_str(), F_OK) == 0; }
  std::string touch_marker() { return "touch " + marker_; }

  Job_Definition_var def_;
  std::unique_ptr<Plain_Job> job_;
  Job_State state_before_ = JOB_STATE_RUNNING;
  std::string marker_;
};

typedef std::vector<std::string> Events;
}  // namespace

TEST_F(JobExecutorTemplate, InactiveRunIsSkippedWithoutEvents)
{
  Executor_Script::current().active = false;
  EXPECT_TRUE(run());
  EXPECT_EQ(job_->activity().state, JOB_STATE_SKIPPED);
  EXPECT_GT(job_->activity().last_run_time, 0);
  EXPECT_TRUE(events().empty());
}

TEST_F(JobExecutorTemplate, FailedPreconditionEndsIdleWithoutCheckingTheCondition)
{
  def_->precondition("exit 3");
  EXPECT_TRUE(run());
  EXPECT_EQ(job_->activity().state, JOB_STATE_IDLE);
  EXPECT_TRUE(events().empty());

  def_->precondition("true");
  Executor_Script::current().condition = false;
  EXPECT_TRUE(run());
  EXPECT_EQ(job_->activity().state, JOB_STATE_IDLE);
  EXPECT_EQ(events(), (Events{"check_condition"}));
}

TEST_F(JobExecutorTemplate, SuccessfulRunReportsSuccess)
{
  def_->pre_action("true");
  def_->post_action(touch_marker());
  EXPECT_TRUE(run());
  EXPECT_EQ(events(), (Events{"check_condition", "start", "execute_i", "success"}));
  EXPECT_TRUE(post_action_ran());
  EXPECT_EQ(job_->activity().state, JOB_STATE_COMPLETING);
  EXPECT_TRUE(Executor_Script::current().saw_null_opts);
}

TEST_F(JobExecutorTemplate, FailedPreActionSkipsTheWorkAndRunsPostActionOnlyWhenAlways)
{
  def_->pre_action("exit 1");
  def_->post_action(touch_marker());
  EXPECT_FALSE(run());
  EXPECT_EQ(events(), (Events{"check_condition", "start", "failure"}));
  EXPECT_FALSE(post_action_ran());

  Executor_Script::current().reset();
  def_->run_post_action_always(true);
  EXPECT_FALSE(run());
  EXPECT_EQ(events(), (Events{"check_condition", "start", "failure"}));
  EXPECT_TRUE(post_action_ran());

  // An ignored pre-action failure lets the work run.
  Executor_Script::current().reset();
  def_->ignore_pre_action_failure(true);
  EXPECT_TRUE(run());
  EXPECT_EQ(events(), (Events{"check_condition", "start", "execute_i", "success"}));
}

TEST_F(JobExecutorTemplate, AJobNoLongerRunningDoesNotGoOnAfterThePreAction)
{
  state_before_ = JOB_STATE_CANCELING;
  EXPECT_FALSE(run());
  EXPECT_EQ(events(), (Events{"check_condition", "start", "canceled"}));

  Executor_Script::current().reset();
  state_before_ = JOB_STATE_PAUSING;
  EXPECT_FALSE(run());
  EXPECT_EQ(events(), (Events{"check_condition", "start", "failure"}));
}

TEST_F(JobExecutorTemplate, FailedWorkFailsEvenWhenThePostActionSucceeds)
{
  Executor_Script::current().main_result = false;
  def_->post_action(touch_marker());
  EXPECT_FALSE(run());
  EXPECT_EQ(events(), (Events{"check_condition", "start", "execute_i", "failure"}));
  EXPECT_FALSE(post_action_ran());

  Executor_Script::current().reset();
  Executor_Script::current().main_result = false;
  def_->run_post_action_always(true);
  EXPECT_FALSE(run());
  EXPECT_TRUE(post_action_ran());
  EXPECT_EQ(events().back(), "failure");
}

TEST_F(JobExecutorTemplate, PostActionRulesAndStates)
{
  // No post-action: the state is left alone.
  EXPECT_TRUE(run());
  EXPECT_EQ(job_->activity().state, JOB_STATE_RUNNING);

  // A failing post-action fails the run unless ignored.
  Executor_Script::current().reset();
  def_->post_action("exit 2");
  EXPECT_FALSE(run());
  EXPECT_EQ(job_->activity().state, JOB_STATE_COMPLETING);
  EXPECT_EQ(events().back(), "failure");

  Executor_Script::current().reset();
  def_->ignore_post_action_failure(true);
  EXPECT_TRUE(run());
  EXPECT_EQ(events().back(), "success");
}

TEST_F(JobExecutorTemplate, MissingSourceIsAnInvariantBreakReportedToNobody)
{
  def_->source(Job_Source_var());
  Log_Capture log;
  EXPECT_FALSE(run());
  EXPECT_TRUE(events().empty());
  EXPECT_TRUE(log.contains("Unexpected error in backup/job/job_executor_t.inl:26, src_ is NULL:\n"));
}
