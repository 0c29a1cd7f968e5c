#include "cli/command_groups.h"
#include "cli/command_server.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace kestrel
{
namespace
{
typedef std::shared_ptr<Server_Arguments> Arguments;

const char* const password_file_help =
    "file whose first line is the password; '-' reads standard input; asked for when not given";

Command_Actions with(const Arguments& arguments, int (*run)(const Command_Line&, const Server_Arguments&))
{
  return {nullptr, [arguments, run](const Command_Line& line) { return run(line, *arguments); }};
}

CLI::App& named(CLI::App& command, const char* what, const Arguments& arguments, const char* help)
{
  command.add_option(what, arguments->name, help)->required();
  return command;
}

void add_setup(Command_Registry& registry, const Arguments& arguments)
{
  CLI::App& init = registry.add("server init", "Make a server: its CA, certificate, settings and first admin",
                                with(arguments, run_server_init));
  init.add_option("--name", arguments->names, "DNS name that clients call the server by; may be repeated");
  init.add_option("--address", arguments->addresses, "numeric address of the same kind; may be repeated");
  init.add_option("--port", arguments->port, "port to listen on")
      ->check(CLI::Range(1, 65535))
      ->capture_default_str();
  init.add_option("--admin", arguments->name, "name of the first admin")->required();
  init.add_option("--password-file", registry.line().password_file, password_file_help);
  registry.add("server renew", "Issue a new server certificate for the same names",
               {nullptr, run_server_renew});
  CLI::App& save =
      registry.add("server save", "Copy everything that brings the server back into a new directory",
                   with(arguments, run_server_save));
  save.add_option("DIRECTORY", arguments->file, "directory to make")->required();
  CLI::App& audit =
      registry.add("server audit", "Show who changed what, newest last", with(arguments, run_server_audit));
  audit.add_option("--limit", arguments->limit, "the newest N only")
      ->check(CLI::Range(1, 100000))
      ->capture_default_str();
}

void add_hosts(Command_Registry& registry, const Arguments& arguments)
{
  CLI::App& enroll = registry.add("server enroll", "Give a host the right to connect, or a new key",
                                  with(arguments, run_server_enroll));
  named(enroll, "HOST", arguments, "name of the host")
      .add_option("--out", arguments->file,
                  "enrollment file to write, which holds the key; '-' is standard output; "
                  "HOST.enrollment.json when not given");
  named(registry.add("server revoke", "Take a host's right to connect away",
                     with(arguments, run_server_revoke)),
        "HOST", arguments, "name of the host");
  registry.add("server hosts", "List the hosts that were enrolled", {nullptr, run_server_hosts});
}

void add_users(Command_Registry& registry, const Arguments& arguments)
{
  registry.group("server user", "Add, list and remove the people who may use the console");
  CLI::App& add = named(registry.add("server user add", "Add a user", with(arguments, run_server_user_add)),
                        "NAME", arguments, "name to sign in with");
  add.add_option("--role", arguments->role, "what the user may do")
      ->required()
      ->check(CLI::IsMember({"viewer", "operator", "admin"}));
  add.add_option("--password-file", registry.line().password_file, password_file_help);
  registry.add("server user list", "List the users", {nullptr, run_server_user_list});
  named(registry.add("server user remove", "Remove a user and end the user's sessions",
                     with(arguments, run_server_user_remove)),
        "NAME", arguments, "name of the user");
  named(registry.add("server user password", "Set a user's password and end the user's sessions",
                     with(arguments, run_server_user_password)),
        "NAME", arguments, "name of the user")
      .add_option("--password-file", registry.line().password_file, password_file_help);
}
} // namespace

void add_server_commands(Command_Registry& registry)
{
  const Arguments arguments = std::make_shared<Server_Arguments>();
  CLI::App& server = registry.add("server", "Run the backup server of this machine, or set it up",
                                  with(arguments, run_server));
  server.add_option("--config", arguments->config,
                    "settings; server.toml of the state directory when not given");
  add_setup(registry, arguments);
  add_hosts(registry, arguments);
  add_users(registry, arguments);
}
} // namespace kestrel
