#include "cli/command_line.h"

#include "cli/session.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace kestrel
{
int run_command(const Command_Line& line)
{
  // Absolute: the tools are given paths below it and may run elsewhere.
  if (!line.root.empty() && ::setenv("KESTREL_ROOT", std::filesystem::absolute(line.root).c_str(), 1) != 0) {
    std::perror("kestrel: cannot set the root directory");
    return EXIT_CODE_FAILED;
  }
  if (line.actions.standalone)
    return line.actions.standalone(line);
  Session session(line);
  return session.start() ? line.actions.embedded(session) : EXIT_CODE_FAILED;
}
} // namespace kestrel
