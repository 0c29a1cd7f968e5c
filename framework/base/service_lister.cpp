#include "base/service_lister.h"

#include "base/descriptor.h"
#include "base/natoi.h"
#include "base/scope_guard.h"

#include <algorithm>
#include <boost/regex.hpp>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
/// Reads a whole /proc file; false when the process is gone.
bool read_proc_file(const std::string& path, std::string& content)
{
  kestrel::Auto_Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.get() < 0)
    return false;
  content.clear();
  char piece[4096];
  ssize_t count;
  while ((count = read_write_trait::read(file.get(), piece, sizeof piece)) > 0)
    content.append(piece, static_cast<size_t>(count));
  return count == 0;
}

std::string user_of(const std::string& process_directory)
{
  struct stat status;
  if (::stat(process_directory.c_str(), &status) != 0)
    return "";
  passwd entry;
  passwd* found = nullptr;
  char buffer[4096];
  if (::getpwuid_r(status.st_uid, &entry, buffer, sizeof buffer, &found) == 0 && found)
    return entry.pw_name;
  return std::to_string(status.st_uid);
}

bool matches(const std::string& text, const boost::regex& pattern)
{
  try {
    return boost::regex_search(text, pattern);
  } catch (const std::runtime_error&) {
    // The matcher gives up on texts that would take it forever.
    return false;
  }
}

bool list_pids(const std::string& proc, std::vector<pid_t>& pids)
{
  DIR* const directory = ::opendir(proc.c_str());
  if (!directory)
    return false;
  kestrel::Scope_Guard close_directory([&] { ::closedir(directory); });
  while (const dirent* entry = ::readdir(directory)) {
    const char* stop = nullptr;
    const pid_t pid = natoi<pid_t>(entry->d_name, &stop);
    if (errno == 0 && *stop == '\0' && pid > 0)
      pids.push_back(pid);
  }
  std::sort(pids.begin(), pids.end());
  return true;
}
} // namespace

int Service_Lister::list_service(const char* filter, std::vector<Service_Info>& services, bool /*unused*/,
                                 const char* /*locale*/)
{
  boost::regex pattern;
  try {
    pattern.assign(filter ? filter : "");
  } catch (const std::runtime_error&) {
    errno = EINVAL;
    return -1;
  }

  std::vector<pid_t> pids;
  if (!list_pids(proc_, pids))
    return -1;
  std::vector<Service_Info> found;
  for (const pid_t pid : pids) {
    const std::string directory = proc_ + "/" + std::to_string(pid);
    Service_Info info;
    // Kernel threads and zombies have an empty command line.
    if (!read_proc_file(directory + "/cmdline", info.cmd) || info.cmd.empty())
      continue;
    std::replace(info.cmd.begin(), info.cmd.end(), '\0', ' ');
    if (info.cmd.back() == ' ')
      info.cmd.pop_back();
    if (!matches(info.cmd, pattern))
      continue;
    info.user = user_of(directory);
    info.pid = pid;
    found.push_back(info);
  }
  services.swap(found);
  return 0;
}
