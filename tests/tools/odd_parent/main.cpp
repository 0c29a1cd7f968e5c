// A parent of tools in a state that would break a test program.
//   closed_streams DIR   runs DIR/tool although its own three standard streams are closed
//   sudden_death DIR     kills itself while DIR/tool runs, once that has written DIR/pid
// The exit status is 0 when the runs were as they must be, and otherwise the number of the check that failed.
#include "component/process/tool_runs.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <unistd.h>

using namespace tool_runs;

namespace
{
int closed_streams(const std::string& directory)
{
  for (int fd = 0; fd < 3; ++fd)
    if (::fcntl(fd, F_GETFD) != -1)
      return 10 + fd;
  for (int repeat = 0; repeat < 3; ++repeat) {
    Collecting_Handler handler;
    if (run(handler, directory + "/tool") != 3)
      return 20;
    if (handler.out != Lines{"to stdout"} || handler.err != Lines{"to stderr"})
      return 21;
    if (run(handler, "/nonexistent/tool") != -1 || errno != ENOENT)
      return 22;
  }
  return 0;
}

int sudden_death(const std::string& directory)
{
  Tool_Options options(directory + "/tool");
  ACE_Process_Ex process(6, nullptr, no_callback);
  Collecting_Handler handler;
  if (handler.spawn(&process, options, nullptr) != 0)
    return 30;
  while (::access((directory + "/pid").c_str(), F_OK) != 0)
    ::usleep(1000);
  ::kill(::getpid(), SIGKILL);
  return 31;
}
} // namespace

int main(int argc, char** argv)
{
  const std::string part = argc > 2 ? argv[1] : "";
  return part == "closed_streams" ? closed_streams(argv[2])
         : part == "sudden_death" ? sudden_death(argv[2])
                                  : 1;
}
