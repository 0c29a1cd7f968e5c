#include "cli/command_line.h"
#include "cli/exit_code.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
const char home[] = "SZ_OSCAR_HOME";

/// Of a command that does nothing, in this process's environment.
void run_any_command()
{
  Command_Line line;
  bool ran = false;
  line.actions.standalone = [&](const Command_Line&) {
    ran = true;
    return EXIT_CODE_DONE;
  };
  EXPECT_EQ(EXIT_CODE_DONE, run_command(line));
  EXPECT_TRUE(ran);
}
} // namespace

TEST(Run_Command, makes_a_relative_installation_directory_absolute)
{
  const Scoped_Env relative(home, "some/oscar");
  run_any_command();
  EXPECT_EQ(std::filesystem::current_path() / "some/oscar", std::getenv(home));
}

TEST(Run_Command, leaves_an_absolute_installation_directory_or_none_as_it_is)
{
  {
    const Scoped_Env absolute(home, "/opt/../oscar");
    run_any_command();
    EXPECT_STREQ("/opt/../oscar", std::getenv(home));
  }
  {
    const Scoped_Env empty(home, "");
    run_any_command();
    EXPECT_STREQ("", std::getenv(home));
  }
  const Scoped_Env none(home, nullptr);
  run_any_command();
  EXPECT_EQ(nullptr, std::getenv(home));
}
