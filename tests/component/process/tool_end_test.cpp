#include "tool_runs.h"

#include "support/clocks.h"
#include "support/waiting.h"

#include <gtest/gtest.h>

#include <csignal>
#include <dirent.h>
#include <sys/wait.h>
#include <thread>

using namespace tool_runs;
using kestrel_test::eventually;
using kestrel_test::has_ended;
using kestrel_test::make_fake_tool;
using kestrel_test::Scaled_Clock;
using kestrel_test::Temp_Dir;

TEST(Tool_End, does_not_wait_for_ever_for_a_grandchild_that_holds_the_pipes)
{
  Scaled_Clock clock(200);
  Temp_Dir dir;
  Collecting_Handler handler;
  const int64_t before = clock.monotonic_msec();
  EXPECT_EQ(5, run(handler, make_fake_tool(dir, "tool",
                                           "grandchild 20000 " + (dir / "pid") +
                                               "\nout said\nout_raw rest\nexit 5\n")));
  const int64_t waited = clock.monotonic_msec() - before;
  EXPECT_EQ((Lines{"said", "rest"}), handler.out);
  EXPECT_EQ(1, handler.out_closed);
  EXPECT_GE(waited, 60 * 1000);
  ::kill(std::stoi(kestrel_test::read_file(dir / "pid")), SIGKILL);
}

TEST(Tool_End, waits_for_a_grandchild_that_finishes_the_output_in_time)
{
  Temp_Dir dir;
  Collecting_Handler handler;
  EXPECT_EQ(0, run(handler, make_fake_tool(dir, "tool", "grandchild 50\nout said\n")));
  EXPECT_EQ((Lines{"said"}), handler.out);
}

TEST(Tool_End, sees_the_end_of_a_child_that_closed_its_outputs_early)
{
  Temp_Dir dir;
  Collecting_Handler handler;
  EXPECT_EQ(4, run(handler,
                   make_fake_tool(dir, "tool", "out said\nclose stdout\nclose stderr\nsleep 30\nexit 4\n")));
  EXPECT_EQ((Lines{"said"}), handler.out);
}

TEST(Tool_End, waits_as_long_as_it_was_told)
{
  Scaled_Clock clock(100);
  Temp_Dir dir;
  Tool_Options options(make_fake_tool(dir, "tool", "wait_file " + (dir / "go") + "\nout done\nexit 6\n"));
  ACE_Process_Ex process(6, nullptr, no_callback);
  Collecting_Handler handler;
  ASSERT_EQ(0, handler.spawn(&process, options, nullptr));
  const ACE_Time_Value ten_seconds(10);
  EXPECT_EQ(-1, handler.wait(&ten_seconds));
  EXPECT_EQ(ETIME, errno);
  EXPECT_EQ(-1, handler.wait(&ACE_Time_Value::zero));
  EXPECT_EQ(ETIME, errno);
  EXPECT_EQ(-1, handler.spawn(&process, options, nullptr));
  EXPECT_EQ(EBUSY, errno);
  dir.write("go", "");
  EXPECT_EQ(6, handler.wait(nullptr));
  EXPECT_EQ(6, handler.wait(nullptr));
  EXPECT_EQ(6, handler.wait(&ten_seconds));
  EXPECT_EQ((Lines{"done"}), handler.out);
}

TEST(Tool_End, has_nothing_to_wait_for_or_terminate_before_a_run)
{
  Collecting_Handler handler;
  EXPECT_EQ(-1, handler.wait(nullptr));
  EXPECT_EQ(ECHILD, errno);
  EXPECT_EQ(0, handler.terminate(600));
  EXPECT_EQ(0, handler.last_activity_msec());
}

TEST(Tool_End, terminates_a_silent_tool)
{
  Temp_Dir dir;
  Tool_Options options(make_fake_tool(dir, "tool", "out up\nhang\n"));
  ACE_Process_Ex process(6, nullptr, no_callback);
  Collecting_Handler handler;
  ASSERT_EQ(0, handler.spawn(&process, options, nullptr));
  EXPECT_EQ(0, handler.terminate(600));
  EXPECT_EQ(-1, handler.wait(nullptr));
  EXPECT_EQ(ECANCELED, errno);
  EXPECT_EQ(0, handler.terminate(600));
}

