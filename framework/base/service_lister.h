#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

/// One running process.
struct Service_Info {
  std::string cmd;  ///< its arguments, joined by one blank
  std::string user; ///< name of the effective user, or the number when it has no name
  pid_t pid = -1;
};

/// Lists the processes whose command line matches a pattern, from /proc of this process's pid namespace.
/// Threads: any.
class Service_Lister
{
public:
  Service_Lister() {}
  /// Looks in another place than /proc, for tests.
  explicit Service_Lister(const std::string& proc_directory) : proc_(proc_directory) {}

  /// Replaces `services` by the processes whose command line contains a match of the Perl-syntax pattern
  /// `filter`, by ascending pid. Kernel threads and processes that end meanwhile are left out, and so is a
  /// command line that the matcher gives up on. Nothing is run, so the boolean and the locale mean nothing
  /// here. 0, or -1 with errno (EINVAL for a bad pattern) and `services` untouched.
  int list_service(const char* filter, std::vector<Service_Info>& services, bool unused, const char* locale);

private:
  std::string proc_ = "/proc";
};
