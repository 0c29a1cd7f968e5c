#include "lab/common/database.h"

#include "lab/common/text.h"

#include <fcntl.h>

namespace oscar_lab
{

std::string primary_message(const std::string& libpq_text)
{
  for (const char* const severity : {"FATAL:  ", "ERROR:  ", "PANIC:  "}) {
    const auto found = libpq_text.find(severity);
    if (found == std::string::npos)
      continue;
    const auto begin = found + std::string(severity).size();
    return trim(libpq_text.substr(begin, libpq_text.find('\n', begin) - begin));
  }
  const std::string first_line = trim(libpq_text.substr(0, libpq_text.find('\n')));
  return first_line.empty() ? "connection to server lost" : first_line;
}

Connection::Connection(const Login& login)
{
  const std::string port = std::to_string(login.port);
  const std::string timeout = std::to_string(login.timeout_seconds);
  const char* const keywords[] = {"host",       "port",
                                  "user",       "password",
                                  "dbname",     "options",
                                  "sslmode",    "connect_timeout",
                                  "gssencmode", "client_encoding",
                                  "passfile",   "fallback_application_name",
                                  nullptr};
  const char* const values[] = {login.host.c_str(),
                                port.c_str(),
                                login.user.c_str(),
                                login.password.c_str(),
                                login.database.c_str(),
                                login.settings.c_str(),
                                "disable",
                                timeout.c_str(),
                                "disable",
                                "UTF8",
                                "/dev/null/none",
                                "tool",
                                nullptr};
  connection_.reset(PQconnectdbParams(keywords, values, 0));
  if (!connection_)
    throw Failure("out of memory");
  if (PQstatus(connection_.get()) != CONNECTION_OK)
    throw Failure(error());
}

std::string Connection::error() const
{
  return primary_message(PQerrorMessage(connection_.get()));
}

Result Connection::query(const std::string& statement, const std::vector<std::string>& parameters)
{
  std::vector<const char*> values;
  for (const std::string& parameter : parameters)
    values.push_back(parameter.c_str());
  // Without parameters the simple protocol also takes several statements at once.
  Result result(parameters.empty()
                    ? PQexec(connection_.get(), statement.c_str())
                    : PQexecParams(connection_.get(), statement.c_str(), static_cast<int>(values.size()),
                                   nullptr, values.data(), nullptr, nullptr, 0));
  const ExecStatusType status = PQresultStatus(result.get());
  if (status != PGRES_TUPLES_OK && status != PGRES_COMMAND_OK && status != PGRES_COPY_IN)
    throw Failure(error());
  return result;
}

std::string Connection::value(const std::string& statement, const std::vector<std::string>& parameters)
{
  const Result result = query(statement, parameters);
  if (result.rows() < 1 || result.columns() < 1)
    throw Failure("the server gave no value");
  return result.text(0, 0);
}

Connection connect_as_system(const Instance_Files& files, const std::string& database)
{
  const Descriptor directory = open_file(files.run(), O_PATH | O_DIRECTORY);
  Login login;
  login.host = "/proc/self/fd/" + std::to_string(directory.get());
  login.port = read_conf(files).port;
  login.user = system_user;
  login.database = database;
  login.settings = "-c client_min_messages=warning";
  return Connection(login);
}

Login user_login(const Instance_Files& files, const std::string& host, std::uint16_t port)
{
  Login login;
  // The server listens on one IPv4 address only; resolving "localhost" would try ::1 first.
  login.host = host.empty() || host == "localhost" ? "127.0.0.1" : host;
  login.port = port != 0 ? port : read_conf(files).port;
  // Naming pg_catalog last lets the views and functions of oscar_sys hide PostgreSQL's own; public must come
  // first, because unqualified names are created there.
  login.settings = "-c search_path=public,oscar_sys,pg_catalog -c client_min_messages=warning";
  return login;
}

void require_instance(Connection& connection, const std::string& instance)
{
  if (connection.value("select pg_catalog.current_setting('oscar.instance', true)") != instance)
    throw Failure("database \"" + instance + "\" does not exist");
}

std::string quote_identifier(const std::string& name)
{
  std::string quoted = "\"";
  for (const char c : name)
    quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
  return quoted + "\"";
}

std::string quote_literal(const std::string& text)
{
  std::string quoted = "'";
  for (const char c : text)
    quoted += c == '\'' ? std::string("''") : std::string(1, c);
  return quoted + "'";
}

} // namespace oscar_lab
