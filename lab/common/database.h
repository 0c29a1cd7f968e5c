/// Connections to the PostgreSQL server behind an instance.
/// Threads:   one thread per connection.
/// Ownership: Connection and Result own libpq's objects.
/// Errors:    Failure with the server's primary message in one line; never the statement, never a password.
#pragma once

#include "lab/common/instance_files.h"

#include <cstdint>
#include <libpq-fe.h>
#include <memory>
#include <string>
#include <vector>

namespace oscar_lab
{

/// The database inside the server that holds an instance's data.
constexpr const char* database_name = "oscar";
/// The server's own superuser. It can log in through the socket in the instance's run directory only,
/// which nobody but the owner of the files (and root) can reach.
constexpr const char* system_user = "osys";
/// A login without password that may look at the version and nothing else.
constexpr const char* guest_user = "guest";

class Result
{
public:
  explicit Result(PGresult* result) : result_(result) {}
  int rows() const { return PQntuples(result_.get()); }
  int columns() const { return PQnfields(result_.get()); }
  std::string text(int row, int column) const { return PQgetvalue(result_.get(), row, column); }
  PGresult* get() const { return result_.get(); }

private:
  struct Clear {
    void operator()(PGresult* result) const { PQclear(result); }
  };
  std::unique_ptr<PGresult, Clear> result_;
};

struct Login {
  std::string host;
  std::uint16_t port = 0;
  std::string user;
  std::string password;
  std::string database = database_name;
  std::string settings; // text for the connection option "options"
  int timeout_seconds = 10;
};

class Connection
{
public:
  explicit Connection(const Login& login);
  /// Runs one statement; parameters take the places $1, $2... A statement without rows gives an empty result.
  Result query(const std::string& statement, const std::vector<std::string>& parameters = {});
  /// The single value of the first row.
  std::string value(const std::string& statement, const std::vector<std::string>& parameters = {});
  PGconn* get() const { return connection_.get(); }
  std::string error() const;

private:
  struct Finish {
    void operator()(PGconn* connection) const { PQfinish(connection); }
  };
  std::unique_ptr<PGconn, Finish> connection_;
};

/// The one line that matters out of a libpq error text.
std::string primary_message(const std::string& libpq_text);

/// Logs in as the server's superuser through the socket in the run directory. The directory's path may be
/// longer than a socket address allows; the connection goes through a descriptor of the directory then.
Connection connect_as_system(const Instance_Files& files, const std::string& database = database_name);

/// The settings under which users see OSCAR's catalog views, plus the check that the server serves this
/// instance.
Login user_login(const Instance_Files& files, const std::string& host, std::uint16_t port);
/// Throws when the server behind the connection serves another instance.
void require_instance(Connection& connection, const std::string& instance);

std::string quote_identifier(const std::string& name);
std::string quote_literal(const std::string& text);

} // namespace oscar_lab
