#include "support/paths.h"

#include <climits>
#include <cstdlib>
#include <unistd.h>

namespace kestrel_test
{
std::string bin_dir()
{
  char path[PATH_MAX];
  const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path);
  if (length <= 0)
    ::abort();
  const std::string program(path, static_cast<size_t>(length));
  return program.substr(0, program.rfind('/'));
}

std::string lib_dir()
{
  const std::string bin = bin_dir();
  return bin.substr(0, bin.rfind('/')) + "/lib";
}

std::string source_dir()
{
  return KESTREL_SOURCE_DIR;
}
} // namespace kestrel_test
