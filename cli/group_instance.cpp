#include "cli/command_groups.h"
#include "cli/common_options.h"
#include "cli/served_commands.h"
#include "cli/session.h"

#include <CLI/CLI.hpp>

namespace kestrel
{
void add_instance_commands(Command_Registry& registry)
{
  Command_Line& line = registry.line();
  CLI::App& instances = registry.add("instances", "List the OSCAR instances of this host, or of all hosts",
                                     {run_instances, nullptr, served_instances});

  add_host_option(instances, line, "ask this host now, in place of what the server knows of all");

  CLI::App& login =
      registry.add("login", "Test a login and keep the account", {run_login, nullptr, served_login});
  login.add_option("INSTANCE", line.instance, "name of the instance")->required();
  login.add_option("--user,-u", line.user, "database user")->required();
  login.add_option(
      "--password-file", line.password_file,
      "file whose first line is the password; '-' reads standard input; asked for when not given");
  add_host_option(login, line, "host of the instance; needed when several have one of this name");
}
} // namespace kestrel
