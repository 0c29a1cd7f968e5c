#include "process/subprocess.h"

#include "tool_runs.h"

#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <thread>

using namespace tool_runs;
using kestrel_test::Log_Capture;
using kestrel_test::make_fake_tool;
using kestrel_test::Temp_Dir;

namespace
{
int call(const std::string& command)
{
  Tool_Options options(command);
  return subprocess::call(options, no_callback);
}
} // namespace

TEST(Subprocess, gives_the_exit_status)
{
  Temp_Dir dir;
  EXPECT_EQ(0, call(make_fake_tool(dir, "tool", "out lost\nerr lost\n")));
  EXPECT_EQ(3, call(make_fake_tool(dir, "tool", "exit 3\n")));
  EXPECT_EQ(-1, call(make_fake_tool(dir, "tool", "die KILL\n")));
}

TEST(Subprocess, says_which_program_cannot_be_started_but_not_its_arguments)
{
  Log_Capture log;
  EXPECT_EQ(-1, call("/nonexistent/starter -p hunter2"));
  EXPECT_EQ(ENOENT, errno);
  log.expect(LM_ERROR, "Failed to start starter, errno=2, No such file or directory\n");
  EXPECT_FALSE(log.contains("hunter2"));
}

TEST(Subprocess, does_not_wait_for_a_daemon_that_the_command_leaves_behind)
{
  Temp_Dir dir;
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(0, call(make_fake_tool(dir, "tool", "grandchild 30000 " + (dir / "pid") + "\n")));
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(20));
  const pid_t daemon = std::stoi(kestrel_test::read_file(dir / "pid"));
  EXPECT_EQ(0, ::kill(daemon, SIGKILL)) << "the daemon should have been alive";
}

TEST(Subprocess, gives_the_child_the_null_device)
{
  Temp_Dir dir;
  EXPECT_EQ(0, call("/bin/sh -c 'readlink /proc/self/fd/0 /proc/self/fd/1 /proc/self/fd/2 > " +
                    (dir / "links") + "'"));
  EXPECT_EQ("/dev/null\n" + (dir / "links") + "\n/dev/null\n", kestrel_test::read_file(dir / "links"));
}

TEST(Subprocess, searches_the_path_of_the_options)
{
  Temp_Dir dir;
  make_fake_tool(dir, "bin/own_tool", "exit 7\n");
  Tool_Options options((dir / "bin/own_tool").c_str());
  options.command_line("own_tool");
  options.setenv("PATH", "%s", ("/nonexistent:" + (dir / "bin")).c_str());
  // The tool finds its script through its name, which has no directory here.
  options.setenv("FAKE_TOOL_SCRIPT", "%s", (dir / "bin/own_tool.script").c_str());
  EXPECT_EQ(7, subprocess::call(options, no_callback));
}

TEST(Subprocess, runs_in_the_options_directory)
{
  Temp_Dir dir;
  Tool_Options options("/bin/sh -c 'pwd > out'");
  options.working_directory(dir.path().c_str());
  EXPECT_EQ(0, subprocess::call(options, no_callback));
  EXPECT_EQ(dir.path() + "\n", kestrel_test::read_file(dir / "out"));
}

TEST(Subprocess, takes_the_streams_from_the_options)
{
  Temp_Dir dir;
  FILE* const file = ::fopen((dir / "out").c_str(), "w");
  ASSERT_TRUE(file);
  Tool_Options options(make_fake_tool(dir, "tool", "out said\nerr lost\n"));
  options.set_handles(ACE_INVALID_HANDLE, ::fileno(file));
  ::fclose(file);
  EXPECT_EQ(0, subprocess::call(options, no_callback));
  EXPECT_EQ("said\n", kestrel_test::read_file(dir / "out"));
}

TEST(Subprocess, knows_the_exit_status_although_the_host_ignored_sigchld)
{
  Temp_Dir dir;
  const std::string tool = make_fake_tool(dir, "tool", "exit 5\n");
  ::signal(SIGCHLD, SIG_IGN);
  EXPECT_EQ(5, call(tool));
  ::signal(SIGCHLD, SIG_DFL);
}
