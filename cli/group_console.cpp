#include "cli/command_groups.h"
#include "cli/common_options.h"
#include "cli/served_commands.h"

#include <CLI/CLI.hpp>

namespace kestrel
{
namespace
{
int sign_in_here(const Command_Line& line)
{
  Command_Output output(line);
  return prepare_console(output) ? served_sign_in(line) : EXIT_CODE_FAILED;
}

int sign_out_here(const Command_Line& line)
{
  Command_Output output(line);
  return prepare_console(output) ? served_sign_out(line) : EXIT_CODE_FAILED;
}

void add_sign_in(Command_Registry& registry)
{
  Command_Line& line = registry.line();
  CLI::App& sign_in =
      registry.add("sign-in", "Sign in at the backup server; later commands need only --server",
                   {nullptr, sign_in_here, nullptr});
  sign_in.add_option("--user,-u", line.user, "user of the backup server")->required();
  sign_in.add_option(
      "--password-file", line.password_file,
      "file whose first line is the password; '-' reads standard input; asked for when not given");
  registry.add("sign-out", "End the session and forget it here", {nullptr, sign_out_here, nullptr});
  registry.add("whoami", "Show who is signed in", {nullptr, nullptr, served_whoami});
}
} // namespace

void add_console_commands(Command_Registry& registry)
{
  Command_Line& line = registry.line();
  add_sign_in(registry);
  registry.add("status", "Show how the backup server is", {nullptr, nullptr, served_status});
  registry.add("hosts", "List the hosts and whether their agents are connected",
               {nullptr, nullptr, served_hosts});

  CLI::App& browse = registry.add("browse", "List what is on a host: instances, databases, schemas, tables",
                                  {nullptr, nullptr, served_browse});
  browse.add_option("PLACE", line.place, "HOST[/INSTANCE[/DATABASE[/SCHEMA]]]; without it, the hosts");

  CLI::App& nodes = registry.add("nodes", "Show which cluster nodes were chosen for jobs, and why",
                                 {nullptr, nullptr, served_nodes});
  nodes.add_option("--definition", line.definition,
                   "only for this job: id, a unique beginning of it, or name");
  add_limit_option(nodes, line, "the newest N only");
}
} // namespace kestrel