TEST(Tool_End, kills_a_tool_that_ignores_the_request_to_end)
{
  Scaled_Clock clock(1000);
  Temp_Dir dir;
  Tool_Options options(
      make_fake_tool(dir, "tool", "ignore TERM\nout up\nwrite_file " + (dir / "up") + " x\nhang\n"));
  ACE_Process_Ex process(6, nullptr, no_callback);
  Collecting_Handler handler;
  ASSERT_EQ(0, handler.spawn(&process, options, nullptr));
  while (!kestrel_test::exists(dir / "up"))
    std::this_thread::yield();
  const int64_t before = clock.monotonic_msec();
  EXPECT_EQ(0, handler.terminate(600));
  EXPECT_GE(clock.monotonic_msec() - before, 600 * 1000);
  EXPECT_EQ(-1, handler.wait(nullptr));
  EXPECT_EQ((Lines{"up"}), handler.out);
}

TEST(Tool_End, terminates_the_whole_process_group)
{
  Temp_Dir dir;
  Tool_Options options(
      make_fake_tool(dir, "tool", "grandchild 600000 " + (dir / "pid") + "\nout up\nhang\n"));
  ACE_Process_Ex process(6, nullptr, no_callback);
  Collecting_Handler handler;
  ASSERT_EQ(0, handler.spawn(&process, options, nullptr));
  while (!kestrel_test::exists(dir / "pid") || kestrel_test::read_file(dir / "pid").empty())
    std::this_thread::yield();
  EXPECT_EQ(0, handler.terminate(600));
  const pid_t grandchild = std::stoi(kestrel_test::read_file(dir / "pid"));
  EXPECT_TRUE(eventually([grandchild] { return has_ended(grandchild); }));
}

TEST(Tool_End, kills_members_of_the_group_that_outlive_a_terminated_leader)
{
  Scaled_Clock clock(100); // for the wait for the pipes, which the grandchild holds
  Temp_Dir dir;
  Tool_Options options(make_fake_tool(dir, "tool",
                                      "ignore TERM\ngrandchild 600000 " + (dir / "new") +
                                          "\ndefault TERM\ncopy " + (dir / "new") + " " + (dir / "pid") +
                                          "\nout up\nhang\n"));
  ACE_Process_Ex process(6, nullptr, no_callback);
  Collecting_Handler handler;
  ASSERT_EQ(0, handler.spawn(&process, options, nullptr));
  ASSERT_TRUE(kestrel_test::wait_for_file(dir / "pid"));
  const pid_t grandchild = std::stoi(kestrel_test::read_file(dir / "new"));
  EXPECT_EQ(0, handler.terminate(600));
  EXPECT_EQ(-1, handler.wait(nullptr));
  EXPECT_TRUE(eventually([grandchild] { return has_ended(grandchild); }));
}

TEST(Tool_End, takes_the_whole_group_with_it_when_it_goes)
{
  Temp_Dir dir;
  pid_t grandchild = -1;
  {
    Tool_Options options(make_fake_tool(dir, "tool",
                                        "ignore TERM\ngrandchild 600000 " + (dir / "new") + "\ncopy " +
                                            (dir / "new") + " " + (dir / "pid") + "\nhang\n"));
    ACE_Process_Ex process(6, nullptr, no_callback);
    Collecting_Handler handler;
    ASSERT_EQ(0, handler.spawn(&process, options, nullptr));
    ASSERT_TRUE(kestrel_test::wait_for_file(dir / "pid"));
    grandchild = std::stoi(kestrel_test::read_file(dir / "new"));
  }
  EXPECT_TRUE(eventually([grandchild] { return has_ended(grandchild); }));
}

TEST(Tool_End, can_reach_what_a_tool_left_behind_while_its_group_is_kept)
{
  Temp_Dir dir;
  const std::string tool = make_fake_tool(dir, "tool", "grandchild 600000 " + (dir / "pid_${run}") + "\n");
  std::vector<pid_t> left;
  {
    Collecting_Handler handler(0, 0);
    handler.keep_group();
    handler.kill_group(); // nothing ran yet
    for (int run_number = 1; run_number <= 2; ++run_number) {
      EXPECT_EQ(0, run(handler, tool));
      left.push_back(std::stoi(kestrel_test::read_file(dir / ("pid_" + std::to_string(run_number)))));
      EXPECT_FALSE(has_ended(left.back())) << "a tool that succeeds leaves behind what it likes";
    }
    handler.kill_group();
    EXPECT_TRUE(eventually([&left] { return has_ended(left[1]); }));
    EXPECT_FALSE(has_ended(left[0])) << "the group of an earlier run was let go";
    EXPECT_EQ(0, handler.wait(nullptr)) << "the result stays";
  }
  ::kill(left[0], SIGKILL);
  EXPECT_EQ(-1, ::waitpid(-1, nullptr, WNOHANG));
  EXPECT_EQ(ECHILD, errno) << "the zombie goes with its handler";
}

