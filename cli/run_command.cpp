#include "cli/command_line.h"

#include "cli/console.h"
#include "cli/session.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace kestrel
{
namespace
{
/// Why the command cannot be given so; empty when it can.
std::string misuse(const Command_Line& line)
{
  const bool by_environment = !line.server.empty() && !line.server_given;
  if (line.actions.standalone)
    return "";
  if (line.server.empty() && !line.actions.embedded)
    return "'kestrel " + line.command +
           "' works through a backup server only: give --server URL or set KESTREL_SERVER";
  if (!line.server.empty() && !line.actions.served)
    return "'kestrel " + line.command +
           "' works on this host only: " + (by_environment ? "unset KESTREL_SERVER" : "leave --server out");
  if (line.server.empty() && (!line.host.empty() || !line.hosts.empty()))
    return "--host goes with --server: without a backup server there is only this host";
  return "";
}

/// The installation directory of servers whose command line does not tell it. It is kept with the instances
/// that are found, and read by processes that are elsewhere.
bool make_oscar_home_absolute()
{
  const char* const home = std::getenv("SZ_OSCAR_HOME");
  if (!home || !*home || *home == '/' ||
      ::setenv("SZ_OSCAR_HOME", std::filesystem::absolute(home).c_str(), 1) == 0)
    return true;
  std::perror("kestrel: cannot set SZ_OSCAR_HOME");
  return false;
}
} // namespace

int run_command(const Command_Line& line)
{
  // Absolute: the tools are given paths below it and may run elsewhere.
  if (!line.root.empty() && ::setenv("KESTREL_ROOT", std::filesystem::absolute(line.root).c_str(), 1) != 0) {
    std::perror("kestrel: cannot set the root directory");
    return EXIT_CODE_FAILED;
  }
  if (!make_oscar_home_absolute())
    return EXIT_CODE_FAILED;
  const std::string problem = misuse(line);
  if (!problem.empty())
    return Command_Output(line).fail(problem, EXIT_CODE_USAGE);
  if (line.actions.standalone)
    return line.actions.standalone(line);
  if (!line.server.empty()) {
    Console console(line);
    return prepare_console(console) && console.start() ? line.actions.served(console) : EXIT_CODE_FAILED;
  }
  Session session(line);
  return session.start() ? line.actions.embedded(session) : EXIT_CODE_FAILED;
}
} // namespace kestrel
