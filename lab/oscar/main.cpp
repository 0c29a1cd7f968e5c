#include "lab/common/arguments.h"
#include "lab/common/text.h"
#include "lab/oscar/supervisor.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace
{

constexpr const char* usage =
    "usage: oscar -d INSTANCE        serve the instance in the foreground\n"
    "       oscar --start INSTANCE   serve it in the background; returns when logins work\n"
    "       oscar --version\n";

/// Where a supervisor started by launch() reports; -1 when a user started it.
int take_ready_descriptor()
{
  const char* const text = std::getenv("OSCAR_READY_FD");
  if (!text)
    return -1;
  const int fd = std::atoi(text);
  ::unsetenv("OSCAR_READY_FD");
  return ::fcntl(fd, F_SETFD, FD_CLOEXEC) == 0 ? fd : -1;
}

void tell_starter(int ready_fd, const std::string& text)
{
  if (ready_fd >= 0 && ::write(ready_fd, text.data(), text.size()) < 0)
    std::fprintf(stderr, "oscar: ERROR, the starter is gone\n");
}

void report(int ready_fd, const std::string& text)
{
  std::fprintf(stderr, "oscar: ERROR, %s\n", text.c_str());
  tell_starter(ready_fd, text);
}

} // namespace

int main(int argc, char** argv)
{
  const int ready_fd = take_ready_descriptor();
  try {
    const oscar_lab::Arguments arguments(
        argc, argv, {{"-d", true}, {"--start", true}, {"--version", false}, {"--help", false}}, 0);
    if (arguments.has("--help")) {
      std::fputs(usage, stdout);
      return 0;
    }
    if (arguments.has("--version")) {
      std::puts("oscar 2.5.6 (build 2.5.6x20230817132129) for Linux x86_64");
      return 0;
    }
    const std::string home = oscar_lab::home_of_this_tool();
    if (arguments.has("--start")) {
      arguments.only({"--start"}, "with --start");
      return oscar_lab::launch(oscar_lab::Instance_Files(home, arguments.required("--start")));
    }
    return oscar_lab::supervise(oscar_lab::Instance_Files(home, arguments.required("-d")), ready_fd);
  } catch (const oscar_lab::Already_Running& failure) {
    if (ready_fd < 0)
      report(ready_fd, failure.what());
    else
      tell_starter(ready_fd, oscar_lab::already_running_message);
    return 1;
  } catch (const oscar_lab::Usage_Failure& failure) {
    report(ready_fd, failure.what());
    std::fputs(usage, stderr);
    return 2;
  } catch (const std::exception& failure) {
    report(ready_fd, failure.what());
    return 1;
  }
}
