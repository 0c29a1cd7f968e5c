#include "jobs/tool_watch.h"

#include "process/text_process_handler.h"
#include "unit/jobs/job_fixture.h"

namespace kestrel_test
{
/// Without a tool that runs: whatever the job's state and however long the silence, nobody is signalled.
class Tool_Watches : public Job_Test
{
protected:
  Fake_Clock clock_;
  const Job_Ptr job_ = make_job();
  Text_Process_Handler handler_{0, 60};
};

TEST_F(Tool_Watches, do_nothing_before_the_tool_is_spawned)
{
  kestrel::Tool_Watch watch(*job_, handler_, "brcmd");
  for (const Job_State state :
       {JOB_STATE_RUNNING, JOB_STATE_CANCELING, JOB_STATE_CANCELED, JOB_STATE_ABORTING}) {
    job_->activity()->state = state;
    watch.check();
    clock_.advance_msec(3600 * 1000);
    watch.check();
    EXPECT_FALSE(watch.fired());
  }
}

TEST_F(Tool_Watches, end_at_once)
{
  for (int i = 0; i < 20; ++i) {
    kestrel::Tool_Watch watch(*job_, handler_);
    watch.touch();
  }
  EXPECT_EQ(0, clock_.slept_msec());
}
} // namespace kestrel_test
