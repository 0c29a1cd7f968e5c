#include "cli/command_groups.h"
#include "cli/session.h"

#include <CLI/CLI.hpp>

namespace kestrel
{
void add_instance_commands(Command_Registry& registry)
{
  Command_Line& line = registry.line();
  registry.add("instances", "List the OSCAR instances of this host", {run_instances, nullptr});

  CLI::App& login = registry.add("login", "Test a login and keep the account", {run_login, nullptr});
  login.add_option("INSTANCE", line.instance, "name of the instance")->required();
  login.add_option("--user,-u", line.user, "database user")->required();
  login.add_option(
      "--password-file", line.password_file,
      "file whose first line is the password; '-' reads standard input; asked for when not given");
}
} // namespace kestrel
