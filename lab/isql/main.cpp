/// The SQL client of the stand-in: runs one statement, or tests a login.
#include "lab/common/arguments.h"
#include "lab/common/database.h"
#include "lab/common/server_control.h"
#include "lab/common/table_output.h"
#include "lab/common/text.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <regex>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

using namespace oscar_lab;

constexpr const char* usage =
    "usage: isql [-U USER/PASSWORD] [-h HOST] [-p PORT] -d INSTANCE -c STATEMENT   run one statement\n"
    "       isql -U USER/PASSWORD [-h HOST] [-p PORT] -d INSTANCE -l               test the login\n"
    "       isql --version\n";

constexpr int shutdown_timeout_msec = 120 * 1000;

Connection log_in(const Arguments& arguments, const Instance_Files& files)
{
  std::uint64_t port = 0;
  if (arguments.has("-p") && (!parse_number(arguments.required("-p"), 65535, port) || port == 0))
    throw Usage_Failure("the port is a number from 1 to 65535");
  if (port == 0)
    files.require_existing();
  Login login = user_login(files, arguments.value("-h"), static_cast<std::uint16_t>(port));
  login.user = guest_user;
  if (arguments.has("-U")) {
    const std::string& text = arguments.required("-U");
    const auto slash = text.find('/'); // a password may hold further slashes
    login.user = text.substr(0, slash);
    login.password = slash == std::string::npos ? std::string() : text.substr(slash + 1);
    if (login.user.empty())
      throw Usage_Failure("option -U needs USER/PASSWORD");
  }
  Connection connection(login);
  require_instance(connection, files.name);
  return connection;
}

void shut_down(const Instance_Files& files)
{
  const pid_t pid = running_server(files);
  if (pid == 0)
    throw Failure("no server of " + files.name + " runs on this host");
  if (::kill(pid, SIGTERM) != 0 && errno != ESRCH)
    fail_errno("cannot shut down the server");
  if (!wait_until([&files] { return running_server(files) == 0; }, shutdown_timeout_msec))
    throw Failure("the server does not end");
}

/// How the database keeps a new object's name. Agents write names without quotes, as the catalog shows them:
/// capitals among small letters are meant, a word in one case is an ordinary name.
std::string stored_name(const std::string& word)
{
  if (word[0] == '"') {
    std::string name;
    for (std::size_t i = 1; i + 1 < word.size(); ++i) {
      name += word[i];
      if (word[i] == '"')
        ++i;
    }
    return name;
  }
  return word == to_upper(word) ? to_lower(word) : word;
}

/// OSCAR keeps a tablespace in a data file, PostgreSQL in a directory: PATH becomes an empty file that stands
/// for the data file, and the data go into the directory PATH.d.
void create_tablespace(Connection& connection, const Instance_Files& files, const std::string& name,
                       const std::string& datafile)
{
  if (datafile.empty() || datafile[0] != '/')
    throw Failure("the path of a data file must be absolute");
  const std::string location = datafile + ".d";
  // OSCAR's own tablespaces, USERS among them, are not all tablespaces of the server.
  if (connection.query("select 1 from oscar_sys.sys_tablespace where tsname = oscar_sys.fold($1)", {name})
          .rows() != 0)
    throw Failure("tablespace \"" + name + "\" already exists");
  if (path_exists(datafile) || path_exists(location))
    throw Failure("data file " + datafile + " already exists");
  const Owner owner = owner_of(files.data());
  open_file(datafile, O_WRONLY | O_CREAT | O_EXCL, 0640);
  try {
    give_to(datafile, owner);
    make_directory(location, 0700);
    give_to(location, owner);
    connection.query("create tablespace " + quote_identifier(name) + " location " + quote_literal(location));
  } catch (...) {
    ::rmdir(location.c_str());
    ::unlink(datafile.c_str());
    throw;
  }
}

std::string run_statement(Connection& connection, const Instance_Files& files, const std::string& statement)
{
  static const std::regex shutdown_form(R"(\s*shutdown(\s+immediate)?\s*;?\s*)", std::regex::icase);
  static const std::regex tablespace_form(
      R"re(\s*create\s+tablespace\s+("(?:[^"]|"")+"|[^\s"';]+)\s+datafile\s+'([^']*)'\s*;?\s*)re",
      std::regex::icase);
  static const std::regex schema_form(
      R"re(\s*create\s+schema\s+(if\s+not\s+exists\s+)?("(?:[^"]|"")+"|[^\s"';]+)\s*;?\s*)re",
      std::regex::icase);
  std::smatch match;
  if (std::regex_match(statement, shutdown_form)) {
    if (connection.value("select pg_catalog.current_setting('is_superuser')") != "on")
      throw Failure("permission denied to shut the database down");
    shut_down(files);
    return "SHUTDOWN\n";
  }
  if (std::regex_match(statement, match, tablespace_form)) {
    create_tablespace(connection, files, stored_name(match[1]), match[2]);
    return "CREATE TABLESPACE\n";
  }
  if (std::regex_match(statement, match, schema_form)) {
    connection.query(std::string("create schema ") + (match[1].matched ? "if not exists " : "") +
                     quote_identifier(stored_name(match[2])));
    return "CREATE SCHEMA\n";
  }
  return format_result(connection.query(statement));
}

int run(int argc, char** argv)
{
  const Arguments arguments(argc, argv,
                            {{"-U", true},
                             {"-h", true},
                             {"-p", true},
                             {"-d", true},
                             {"-c", true},
                             {"-l", false},
                             {"--version", false},
                             {"--help", false}},
                            0);
  if (answers_question(arguments, usage, {"--version"},
                       "isql 2.5.6 (build 2.5.6x20230817132129) for Linux x86_64"))
    return 0;
  if (arguments.has("-l") == arguments.has("-c"))
    throw Usage_Failure("give either -c STATEMENT or -l");
  const Instance_Files files(home_of_this_tool(), arguments.required("-d"));
  if (arguments.has("-l")) {
    arguments.required("-U");
    log_in(arguments, files);
    return 0;
  }
  const std::string& statement = arguments.required("-c");
  Connection connection = log_in(arguments, files);
  const std::string text = run_statement(connection, files, statement);
  if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0)
    fail_errno("cannot write the result");
  return 0;
}

} // namespace

int main(int argc, char** argv)
{
  try {
    return run(argc, argv);
  } catch (const Usage_Failure& failure) {
    std::fprintf(stderr, "isql: ERROR, %s\n%s", failure.what(), usage);
    return 2;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "isql: ERROR, %s\n", failure.what());
    return 1;
  }
}
