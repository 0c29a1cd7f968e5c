#include "support/fake_tool.h"

#include "support/paths.h"

#include <gtest/gtest.h>

#include <unistd.h>

namespace kestrel_test
{
std::string make_fake_tool(const Temp_Dir& dir, const std::string& name, const std::string& script)
{
  dir.write(name + ".script", script);
  const std::string path = dir / name;
  ::unlink(path.c_str());
  EXPECT_EQ(0, ::symlink((bin_dir() + "/fake_tool").c_str(), path.c_str())) << path;
  return path;
}
} // namespace kestrel_test
