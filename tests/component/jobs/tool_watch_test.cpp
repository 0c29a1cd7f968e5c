#include "jobs/tool_watch.h"

#include "process/text_process_handler.h"
#include "support/fake_tool.h"
#include "support/waiting.h"
#include "unit/jobs/job_fixture.h"

#include <ace/Process.h>

#include <csignal>
#include <thread>

namespace kestrel_test
{
namespace
{
/// Counts the lines of the tool.
class Counting_Handler : public Text_Process_Handler
{
public:
  Counting_Handler() : Text_Process_Handler(0, 60) {}
  int handle_stdout_line(const char*, unsigned int) override
  {
    ++lines;
    return 0;
  }
  std::atomic<int> lines{0};
};
} // namespace

/// A real tool under a clock that only the test moves.
class Tool_Watch_Of_A_Tool : public Job_Test
{
protected:
  ~Tool_Watch_Of_A_Tool() override
  {
    if (reader_.joinable()) {
      kestrel::ignore_result(handler_.terminate(0), "it may be gone");
      reader_.join();
    }
  }

  /// Starts the tool in a process group of its own and reads its output on another thread, as executors do.
  void start_tool(const std::string& script)
  {
    const std::string tool = make_fake_tool(root_, "tool", script);
    ACE_Process_Options options(true);
    options.command_line("%s", tool.c_str());
    options.handle_inheritance(0);
    options.setgroup(0);
    ACE_Process_Ex process(6, nullptr, std::shared_ptr<ACE_Log_Msg_Callback>());
    ASSERT_EQ(0, handler_.spawn(&process, options, nullptr));
    reader_ = std::thread([this] { result_ = handler_.wait(nullptr); });
  }
  int finish()
  {
    reader_.join();
    return result_;
  }

