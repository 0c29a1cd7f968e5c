#include "cli/command_groups.h"
#include "cli/common_options.h"
#include "cli/served_commands.h"

#include <CLI/CLI.hpp>

namespace kestrel
{
void add_admin_commands(Command_Registry& registry)
{
  Command_Line& line = registry.line();
  registry.add("users", "List the users of the backup server", {nullptr, nullptr, served_users});
  registry.group("user", "Add and remove users of the backup server");
  CLI::App& add = registry.add("user add", "Add a user",
                               {nullptr, nullptr, served_user_add});
  add.add_option("NAME", line.user, "name of the user")->required();
  add.add_option("--role", line.role, "what the user may do")
      ->required()
      ->check(CLI::IsMember({"viewer", "operator", "admin"}));
  add.add_option("--password-file", line.password_file,
                 "file whose first line is the password; '-' reads standard input; asked for when not given");
  CLI::App& remove = registry.add("user remove", "Remove a user and end the sessions",
                                  {nullptr, nullptr, served_user_remove});
  remove.add_option("NAME", line.user, "name of the user")->required();

  CLI::App& audit = registry.add("audit", "List what was changed on the backup server, by whom",
                                 {nullptr, nullptr, served_audit});
  add_limit_option(audit, line, "the newest N only");
}
} // namespace kestrel
