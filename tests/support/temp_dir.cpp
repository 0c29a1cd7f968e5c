#include "support/temp_dir.h"

#include "base/files.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace kestrel_test
{
Temp_Dir::Temp_Dir()
{
  const char* const top = ::getenv("TMPDIR");
  const std::string pattern = std::string(top && *top ? top : "/tmp") + "/kestrel_test_XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  if (!::mkdtemp(name.data())) {
    ::perror("mkdtemp");
    ::abort();
  }
  path_ = name.data();
}

Temp_Dir::~Temp_Dir()
{
  EXPECT_EQ(0, rm_rf(path_.c_str())) << path_;
}

std::string Temp_Dir::write(const std::string& name, const std::string& content, unsigned mode) const
{
  const std::string path = *this / name;
  EXPECT_EQ(0, make_dirs(path.substr(0, path.rfind('/')).c_str(), 0755)) << path;
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  file.close();
  EXPECT_TRUE(file) << "cannot write " << path;
  EXPECT_EQ(0, ::chmod(path.c_str(), mode)) << path;
  return path;
}

std::string Temp_Dir::make_dir(const std::string& name) const
{
  const std::string path = *this / name;
  EXPECT_EQ(0, make_dirs(path.c_str(), 0755)) << path;
  return path;
}

std::string read_file(const std::string& path)
{
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file) << "cannot read " << path;
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

bool exists(const std::string& path)
{
  return ::access(path.c_str(), F_OK) == 0;
}
} // namespace kestrel_test
