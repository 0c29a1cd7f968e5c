#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrel_test
{
/// While it lives, a directory looks as if the file system that is mounted there were not: an empty directory
/// stands in its place, and the scope's end fails the test unless it has stayed empty.
class Unmounted
{
public:
  explicit Unmounted(const std::string& directory) : directory_(directory)
  {
    EXPECT_EQ(0, ::rename(directory.c_str(), away().c_str())) << std::strerror(errno);
    EXPECT_EQ(0, ::mkdir(directory.c_str(), 0755)) << std::strerror(errno);
  }
  ~Unmounted()
  {
    // Removes an empty directory only.
    EXPECT_EQ(0, ::rmdir(directory_.c_str())) << directory_ << ": " << std::strerror(errno);
    EXPECT_EQ(0, ::rename(away().c_str(), directory_.c_str())) << std::strerror(errno);
  }
  Unmounted(const Unmounted&) = delete;
  Unmounted& operator=(const Unmounted&) = delete;

private:
  std::string away() const { return directory_ + ".away"; }

  const std::string directory_;
};
} // namespace kestrel_test
