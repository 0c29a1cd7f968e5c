#include "lab/common/chain_file.h"
#include "lab/common/child.h"
#include "lab/common/database.h"
#include "lab/common/server_control.h"
#include "lab/common/text.h"
#include "lab/kestrel_lab/catalog_sql.h"
#include "lab/kestrel_lab/commands.h"

#include <arpa/inet.h>
#include <cstdio>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

namespace oscar_lab
{

namespace
{

constexpr const char* default_account = "postgres";
constexpr const char* default_user = "sysdba";
constexpr std::uint16_t default_port = 2003;
const char* const tools[] = {"oscar", "isql", "brcmd", "osrexp", "osrimp"};

struct Account {
  std::string user;
  std::string password;
  bool generated = false;
};

bool port_is_free(std::uint16_t port)
{
  const Descriptor probe(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  ::setsockopt(probe.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return ::bind(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

std::uint16_t choose_port(const Arguments& arguments)
{
  std::uint64_t port = 0;
  if (arguments.has("--port")) {
    if (!parse_number(arguments.required("--port"), 65535, port) || port == 0)
      throw Usage_Failure("a port is a number from 1 to 65535");
    return static_cast<std::uint16_t>(port);
  }
  for (std::uint16_t candidate = default_port; candidate < default_port + 1000; ++candidate)
    if (port_is_free(candidate))
      return candidate;
  throw Failure("no free port found; give one with --port");
}

std::string random_password()
{
  const char letters[] = "abcdefghijkmnopqrstuvwxyzABCDEFGHJKLMNPQRSTUVWXYZ23456789";
  unsigned char bytes[24];
  if (::getrandom(bytes, sizeof bytes, 0) != sizeof bytes)
    fail_errno("no random numbers");
  std::string password;
  for (const unsigned char byte : bytes)
    password += letters[byte % (sizeof letters - 1)];
  return password;
}

Account choose_account(const Arguments& arguments)
{
  Account account;
  account.user = arguments.value("--user", default_user);
  if (account.user.empty() || account.user.find('/') != std::string::npos || account.user == system_user ||
      account.user == guest_user)
    throw Usage_Failure("this user name cannot be used");
  if (!arguments.has("--password-file")) {
    account.password = random_password();
    account.generated = true;
    return account;
  }
  const auto lines = split_lines(read_file(arguments.required("--password-file")));
  if (lines.empty() || lines[0].empty())
    throw Failure("the password file is empty");
  account.password = lines[0];
  return account;
}

void require_reachable(const Instance_Files& files, const Owner& owner, const std::string& account_name)
{
  const std::string closed = first_closed_directory(files.home + "/odbs", owner);
  if (!closed.empty())
    throw Failure("the server runs as " + account_name + ", which may not enter " + closed +
                  "; run \"chmod o+x " + closed + "\" or choose another HOME");
}

void make_home(const Instance_Files& files)
{
  for (const char* const name : {"", "/bin", "/admin", "/agent", "/odbs", "/systemctl-bin"})
    make_directory(files.home + name, 0755);
  const std::string sources = parent_directory(path_of_this_program()) + "/lab/";
  for (const char* const tool : tools)
    copy_file(sources + tool, files.bin(tool), 0755);
  if (!path_exists(files.chain_file()))
    replace_file(files.chain_file(), "", 0644);
  // Found first on the PATH of an agent, it starts instances where no systemd runs.
  replace_file(files.home + "/systemctl-bin/systemctl",
               "#!/bin/sh\n"
               "# systemctl ACTION oscard@NAME for the instances of this home\n"
               "home='" +
                   files.home +
                   "'\n"
                   "unit=${2%.service}\n"
                   "name=${unit#oscard@}\n"
                   "[ $# -eq 2 ] && [ \"$unit\" != \"$name\" ] || { echo 'systemctl: only ACTION "
                   "oscard@NAME' >&2; exit 1; }\n"
                   "pid=$(cat \"$home/admin/$name.db\" 2>/dev/null) || pid=0\n"
                   "case $1 in\n"
                   "start) exec \"$home/bin/oscar\" --start \"$name\" ;;\n"
                   "stop) kill -TERM \"$pid\" ;;\n"
                   "is-active) [ \"$pid\" -gt 1 ] && kill -0 \"$pid\" ;;\n"
                   "*) echo \"systemctl: unknown action\" >&2; exit 1 ;;\n"
                   "esac\n",
               0755);
}

std::string init_script_text(const Instance_Files& files)
{
  return "#!/bin/sh\n"
         "# start and stop of one instance; made and removed by kestrel-lab\n"
         "home='" +
         files.home +
         "'\n"
         "case \"$1\" in\n"
         "start) exec \"$home/bin/oscar\" --start " +
         files.name +
         " ;;\n"
         "stop) kill -TERM \"$(cat \"$home/admin/" +
         files.name +
         ".db\")\" ;;\n"
         "*) echo \"usage: $0 start|stop\" >&2; exit 2 ;;\n"
         "esac\n";
}

/// The home that an existing start script of this instance name serves; empty when there is none.
std::string home_of_init_script(const Instance_Files& files)
{
  if (!is_regular_file(files.init_script()))
    return {};
  for (const std::string& line : split_lines(read_file(files.init_script())))
    if (starts_with(line, "home='"))
      return line.substr(6, line.rfind('\'') - 6);
  return "an unknown installation";
}

void require_free_init_script(const Instance_Files& files)
{
  const std::string other = home_of_init_script(files);
  if (!other.empty() && other != files.home && (other[0] != '/' || is_directory(other)))
    throw Failure(files.init_script() + " belongs to " + other +
                  "; choose another instance name or use --no-init-script");
}

void initialise_cluster(const Instance_Files& files, const Owner& owner)
{
  // Without the locale options initdb takes the caller's locale, which may not be installed.
  const Child_Result result =
      run_child({std::string(LAB_POSTGRES_BIN) + "/initdb", "-D", files.data(), "-U", system_user, "-E",
                 "UTF8", "--locale=C", "-N", "--auth=trust", "--no-instructions"},
                owner);
  if (result.status != 0)
    throw Failure("initdb failed: " + trim(result.output));
  const Descriptor conf = open_file(files.data() + "/postgresql.conf", O_WRONLY | O_APPEND);
  const std::string settings = "\nlisten_addresses = '127.0.0.1'\n"
                               "wal_level = replica\n"
                               "wal_compression = lz4\n"
                               "max_wal_senders = 4\n"
                               "max_wal_size = 2GB\n"
                               "log_min_error_statement = panic\n"
                               "log_line_prefix = '%m [%p] '\n"
                               "timezone = 'UTC'\n"
                               "log_timezone = 'UTC'\n";
  write_all(conf.get(), settings.data(), settings.size(), "postgresql.conf");
  replace_file(files.data() + "/pg_hba.conf",
               "local all osys trust\n"
               "host oscar guest 127.0.0.1/32 trust\n"
               "host all osys 127.0.0.1/32 reject\n"
               "host all all 127.0.0.1/32 scram-sha-256\n"
               // Other nodes of a cluster; without one the server listens on 127.0.0.1 only.
               "host all osys samenet reject\n"
               "host all all samenet scram-sha-256\n",
               0600);
  give_to(files.data() + "/pg_hba.conf", owner);
}

void fill_database(const Instance_Files& files, const Account& account, bool users_tablespace)
{
  {
    Connection connection = connect_as_system(files, "postgres");
    // The server gets a verifier made here, never the password itself.
    char* const verifier = PQencryptPasswordConn(connection.get(), account.password.c_str(),
                                                 account.user.c_str(), "scram-sha-256");
    if (!verifier)
      throw Failure("cannot encrypt the password");
    const std::string secret = quote_literal(verifier);
    PQfreemem(verifier);
    connection.query("create role " + quote_identifier(account.user) + " superuser login password " + secret);
    connection.query("create role guest login");
    connection.query(std::string("create database ") + database_name);
    if (!users_tablespace)
      connection.query(std::string("alter database ") + database_name +
                       " set oscar.users_tablespace = 'none'");
  }
  connect_as_system(files).query(catalog_sql);
}

void make_instance(const Instance_Files& files, const Instance_Conf& conf, const Account& account,
                   const Owner& owner, bool users_tablespace)
{
  make_directory(files.directory(), 0750);
  give_to(files.directory(), owner);
  replace_file(files.incomplete_mark(), "its creation did not finish\n", 0644);
  for (const std::string& directory : {files.archive(), files.run()}) {
    make_directory(directory, 0700);
    give_to(directory, owner);
  }
  initialise_cluster(files, owner);
  for (const char* const name : {"/SYSTEM.dbf"}) {
    replace_file(files.directory() + name, "", 0640);
    give_to(files.directory() + name, owner);
  }
  write_conf(files, conf);
  remove_tree(files.incomplete_mark());
  start_server(files);
  fill_database(files, account, users_tablespace);
  stop_server(files);
}

void remove_instance(const Instance_Files& files)
{
  if (is_regular_file(files.conf()))
    stop_server(files);
  if (is_directory(files.data()))
    for (const Tablespace& tablespace : tablespaces_of(files.data())) {
      remove_tree(tablespace.location);
      remove_tree(datafile_of(tablespace.location));
    }
  if (home_of_init_script(files) == files.home)
    remove_tree(files.init_script());
  remove_tree(files.directory());
  forget_chain(files);
  for (const std::string& path :
       {files.pid_file(), files.conf(), files.home + "/admin/" + files.name + ".password"})
    remove_tree(path);
}

} // namespace

int create_command(const Arguments& arguments)
{
  arguments.only({"--port", "--archive-log", "--user", "--password-file", "--os-user", "--no-init-script",
                  "--no-users-tablespace"},
                 "with create");
  const Instance_Files files = instance_operands(arguments);
  const std::string mode = arguments.value("--archive-log", "on");
  if (mode != "on" && mode != "off")
    throw Usage_Failure("--archive-log is on or off");
  const Account account = choose_account(arguments);
  const std::string account_name = arguments.value("--os-user", default_account);
  const Owner owner = service_owner(account_name);
  if (path_exists(files.conf()) || path_exists(files.directory()))
    throw Failure("instance " + files.name + " already exists in " + files.home);
  Instance_Conf conf;
  conf.port = choose_port(arguments);
  conf.archive_log = mode == "on";
  const bool init_script = ::geteuid() == 0 && !arguments.has("--no-init-script");
  if (init_script)
    require_free_init_script(files);

  require_reachable(files, owner, account_name);
  make_home(files);
  try {
    make_instance(files, conf, account, owner, !arguments.has("--no-users-tablespace"));
    if (account.generated)
      replace_file(files.home + "/admin/" + files.name + ".password", account.password + "\n", 0600);
    if (init_script)
      replace_file(files.init_script(), init_script_text(files), 0755);
  } catch (...) {
    remove_instance(files);
    throw;
  }
  std::printf("created instance %s in %s, port %u, user %s%s\n", files.name.c_str(), files.home.c_str(),
              static_cast<unsigned>(conf.port), account.user.c_str(),
              account.generated
                  ? (", password in " + files.home + "/admin/" + files.name + ".password").c_str()
                  : "");
  return 0;
}

int destroy_command(const Arguments& arguments)
{
  arguments.only({}, "with destroy");
  const Instance_Files files = instance_operands(arguments);
  remove_instance(files);
  std::printf("destroyed instance %s in %s\n", files.name.c_str(), files.home.c_str());
  return 0;
}

} // namespace oscar_lab