TEST(Tool_End, kills_what_a_failed_tool_left_only_when_asked_to)
{
  struct {
    bool asked;
    const char* end;
    bool killed;
  } const cases[] = {
      {true, "exit 1", true}, {true, "die KILL", true}, {true, "exit 0", false}, {false, "exit 1", false}};
  for (const auto& each : cases) {
    Temp_Dir dir;
    Collecting_Handler handler(0, 0);
    if (each.asked)
      handler.kill_group_on_failure();
    run(handler, make_fake_tool(dir, "tool", "grandchild 600000 " + (dir / "pid") + "\n" + each.end));
    const pid_t grandchild = std::stoi(kestrel_test::read_file(dir / "pid"));
    if (each.killed)
      EXPECT_TRUE(eventually([grandchild] { return has_ended(grandchild); })) << each.end;
    else
      EXPECT_FALSE(has_ended(grandchild)) << each.end;
    ::kill(grandchild, SIGKILL);
  }
}

TEST(Tool_End, serves_two_threads_of_which_one_terminates)
{
  Temp_Dir dir;
  const std::string tool = make_fake_tool(dir, "tool", "out up\nwrite_file " + (dir / "up") + " x\nhang\n");
  Collecting_Handler handler;
  std::thread runner([&] {
    // The process object is gone before the other thread's calls return.
    Tool_Options options(tool);
    ACE_Process_Ex process(6, nullptr, no_callback);
    ASSERT_EQ(0, handler.spawn(&process, options, nullptr));
    EXPECT_EQ(-1, handler.wait(nullptr));
  });
  while (!kestrel_test::exists(dir / "up"))
    std::this_thread::yield();
  EXPECT_EQ(0, handler.terminate(600));
  EXPECT_EQ(-1, handler.wait(nullptr));
  runner.join();
  EXPECT_EQ((Lines{"up"}), handler.out);
}

TEST(Tool_End, gives_the_result_to_all_that_wait)
{
  Temp_Dir dir;
  Tool_Options options(
      make_fake_tool(dir, "tool", "wait_file " + (dir / "go") + "\nout_lines 1000 x\nexit 9\n"));
  ACE_Process_Ex process(6, nullptr, no_callback);
  Collecting_Handler handler;
  ASSERT_EQ(0, handler.spawn(&process, options, nullptr));
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] { EXPECT_EQ(9, handler.wait(nullptr)); });
  const ACE_Time_Value little(0, 20000);
  EXPECT_EQ(-1, handler.wait(&little));
  dir.write("go", "");
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(1000u, handler.out.size());
}

TEST(Tool_End, keeps_a_tool_alive_whose_starting_thread_has_ended)
{
  Temp_Dir dir;
  const std::string tool = make_fake_tool(dir, "tool", "wait_file " + (dir / "go") + "\nout alive\n");
  Collecting_Handler handler;
  std::thread([&] {
    Tool_Options options(tool);
    ACE_Process_Ex process(6, nullptr, no_callback);
    ASSERT_EQ(0, handler.spawn(&process, options, nullptr));
  }).join();
  const ACE_Time_Value little(0, 20000);
  EXPECT_EQ(-1, handler.wait(&little));
  EXPECT_EQ(ETIME, errno);
  dir.write("go", "");
  EXPECT_EQ(0, handler.wait(nullptr));
  EXPECT_EQ((Lines{"alive"}), handler.out);
}

