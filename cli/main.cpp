#include "cli/command_line.h"
#include "cli/command_output.h"
#include "cli/exit_code.h"

#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <unistd.h>

namespace
{
/// A program that was started with one of these closed would get a database or a log under its number, and
/// write its results there. Opened the wrong way round, so that using it is an error.
void occupy_standard_descriptors()
{
  const int modes[] = {O_WRONLY, O_RDONLY, O_RDWR};
  for (int descriptor = 0; descriptor <= STDERR_FILENO; ++descriptor)
    if (::fcntl(descriptor, F_GETFD) < 0 && ::open("/dev/null", modes[descriptor]) != descriptor)
      ::_exit(kestrel::EXIT_CODE_FAILED);
}
} // namespace

int main(int argc, char** argv)
{
  occupy_standard_descriptors();
  kestrel::Command_Line line;
  int exit_code = kestrel::EXIT_CODE_USAGE;
  try {
    if (!kestrel::parse_command_line(argc, argv, line, exit_code))
      return exit_code;
    exit_code = kestrel::run_command(line);
    return exit_code == kestrel::EXIT_CODE_DONE && kestrel::result_lost() ? kestrel::EXIT_CODE_FAILED
                                                                          : exit_code;
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "kestrel: unexpected failure: %s\n", exception.what());
    return kestrel::EXIT_CODE_FAILED;
  }
}
