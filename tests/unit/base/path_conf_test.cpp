#include "base/path_conf.h"

#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

using kestrel_test::Scoped_Env;
using kestrel_test::Temp_Dir;

TEST(Product_Path, is_the_fixed_path_without_a_root)
{
  Scoped_Env unset("KESTREL_ROOT", nullptr);
  EXPECT_EQ("/var/log/kestrel3", product_path("/var/log/kestrel3"));
  Scoped_Env empty("KESTREL_ROOT", "");
  EXPECT_EQ("/var/log/kestrel3", product_path("/var/log/kestrel3"));
  EXPECT_EQ("", product_path(nullptr));
}

TEST(Product_Path, stands_below_the_root)
{
  Scoped_Env root("KESTREL_ROOT", "/tmp/tree//");
  EXPECT_EQ("/tmp/tree/var/log/kestrel3", product_path("/var/log/kestrel3"));
}

TEST(Path_Conf, expands_the_component_and_joins_the_parts)
{
  Scoped_Env unset("KESTREL_ROOT", nullptr);
  EXPECT_EQ("/var/opt/tarnvik/kestrel3/agent/oscar",
            Path_Conf("/var/opt/tarnvik/kestrel3/$COMPONENT", "oscar").directory());
  EXPECT_EQ("/var/opt/tarnvik/kestrel3/agent/oscar",
            Path_Conf("/var/opt/tarnvik/kestrel3/$COMPONENT/oscar").directory());
  kestrel::set_component_name("server");
  EXPECT_EQ("/a/server/server", Path_Conf("/a/$COMPONENT/$COMPONENT").directory());
  kestrel::set_component_name("agent");
}

TEST(Path_Conf, makes_the_directories_of_a_path)
{
  Temp_Dir dir;
  Scoped_Env root("KESTREL_ROOT", dir.path());
  const Path_Conf conf("/var/log/kestrel3", "brcmd");
  EXPECT_FALSE(kestrel_test::exists(conf.directory()));
  EXPECT_EQ(dir / "var/log/kestrel3/brcmd/x.log", conf.path("x.log"));
  struct stat status;
  ASSERT_EQ(0, ::stat(conf.directory().c_str(), &status));
  EXPECT_EQ(0750u, status.st_mode & 07777 & ~0022u) << "less the umask";
  EXPECT_EQ(dir / "var/opt/tarnvik/kestrel3/agent/catalog.db", kestrel::state_path("catalog.db"));
  EXPECT_TRUE(kestrel_test::exists(dir / "var/opt/tarnvik/kestrel3/agent"));
}

TEST(Path_Conf, says_which_directory_cannot_be_made)
{
  kestrel_test::Log_Capture log;
  Temp_Dir dir;
  Scoped_Env root("KESTREL_ROOT", dir.write("file", "x"));
  EXPECT_EQ(dir / "file/var/log/x", Path_Conf("/var/log").path("x"));
  log.expect(LM_ERROR,
             "Failed to create directory " + (dir / "file/var/log") + ", errno=20, Not a directory\n");
}