TEST(Tool_End, takes_a_running_tool_with_it_when_it_goes)
{
  Temp_Dir dir;
  pid_t pid = -1;
  {
    Tool_Options options(make_fake_tool(dir, "tool", "ignore TERM\nhang\n"));
    ACE_Process_Ex process(6, nullptr, no_callback);
    Collecting_Handler handler;
    ASSERT_EQ(0, handler.spawn(&process, options, nullptr));
    pid = process.getpid();
    EXPECT_EQ(0, ::kill(pid, 0));
  }
  EXPECT_EQ(-1, ::kill(pid, 0));
  EXPECT_EQ(ESRCH, errno);
}

TEST(Tool_End, notes_when_output_last_came)
{
  Scaled_Clock clock(100);
  Temp_Dir dir;
  Tool_Options options(make_fake_tool(dir, "tool", "out one\nwait_file " + (dir / "go") + "\nout two\n"));
  ACE_Process_Ex process(6, nullptr, no_callback);
  Collecting_Handler handler;
  ASSERT_EQ(0, handler.spawn(&process, options, nullptr));
  const int64_t at_spawn = handler.last_activity_msec();
  EXPECT_GT(at_spawn, 0);
  const ACE_Time_Value seconds(20);
  while (handler.out.empty()) // delivered within the waits
    ASSERT_EQ(-1, handler.wait(&seconds));
  const int64_t first = handler.last_activity_msec();
  EXPECT_GE(first, at_spawn);
  EXPECT_EQ(-1, handler.wait(&seconds));
  EXPECT_EQ(first, handler.last_activity_msec());
  dir.write("go", "");
  EXPECT_EQ(0, handler.wait(nullptr));
  EXPECT_GT(handler.last_activity_msec(), first);
}

namespace
{
unsigned open_descriptors()
{
  unsigned count = 0;
  DIR* const directory = ::opendir("/proc/self/fd");
  while (::readdir(directory))
    ++count;
  ::closedir(directory);
  return count;
}
} // namespace

TEST(Tool_End, leaves_no_descriptor_and_no_zombie_behind)
{
  Temp_Dir dir;
  const std::string tool = make_fake_tool(dir, "tool", "out x\n");
  Collecting_Handler handler;
  EXPECT_EQ(0, run(handler, tool));
  const unsigned before = open_descriptors();
  for (int i = 0; i < 30; ++i) {
    // A handler keeps its buffer and its wake descriptor for the next run, so others come and go here.
    Collecting_Handler other;
    EXPECT_EQ(0, run(other, tool));
    EXPECT_EQ(-1, run(other, "/nonexistent/tool"));
    EXPECT_EQ(0, run(handler, tool));
  }
  EXPECT_EQ(before, open_descriptors());
  EXPECT_EQ(-1, ::waitpid(-1, nullptr, WNOHANG));
  EXPECT_EQ(ECHILD, errno);
}

TEST(Tool_End, is_seen_at_once_although_many_tools_run)
{
  // A pipe's end that leaked into another tool would hold this run open until that one ends.
  Temp_Dir dir;
  const std::string quick = make_fake_tool(dir, "quick", "out_lines 100 x\n");
  const std::string slow = make_fake_tool(dir, "slow", "wait_file " + (dir / "go") + "\n");
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] {
      Collecting_Handler handler;
      EXPECT_EQ(0, run(handler, slow));
    });
  std::vector<std::thread> quick_threads;
  for (int i = 0; i < 4; ++i)
    quick_threads.emplace_back([&] {
      for (int repeat = 0; repeat < 10; ++repeat) {
        Collecting_Handler handler;
        EXPECT_EQ(0, run(handler, quick));
        EXPECT_EQ(100u, handler.out.size());
      }
    });
  for (std::thread& thread : quick_threads)
    thread.join();
  dir.write("go", "");
  for (std::thread& thread : threads)
    thread.join();
}

TEST(Tool_End, may_come_while_another_thread_terminates)
{
  Temp_Dir dir;
  const std::string tool = make_fake_tool(dir, "tool", "out up\n");
  for (int i = 0; i < 30; ++i) {
    Collecting_Handler handler;
    Tool_Options options(tool);
    ACE_Process_Ex process(6, nullptr, no_callback);
    ASSERT_EQ(0, handler.spawn(&process, options, nullptr));
    std::thread waiting([&] { handler.wait(nullptr); });
    EXPECT_EQ(0, handler.terminate(600));
    waiting.join();
    // It ended by itself or by the signal.
    const int result = handler.wait(nullptr);
    EXPECT_TRUE(result == 0 || result == -1) << result;
  }
}
