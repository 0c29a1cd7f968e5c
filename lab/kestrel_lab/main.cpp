/// kestrel-lab: makes and runs stand-in OSCAR installations.
#include "lab/common/arguments.h"
#include "lab/common/database.h"
#include "lab/common/server_control.h"
#include "lab/common/table_output.h"
#include "lab/common/text.h"
#include "lab/kestrel_lab/commands.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>

namespace oscar_lab
{

namespace
{

constexpr const char* usage =
    "usage: kestrel-lab COMMAND HOME INSTANCE [options]\n"
    "  create   new instance in the OSCAR home HOME (made when missing), left stopped\n"
    "             --port N            default: the first free one from 2003 on\n"
    "             --archive-log on|off  default on\n"
    "             --user NAME         database superuser, default sysdba\n"
    "             --password-file F   its password is the first line of F; default: a random one in\n"
    "                                 HOME/admin/INSTANCE.password\n"
    "             --os-user NAME      account of the server when run as root, default postgres\n"
    "             --no-init-script    as root: no /etc/init.d/oscardb_INSTANCEd\n"
    "             --no-users-tablespace  the tablespace USERS does not exist until somebody creates it\n"
    "  start    start the server; returns when logins work\n"
    "  stop     shut it down\n"
    "  load     --megabytes N [--seed S]   add about N MB of rows that depend on S only\n"
    "             --rich              and schemas with views, sequences, foreign keys, triggers, functions\n"
    "  change   --percent N [--seed S]     change about N % of what load made: rows updated, added and\n"
    "             deleted, a table created and an older one dropped; depends on the rows and S only\n"
    "  check    row count and checksum of every user table and schema, as JSON\n"
    "             --objects           and how many objects of each kind a schema has\n"
    "             --schema NAME       tables of this schema only, without its name and their places: two\n"
    "                                 schemas with the same rows give the same text; NAME as the database "
    "keeps it\n"
    "  cluster  --node ID:ADDRESS:STATUS ...   what the instance says of its cluster: one option a node, "
    "STATUS\n"
    "             master, slave or another word; replaces what it said before; \"--node none\" leaves no "
    "node\n"
    "             --virtual-address A  the address that the master holds; kept when not given\n"
    "             --address A          the node's own, on which the server listens as well; kept when not "
    "given\n"
    "  sql      STATEMENT   run a statement as the system user\n"
    "  destroy  stop the server and remove the instance with all its files\n"
    "Without systemd and without the start script, put HOME/systemctl-bin first on the PATH of an agent.\n";

constexpr std::uint64_t default_seed = 1;

const std::vector<Option> options = {{"--port", true},
                                     {"--archive-log", true},
                                     {"--user", true},
                                     {"--password-file", true},
                                     {"--os-user", true},
                                     {"--no-init-script", false},
                                     {"--no-users-tablespace", false},
                                     {"--megabytes", true},
                                     {"--percent", true},
                                     {"--seed", true},
                                     {"--rich", false},
                                     {"--node", true, true},
                                     {"--virtual-address", true},
                                     {"--address", true},
                                     {"--schema", true},
                                     {"--objects", false},
                                     {"--help", false}};

int start_command(const Arguments& arguments)
{
  arguments.only({}, "with start");
  const Instance_Files files = instance_operands(arguments);
  files.require_existing();
  std::printf("instance %s %s\n", files.name.c_str(), start_server(files) ? "started" : "is already running");
  return 0;
}

int stop_command(const Arguments& arguments)
{
  arguments.only({}, "with stop");
  const Instance_Files files = instance_operands(arguments);
  files.require_existing();
  std::printf("instance %s %s\n", files.name.c_str(), stop_server(files) ? "stopped" : "is not running");
  return 0;
}

int sql_command(const Arguments& arguments)
{
  arguments.only({}, "with sql");
  const Instance_Files files = instance_operands(arguments);
  files.require_existing();
  if (arguments.operands().size() != 4)
    throw Usage_Failure("sql needs HOME INSTANCE STATEMENT");
  Connection connection = connect_as_system(files);
  std::fputs(format_result(connection.query(arguments.operands()[3])).c_str(), stdout);
  return 0;
}

int run(int argc, char** argv)
{
  const Arguments arguments(argc, argv, options, 4);
  if (arguments.has("--help")) {
    std::fputs(usage, stdout);
    return 0;
  }
  if (arguments.operands().empty())
    throw Usage_Failure("no command given");
  const std::string& command = arguments.operands()[0];
  if (command == "sql")
    return sql_command(arguments);
  if (arguments.operands().size() != 3)
    throw Usage_Failure("give COMMAND HOME INSTANCE");
  if (command == "create")
    return create_command(arguments);
  if (command == "start")
    return start_command(arguments);
  if (command == "stop")
    return stop_command(arguments);
  if (command == "load")
    return load_command(arguments);
  if (command == "change")
    return change_command(arguments);
  if (command == "check")
    return check_command(arguments);
  if (command == "cluster")
    return cluster_command(arguments);
  if (command == "destroy")
    return destroy_command(arguments);
  throw Usage_Failure("unknown command");
}

} // namespace

Instance_Files instance_operands(const Arguments& arguments)
{
  if (arguments.operands().size() < 3)
    throw Usage_Failure("give COMMAND HOME INSTANCE");
  std::error_code error;
  const auto path =
      std::filesystem::weakly_canonical(std::filesystem::absolute(arguments.operands()[1]), error);
  if (error)
    throw Failure("cannot resolve HOME: " + error.message());
  std::string home = path.string();
  while (home.size() > 1 && home.back() == '/')
    home.pop_back();
  // Agents put the path on unquoted command lines, and sizes behind "=" after it.
  const auto plain = [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || std::string("/._-+,@").find(c) != std::string::npos;
  };
  if (!std::all_of(home.begin(), home.end(), plain))
    throw Failure("HOME may hold letters, digits and the characters / . _ - + , @ only");
  return Instance_Files(home, arguments.operands()[2]);
}

std::uint64_t number_option(const Arguments& arguments, const char* name, std::uint64_t maximum)
{
  std::uint64_t value = 0;
  if (!parse_number(arguments.required(name), maximum, value))
    throw Usage_Failure(std::string("option ") + name + " needs a number");
  return value;
}

std::uint64_t seed_option(const Arguments& arguments)
{
  return arguments.has("--seed") ? number_option(arguments, "--seed", UINT64_MAX) : default_seed;
}

} // namespace oscar_lab

int main(int argc, char** argv)
{
  try {
    return oscar_lab::run(argc, argv);
  } catch (const oscar_lab::Usage_Failure& failure) {
    std::fprintf(stderr, "kestrel-lab: %s; see kestrel-lab --help\n", failure.what());
    return 2;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "kestrel-lab: %s\n", failure.what());
    return 1;
  }
}
