#include "cli/command_line.h"
#include "cli/exit_code.h"

#include <cstdio>
#include <exception>

int main(int argc, char** argv)
{
  kestrel::Command_Line line;
  int exit_code = kestrel::EXIT_CODE_USAGE;
  try {
    return kestrel::parse_command_line(argc, argv, line, exit_code) ? kestrel::run_command(line) : exit_code;
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "kestrel: unexpected failure: %s\n", exception.what());
    return kestrel::EXIT_CODE_FAILED;
  }
}
