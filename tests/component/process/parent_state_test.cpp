// What children see of an unusual parent. The parent is this program once more, running one of the DISABLED
// tests below: the state that is wanted would break the test program itself.
#include "tool_runs.h"

#include "support/paths.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace tool_runs;
using kestrel_test::make_fake_tool;
using kestrel_test::Temp_Dir;

namespace
{
/// Runs one test in a new process of this program; its wait status.
int run_test_in_new_process(const std::string& name, const std::string& directory, bool with_closed_streams)
{
  const std::string program = kestrel_test::bin_dir() + "/component_process";
  const std::string filter = "--gtest_filter=" + name;
  ::setenv("PARENT_STATE_DIRECTORY", directory.c_str(), 1);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  for (int fd = 0; with_closed_streams && fd < 3; ++fd)
    ::posix_spawn_file_actions_addclose(&actions, fd);
  const char* argv[] = {program.c_str(), filter.c_str(), "--gtest_also_run_disabled_tests", "--gtest_brief=1",
                        nullptr};
  pid_t pid = -1;
  EXPECT_EQ(0, ::posix_spawn(&pid, program.c_str(), &actions, nullptr, const_cast<char**>(argv), environ));
  ::posix_spawn_file_actions_destroy(&actions);
  ::unsetenv("PARENT_STATE_DIRECTORY");
  int status = -1;
  EXPECT_EQ(pid, ::waitpid(pid, &status, 0));
  return status;
}

std::string directory_of_parent()
{
  return ::getenv("PARENT_STATE_DIRECTORY") ? ::getenv("PARENT_STATE_DIRECTORY") : "";
}
} // namespace

TEST(Parent_State, DISABLED_closed_streams)
{
  const std::string directory = directory_of_parent();
  ASSERT_NE("", directory);
  for (int fd = 0; fd < 3; ++fd)
    ASSERT_EQ(-1, ::fcntl(fd, F_GETFD)) << "the streams should be closed";
  for (int repeat = 0; repeat < 3; ++repeat) {
    Collecting_Handler handler;
    EXPECT_EQ(3, run(handler, directory + "/tool"));
    EXPECT_EQ((Lines{"to stdout"}), handler.out);
    EXPECT_EQ((Lines{"to stderr"}), handler.err);
    EXPECT_EQ(-1, run(handler, "/nonexistent/tool"));
    EXPECT_EQ(ENOENT, errno);
  }
}

TEST(Parent_State, closed_streams_do_not_mix_up_a_childs_streams)
{
  Temp_Dir dir;
  make_fake_tool(dir, "tool",
                 "dump_state " + (dir / "state") + "\nout \"to stdout\"\nerr \"to stderr\"\nexit 3\n");
  EXPECT_EQ(0, run_test_in_new_process("Parent_State.DISABLED_closed_streams", dir.path(), true));
  EXPECT_NE(std::string::npos, kestrel_test::read_file(dir / "state").find("\nstdin=/dev/null\n"));
}

TEST(Parent_State, DISABLED_sudden_death)
{
  const std::string directory = directory_of_parent();
  ASSERT_NE("", directory);
  Tool_Options options(directory + "/tool");
  ACE_Process_Ex process(6, nullptr, no_callback);
  Collecting_Handler handler;
  ASSERT_EQ(0, handler.spawn(&process, options, nullptr));
  while (!kestrel_test::exists(directory + "/pid"))
    std::this_thread::yield();
  ::kill(::getpid(), SIGKILL);
}

TEST(Parent_State, sudden_death_takes_the_children_along)
{
  Temp_Dir dir;
  make_fake_tool(dir, "tool",
                 "ignore TERM\nignore PIPE\nwrite_file " + (dir / "new") + " \"${pid}\"\ncopy " +
                     (dir / "new") + " " + (dir / "pid") + "\nhang\n");
  const int status = run_test_in_new_process("Parent_State.DISABLED_sudden_death", dir.path(), false);
  ASSERT_TRUE(WIFSIGNALED(status));
  const std::string stat = "/proc/" + kestrel_test::read_file(dir / "new") + "/stat";
  bool ended = false;
  for (int tries = 0; tries < 1000 && !ended; ++tries) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    ended = !kestrel_test::exists(stat) || kestrel_test::read_file(stat).find(") Z ") != std::string::npos;
  }
  EXPECT_TRUE(ended);
}