  Fake_Clock clock_;
  const Job_Ptr job_ = make_job();
  Counting_Handler handler_;
  std::thread reader_;
  int result_ = 0;
};

TEST_F(Tool_Watch_Of_A_Tool, terminates_a_silent_tool_of_a_cancelled_job)
{
  for (const Job_State state : {JOB_STATE_CANCELING, JOB_STATE_CANCELED, JOB_STATE_ABORTING}) {
    Log_Capture log;
    start_tool("hang\n");
    kestrel::Tool_Watch watch(*job_, handler_, "brcmd", 60000);
    job_->activity()->state = state;
    watch.check();
    clock_.advance_msec(61000);
    watch.check();
    EXPECT_TRUE(watch.fired());
    EXPECT_EQ(-1, finish());
    EXPECT_TRUE(log.expect(
        LM_WARNING, std::string("job ") + DEFINITION_ID + " is " + kestrel::job_state_text(state) +
                        ", but brcmd has been silent for 61 seconds: terminating its process group"));
    EXPECT_TRUE(log.expect(LM_WARNING, "brcmd has been terminated"));
  }
}

TEST_F(Tool_Watch_Of_A_Tool, looks_by_itself)
{
  Log_Capture log;
  start_tool("hang\n");
  kestrel::Tool_Watch watch(*job_, handler_, "brcmd", 1000);
  job_->activity()->state = JOB_STATE_CANCELING;
  ASSERT_TRUE(eventually([&] {
    clock_.advance_msec(20);
    return watch.fired();
  }));
  EXPECT_EQ(-1, finish());
  EXPECT_TRUE(log.expect(LM_WARNING, "terminating its process group"));
  EXPECT_TRUE(log.expect(LM_WARNING, "has been terminated"));
}

TEST_F(Tool_Watch_Of_A_Tool, without_a_grace_ends_a_busy_tool_at_the_cancel)
{
  Log_Capture log;
  start_tool("out_lines 3 busy\nhang\n");
  ASSERT_TRUE(eventually([&] { return handler_.lines == 3; }));
  kestrel::Tool_Watch watch(*job_, handler_, "osrexp", 0);
  watch.touch();
  watch.check();
  EXPECT_FALSE(watch.fired());
  job_->activity()->state = JOB_STATE_CANCELING;
  watch.check();
  EXPECT_TRUE(watch.fired());
  EXPECT_EQ(-1, finish());
  EXPECT_TRUE(log.expect(LM_INFO, "is canceling: terminating osrexp and its process group"));
  EXPECT_EQ(0u, log.count(LM_WARNING, "")) << "ending it is what was asked for";
}

TEST_F(Tool_Watch_Of_A_Tool, kills_a_tool_that_ignores_the_request)
{
  Log_Capture log;
  start_tool("ignore TERM\nout ready\nhang\n");
  ASSERT_TRUE(eventually([&] { return handler_.lines == 1; }));
  kestrel::Tool_Watch watch(*job_, handler_, "brcmd", 1000);
  job_->activity()->state = JOB_STATE_CANCELING;
  ASSERT_TRUE(eventually([&] {
    clock_.advance_msec(20); // also from the request to the kill, and slowly enough for that one to work
    return watch.fired();
  }));
  EXPECT_EQ(-1, finish());
  EXPECT_TRUE(log.expect(LM_WARNING, "terminating its process group"));
  EXPECT_TRUE(log.expect(LM_WARNING, "has been terminated"));
}

TEST_F(Tool_Watch_Of_A_Tool, does_not_let_a_tool_talk_itself_out_of_its_end)
{
  Log_Capture log;
  start_tool("ignore TERM\nout_lines 3 busy\nhang\n");
  ASSERT_TRUE(eventually([&] { return handler_.lines == 3; }));
  kestrel::Tool_Watch watch(*job_, handler_, "brcmd", 60000);
  job_->activity()->state = JOB_STATE_CANCELING;
  watch.check();
  watch.expect_end();
  clock_.advance_msec(59000);
  watch.touch();
  watch.check();
  EXPECT_FALSE(watch.fired());
  ASSERT_TRUE(eventually([&] {
    clock_.advance_msec(1000); // and from the request to the kill
    watch.touch();
    return watch.fired();
  }));
  EXPECT_EQ(-1, finish());
  EXPECT_TRUE(log.expect(LM_WARNING, "but brcmd has been told to end and has not for "));
  EXPECT_TRUE(log.expect(LM_WARNING, "brcmd has been terminated"));
}

TEST_F(Tool_Watch_Of_A_Tool, leaves_a_job_alone_that_nobody_cancelled)
{
  start_tool("hang\n");
  kestrel::Tool_Watch watch(*job_, handler_, "brcmd", 60000);
  for (const Job_State state :
       {JOB_STATE_RUNNING, JOB_STATE_PAUSING, JOB_STATE_SWITCHING, JOB_STATE_COMPLETING}) {
    job_->activity()->state = state;
    watch.check();
    clock_.advance_msec(3600 * 1000);
    watch.check();
    EXPECT_FALSE(watch.fired());
  }
}

TEST_F(Tool_Watch_Of_A_Tool, gives_the_whole_grace_after_the_cancel_and_after_the_last_sign_of_life)
{
  Log_Capture log;
  start_tool("hang\n");
  kestrel::Tool_Watch watch(*job_, handler_, "brcmd", 60000);
  clock_.advance_msec(3600 * 1000); // long silent before
  job_->activity()->state = JOB_STATE_CANCELING;
  watch.check();
  clock_.advance_msec(59000);
  watch.check();
  EXPECT_FALSE(watch.fired());
  watch.touch(); // bytes moved
  clock_.advance_msec(59000);
  watch.check();
  EXPECT_FALSE(watch.fired());
  clock_.advance_msec(1000);
  watch.check();
  EXPECT_TRUE(watch.fired());
  EXPECT_EQ(-1, finish());
  EXPECT_TRUE(log.expect(LM_WARNING, "has been silent for 60 seconds"));
  EXPECT_TRUE(log.expect(LM_WARNING, "has been terminated"));
}

TEST_F(Tool_Watch_Of_A_Tool, takes_a_line_of_the_tool_as_a_sign_of_life)
{
  Log_Capture log;
  start_tool("wait_file " + (root_ / "say") + "\nout here\nhang\n");
  kestrel::Tool_Watch watch(*job_, handler_, "brcmd", 60000);
  job_->activity()->state = JOB_STATE_CANCELING;
  watch.check();
  clock_.advance_msec(59000);
  root_.write("say", "");
  ASSERT_TRUE(eventually([&] { return handler_.lines == 1; }));
  clock_.advance_msec(59000);
  watch.check();
  EXPECT_FALSE(watch.fired());
  clock_.advance_msec(1000);
  watch.check();
  EXPECT_TRUE(watch.fired());
  EXPECT_EQ(-1, finish());
  EXPECT_TRUE(log.expect(LM_WARNING, "has been silent for 60 seconds"));
  EXPECT_TRUE(log.expect(LM_WARNING, "has been terminated"));
}

TEST_F(Tool_Watch_Of_A_Tool, does_nothing_once_the_tool_has_ended)
{
  start_tool("exit 3\n");
  EXPECT_EQ(3, finish());
  kestrel::Tool_Watch watch(*job_, handler_, "brcmd", 60000);
  job_->activity()->state = JOB_STATE_CANCELING;
  watch.check();
  clock_.advance_msec(120000);
  watch.check();
  EXPECT_FALSE(watch.fired());
}
} // namespace kestrel_test
