#include "oscar/dump_directory.h"

#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using namespace kestrel_test;
using oscar::Dump_Directory;

namespace
{
const std::string ID = "7d3a1c52-0000-4000-8000-0000000000d1";
const std::string DUMP = "var/cache/tarnvik/kestrel3/oscar/dump";

struct Dump_Root : testing::Test {
  const Temp_Dir dir;
  const Scoped_Env root{"KESTREL_ROOT", dir.path()};
  Log_Capture log;
};
} // namespace

TEST_F(Dump_Root, directory_is_named_by_the_definition)
{
  EXPECT_EQ(dir / (DUMP + "/" + ID), Dump_Directory(ID).path());
}

TEST_F(Dump_Root, clear_removes_only_the_definitions_own_directory)
{
  dir.write(DUMP + "/" + ID + "/DB1_DB1/old.dump", "old");
  dir.write(DUMP + "/7d3a1c52-0000-4000-8000-0000000000d2/other.dump", "other");
  dir.write(DUMP + "/beside", "beside");
  Dump_Directory dump(ID);
  EXPECT_TRUE(dump.clear());
  EXPECT_FALSE(exists(dump.path()));
  EXPECT_TRUE(exists(dir / (DUMP + "/7d3a1c52-0000-4000-8000-0000000000d2/other.dump")));
  EXPECT_TRUE(exists(dir / (DUMP + "/beside")));
}

TEST_F(Dump_Root, end_removes_the_directory_only_when_asked)
{
  const std::string file = DUMP + "/" + ID + "/x.dump";
  dir.write(file, "x");
  {
    const Dump_Directory dump(ID);
  }
  EXPECT_TRUE(exists(dir / file));
  {
    Dump_Directory dump(ID);
    dump.remove_at_end();
  }
  EXPECT_FALSE(exists(dir / (DUMP + "/" + ID)));
  EXPECT_TRUE(exists(dir / DUMP));
}

TEST_F(Dump_Root, refuses_every_id_that_is_no_uuid_before_anything_is_removed)
{
  dir.write(DUMP + "/" + ID + "/x.dump", "x");
  dir.write("victim/x", "x");
  const Scoped_Env victim("VICTIM", dir / "victim");
  for (const std::string& id :
       {std::string(""), std::string("."), std::string(".."), std::string("../dump"), std::string("/"),
        std::string("$VICTIM"), std::string("${VICTIM}"), std::string("x"), ID + "/", ID + "/..",
        "../dump/" + ID, " " + ID, ID + std::string(1, '\0'), std::string(36, '.'), std::string(36, '/'),
        std::string(36, '$')}) {
    SCOPED_TRACE(id);
    {
      Dump_Directory dump(id);
      EXPECT_EQ("", dump.path());
      EXPECT_FALSE(dump.clear());
      log.expect(LM_ERROR, "is no uuid");
      dump.remove_at_end();
    }
    EXPECT_TRUE(exists(dir / (DUMP + "/" + ID + "/x.dump")));
    EXPECT_TRUE(exists(dir / "victim/x"));
  }
}

TEST_F(Dump_Root, a_link_in_its_place_goes_and_what_it_points_to_stays)
{
  dir.write("victim/x", "x");
  dir.make_dir(DUMP);
  ASSERT_EQ(0, ::symlink((dir / "victim").c_str(), (dir / (DUMP + "/" + ID)).c_str()));
  Dump_Directory dump(ID);
  EXPECT_TRUE(dump.clear());
  EXPECT_FALSE(exists(dump.path()));
  EXPECT_TRUE(exists(dir / "victim/x"));
}

TEST_F(Dump_Root, links_inside_are_not_followed)
{
  dir.write("victim/x", "x");
  dir.make_dir(DUMP + "/" + ID);
  ASSERT_EQ(0, ::symlink((dir / "victim").c_str(), (dir / (DUMP + "/" + ID + "/link")).c_str()));
  {
    Dump_Directory dump(ID);
    dump.remove_at_end();
  }
  EXPECT_FALSE(exists(dir / (DUMP + "/" + ID)));
  EXPECT_TRUE(exists(dir / "victim/x"));
}

TEST_F(Dump_Root, expands_variables_of_the_root)
{
  const Scoped_Env place("DUMP_PLACE", dir / "place");
  const Scoped_Env variable_root("KESTREL_ROOT", "$DUMP_PLACE");
  EXPECT_EQ(dir / ("place/" + DUMP + "/" + ID), Dump_Directory(ID).path());
}

TEST_F(Dump_Root, create_makes_it_for_its_owner_and_group_only)
{
  Dump_Directory dump(ID);
  EXPECT_TRUE(dump.create());
  struct stat status;
  ASSERT_EQ(0, ::stat(dump.path().c_str(), &status));
  EXPECT_EQ(0u, status.st_mode & 07027);
}

TEST_F(Dump_Root, says_which_directory_cannot_be_made)
{
  dir.write(DUMP, "a file in the way");
  Dump_Directory dump(ID);
  EXPECT_FALSE(dump.create());
  log.expect_exactly(LM_ERROR, "Failed to create directory " + dump.path() + ", errno=20, Not a directory\n");
}
