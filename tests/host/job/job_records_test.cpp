#include "host/base/agent_config.h"
#include "host/base/compression.h"
#include "host/job/job.h"
#include "host/job/job_activity_path_conf.h"
#include "host/job/job_event_handler.h"
#include "host/job/job_mutex.h"
#include "temp_dir.h"

#include <fstream>
#include "support/plain_job.h"

#include <gtest/gtest.h>

namespace
{
class JobRecords : public ::testing::Test
{
protected:
  void TearDown() override { Agent_Config::instance().state_dir(""); }
};
}  // namespace

TEST_F(JobRecords, ActivityRecordsAreSharedThroughTheirFile)
{
  Temp_Dir dir;
  Agent_Config::instance().state_dir(dir.path());
  const std::string uid = "6f1c2b7e-3d4a-4f5b-9c8d-1e2f3a4b5c6d";
  {
    Job_Activity_Handle writer(uid);
    Job_Activity_Handle watcher(uid);  // as another process would map it
    ASSERT_EQ(writer.path(), dir.path() + "/activities/" + uid + ".act");
    writer->state = JOB_STATE_RUNNING;
    writer->progress = 42;
    writer->set_message("half way");
    EXPECT_EQ(watcher->state, JOB_STATE_RUNNING);
    EXPECT_EQ(watcher->progress, 42);
    EXPECT_STREQ(watcher->message, "half way");
  }
  // The record outlives the mapping.
  Job_Activity_Handle again(uid);
  EXPECT_EQ(again->progress, 42);

  // A damaged file is started afresh.
  {
    std::ofstream damage(again.path(), std::ios::binary | std::ios::in);
    damage.write("XXXX", 4);
  }
  Job_Activity_Handle fresh(uid);
  EXPECT_EQ(fresh->progress, 0);
  EXPECT_EQ(fresh->state, JOB_STATE_IDLE);
}

TEST_F(JobRecords, WithoutAStateFolderRecordsLiveInMemory)
{
  Job_Activity_Handle a("6f1c2b7e-3d4a-4f5b-9c8d-1e2f3a4b5c6d");
  Job_Activity_Handle b("6f1c2b7e-3d4a-4f5b-9c8d-1e2f3a4b5c6d");
  EXPECT_EQ(a.path(), "");
  a->progress = 7;
  EXPECT_EQ(b->progress, 0);
}

TEST_F(JobRecords, EventHandlerRecordsOutcomes)
{
  Plain_Job job(plain_definition());
  Job_Event_Handler handler(job);
  handler.handle_start_job();
  EXPECT_GT(job.activity().start_time, 0);
  handler.handle_progress(150, 0, 0, 0);
  EXPECT_EQ(job.activity().progress, 100);
  handler.handle_failure(45, "Failed to post catalog for %s", "nightly");
  EXPECT_EQ(job.activity().result, JOB_RESULT_FAILURE);
  EXPECT_EQ(job.activity().code, 45);
  EXPECT_STREQ(job.activity().message, "Failed to post catalog for nightly");
  handler.handle_canceled();
  EXPECT_EQ(job.activity().result, JOB_RESULT_CANCELED);
  handler.handle_success();
  EXPECT_EQ(job.activity().result, JOB_RESULT_SUCCESS);

  // A message longer than the record is cut and terminated.
  job.activity().set_message(std::string(5000, 'x').c_str());
  EXPECT_EQ(std::strlen(job.activity().message), Job_Activity::MESSAGE_SIZE - 1);
}

TEST(Compression, NamesConvertBothWays)
{
  EXPECT_EQ(compression_name_to_value("zstd", 0), COMPR_ZSTD);
  EXPECT_EQ(compression_name_to_value("lzop", 4), COMPR_LZOP);
  EXPECT_EQ(compression_name_to_value("auto", 0), COMPR_AUTO);
  EXPECT_EQ(compression_name_to_value("ZSTD", 0), COMPR_NONE);
  EXPECT_EQ(compression_name_to_value(nullptr, 0), COMPR_NONE);
  EXPECT_STREQ(compression_value_to_name(COMPR_NONE), "none");
  EXPECT_STREQ(compression_value_to_name(COMPR_ZSTD), "zstd");
  EXPECT_EQ(compression_value_to_name(4), nullptr);
  EXPECT_EQ(compression_value_to_name(-1), nullptr);
}

TEST(JobMutex, OneMutexPerSource)
{
  EXPECT_EQ(&Job_Mutex::get("tenant-a"), &Job_Mutex::get("tenant-a"));
  EXPECT_NE(&Job_Mutex::get("tenant-a"), &Job_Mutex::get("tenant-b"));
}
