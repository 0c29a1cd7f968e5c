#include "lab/brcmd/run_log.h"

#include <ctime>
#include <fcntl.h>
#include <unistd.h>

namespace oscar_lab
{

Run_Log::Run_Log(const std::string& path) : file_(open_file(path, O_WRONLY | O_CREAT | O_APPEND, 0640)) {}

void Run_Log::line(const char* level, const std::string& text)
{
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  const std::string whole = std::string(stamp) + " " + level + " " + text + "\n";
  if (::write(file_.get(), whole.data(), whole.size()) < 0)
    return; // the run itself matters more than its log
}

} // namespace oscar_lab
