#include "support/waiting.h"

#include "support/temp_dir.h"

#include <chrono>
#include <fstream>
#include <iterator>
#include <thread>

namespace kestrel_test
{
namespace
{
const std::chrono::seconds LIMIT(60);
const std::chrono::milliseconds PAUSE(1);
} // namespace

bool eventually(const std::function<bool()>& holds)
{
  const auto end = std::chrono::steady_clock::now() + LIMIT;
  while (!holds()) {
    if (std::chrono::steady_clock::now() >= end)
      return holds();
    std::this_thread::sleep_for(PAUSE);
  }
  return true;
}

bool wait_for_file(const std::string& path)
{
  return eventually([&path] { return exists(path); });
}

bool has_ended(pid_t pid)
{
  // It may go while it is looked at, so a file that cannot be read is an answer too.
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  const std::string stat((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  return stat.empty() || stat.find(") Z ") != std::string::npos || stat.find(") X ") != std::string::npos;
}
} // namespace kestrel_test
