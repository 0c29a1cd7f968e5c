// What children see of an unusual parent: tests/tools/odd_parent.
#include "support/fake_tool.h"
#include "support/paths.h"
#include "support/temp_dir.h"
#include "support/waiting.h"

#include <gtest/gtest.h>

#include <csignal>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

using kestrel_test::make_fake_tool;
using kestrel_test::Temp_Dir;

namespace
{
/// Runs odd_parent; its wait status.
int run_odd_parent(const std::string& part, const std::string& directory, bool with_closed_streams)
{
  const std::string program = kestrel_test::bin_dir() + "/odd_parent";
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  for (int fd = 0; with_closed_streams && fd < 3; ++fd)
    ::posix_spawn_file_actions_addclose(&actions, fd);
  const char* argv[] = {program.c_str(), part.c_str(), directory.c_str(), nullptr};
  pid_t pid = -1;
  EXPECT_EQ(0, ::posix_spawn(&pid, program.c_str(), &actions, nullptr, const_cast<char**>(argv), environ));
  ::posix_spawn_file_actions_destroy(&actions);
  int status = -1;
  EXPECT_EQ(pid, ::waitpid(pid, &status, 0));
  return status;
}
} // namespace

TEST(Parent_State, closed_streams_do_not_mix_up_a_childs_streams)
{
  Temp_Dir dir;
  make_fake_tool(dir, "tool",
                 "dump_state " + (dir / "state") + "\nout \"to stdout\"\nerr \"to stderr\"\nexit 3\n");
  EXPECT_EQ(0, run_odd_parent("closed_streams", dir.path(), true));
  EXPECT_NE(std::string::npos, kestrel_test::read_file(dir / "state").find("\nstdin=/dev/null\n"));
}

TEST(Parent_State, sudden_death_takes_the_children_along)
{
  Temp_Dir dir;
  make_fake_tool(dir, "tool",
                 "ignore TERM\nignore PIPE\nwrite_file " + (dir / "new") + " \"${pid}\"\ncopy " +
                     (dir / "new") + " " + (dir / "pid") + "\nhang\n");
  const int status = run_odd_parent("sudden_death", dir.path(), false);
  ASSERT_TRUE(WIFSIGNALED(status)) << status;
  const pid_t tool = std::stoi(kestrel_test::read_file(dir / "new"));
  EXPECT_TRUE(kestrel_test::eventually([tool] { return kestrel_test::has_ended(tool); }));
}
