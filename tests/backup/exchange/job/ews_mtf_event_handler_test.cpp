#include <gtest/gtest.h>

#include <vector>

#include "backup/exchange/job/ews_mtf_event_handler.h"
#include "host/job/job.h"
#include "host/job/job_definition.h"
#include "host/job/job_types.h"
#include "support/plain_job.h"

namespace
{
// Records what reaches the job's handler and answers with a chosen value.
class Recording_Handler : public Job_Event_Handler
{
public:
  explicit Recording_Handler(Job& job) : Job_Event_Handler(job) {}

  int handle_progress(int percent, ACE_UINT64 done, ACE_UINT64 total, ACE_UINT64 items) override
  {
    calls.push_back({static_cast<ACE_UINT64>(percent), done, total, items});
    return answer;
  }

  std::vector<std::vector<ACE_UINT64>> calls;
  int answer = 0;
};
}  // namespace

TEST(EWS_MTF_Event_Handler, ForwardsThePercentageAloneAndReturnsTheAnswer)
{
  Plain_Job job(plain_definition());
  Recording_Handler handler(job);
  EWS_MTF_Event_Handler bridge(handler, job.activity(), MTF::Event_Handler::PRM_FILE_COUNT);
  EXPECT_EQ(bridge.progress_report_mode(), MTF::Event_Handler::PRM_FILE_COUNT);
  EXPECT_EQ(bridge.handle_progress(0, 10, 20, 30), 0);
  handler.answer = -1;
  EXPECT_EQ(bridge.handle_progress(100, 1, 2, 3), -1);
  ASSERT_EQ(handler.calls.size(), 2u);
  EXPECT_EQ(handler.calls[0], std::vector<ACE_UINT64>({0, 0, 0, 0}));
  EXPECT_EQ(handler.calls[1], std::vector<ACE_UINT64>({100, 0, 0, 0}));

  // Called through the stream's interface, as the streams do.
  MTF::Event_Handler& as_stream_sees_it = bridge;
  handler.answer = 7;
  EXPECT_EQ(as_stream_sees_it.handle_progress(55, 5, 5, 5), 7);
  EXPECT_EQ(handler.calls.back(), std::vector<ACE_UINT64>({55, 0, 0, 0}));
}

TEST(EWS_MTF_Event_Handler, CancelsExactlyInTheCancelingState)
{
  Plain_Job job(plain_definition());
  Recording_Handler handler(job);
  EWS_MTF_Event_Handler bridge(handler, job.activity(), MTF::Event_Handler::PRM_FILE_SIZE);
  Job_Activity& act = job.activity();
  for (int32_t state : std::initializer_list<int32_t>{JOB_STATE_NONE, JOB_STATE_IDLE, JOB_STATE_RUNNING,
                                                      JOB_STATE_PAUSING, JOB_STATE_COMPLETING, JOB_STATE_SKIPPED,
                                                      JOB_STATE_ABORTING, JOB_STATE_SWITCHING, 9})
  {
    act.state = state;
    EXPECT_FALSE(bridge.canceling()) << state;
  }
  act.state = JOB_STATE_CANCELING;
  EXPECT_TRUE(bridge.canceling());
  act.state = JOB_STATE_RUNNING;
  EXPECT_FALSE(bridge.canceling());
}
