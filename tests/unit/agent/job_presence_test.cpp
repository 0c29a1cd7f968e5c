#include "agent/job_presence.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include "base/path_conf.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sys/stat.h>

using namespace kestrel_test;

namespace
{
const std::string DUMPS = "var/cache/tarnvik/kestrel3/oscar/dump/";
const std::string LEFT = DUMPS + "7d3a1c52-0000-4000-8000-0000000000d7";
} // namespace

TEST(Job_Presence, removes_the_dump_files_of_killed_jobs_only_when_it_is_alone)
{
  Temp_Dir dir;
  const Scoped_Env root("KESTREL_ROOT", dir.path());
  std::string error;
  dir.write(LEFT + "/DB1_DB1/a.dump", "data");
  dir.write(DUMPS + "notes/mine", "data");
  kestrel::Job_Presence first;
  ASSERT_TRUE(first.enter(error)) << error;
  EXPECT_FALSE(exists(dir / LEFT));
  EXPECT_TRUE(exists(dir / (DUMPS + "notes/mine"))) << "not named like a definition";

  dir.write(LEFT + "/DB1_DB1/a.dump", "data");
  kestrel::Job_Presence second;
  ASSERT_TRUE(second.enter(error)) << error;
  EXPECT_TRUE(exists(dir / (LEFT + "/DB1_DB1/a.dump"))) << "the first one may be using it";
}

TEST(Job_Presence, removes_only_pipes_from_the_directories_of_the_databases)
{
  Temp_Dir dir;
  const Scoped_Env root("KESTREL_ROOT", dir.path());
  const std::string state = kestrel::state_path("");
  const std::string inside = dir.write(state.substr(dir.path().size() + 1) + "/pg/kept_fifo", "data");
  const std::string pipe = std::filesystem::path(inside).parent_path() / "left_fifo";
  ASSERT_EQ(0, ::mkfifo(pipe.c_str(), 0600));
  std::string error;
  std::vector<std::string> removed;
  kestrel::Job_Presence presence;
  ASSERT_TRUE(presence.enter(error, &removed)) << error;
  EXPECT_EQ(1u, removed.size());
  EXPECT_FALSE(exists(pipe));
  EXPECT_TRUE(exists(inside));
}

TEST(Job_Presence, needs_no_dump_root)
{
  Temp_Dir dir;
  const Scoped_Env root("KESTREL_ROOT", dir.path());
  kestrel::Job_Presence presence;
  std::string error;
  EXPECT_TRUE(presence.enter(error)) << error;
}
