#include "server/server_setup.h"

#include "base/clock.h"
#include "base/durable_file.h"
#include "base/file_system.h"
#include "base/ignore_result.h"
#include "base/path_conf.h"
#include "base/scope_guard.h"
#include "base/version.h"
#include "catalog/sql_back_end.h"
#include "rpc/rest_router.h"
#include "server/accounts.h"
#include "server/audit.h"
#include "server/server_database.h"
#include "json/json_util.h"

#include <soci/sqlite3/soci-sqlite3.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrel
{
namespace
{
const char* const tls_files[] = {"tls/ca.crt", "tls/ca.key", "tls/server.crt", "tls/server.key"};

bool is_there(const std::string& path)
{
  struct stat status;
  return file_system().stat(path.c_str(), &status) == 0;
}

std::string host_name()
{
  char name[256] = "";
  return ::gethostname(name, sizeof name - 1) == 0 && is_dns_name(name) ? name : "localhost";
}

template <class T> void add_missing(std::vector<T>& list, const T& one)
{
  if (std::find(list.begin(), list.end(), one) == list.end())
    list.push_back(one);
}

bool write_secret(const std::string& path, const std::string& text, std::string& error)
{
  return write_file_durably(path, text, 0600, error);
}

bool make_directory(const std::string& path, std::string& error)
{
  if (file_system().mkdir(path.c_str(), 0700) == 0)
    return true;
  error = "Cannot make the directory " + path + ": " + ::strerror(errno);
  return false;
}

bool write_tls(const TLS_Pair& ca, const TLS_Pair& server, std::string& error)
{
  return write_secret(state_path("tls/ca.key"), ca.key, error) &&
         write_secret(state_path("tls/ca.crt"), ca.certificate, error) &&
         write_secret(state_path("tls/server.key"), server.key, error) &&
         write_secret(state_path("tls/server.crt"), server.certificate, error);
}

/// What an attempt to make a server has written, so that the next one may begin anew.
void remove_parts()
{
  std::vector<const char*> names = {"server.toml", "server.db", "server.db-wal", "server.db-shm"};
  names.insert(names.end(), std::begin(tls_files), std::end(tls_files));
  for (const char* name : names)
    ignore_result(file_system().unlink(state_path(name).c_str()), "what stays is named by the next attempt");
  ignore_result(::rmdir(state_path("tls").c_str()), "as above");
}

std::string toml_text(const Server_Init& init, const std::string& name)
{
  return "# The backup server. docs/operations.md describes every key.\n"
         "[server]\n"
         "address = \"0.0.0.0\"\n"
         "port = " +
         std::to_string(init.port) +
         "\n"
         "# How agents reach this server; stands in enrollment files.\n"
         "url = \"https://" +
         name + ":" + std::to_string(init.port) + "\"\n";
}

bool open_database(Server_Database& database, bool create, std::string& error)
{
  Server_Database::Options options;
  options.path = state_path("server.db");
  options.connections = 1;
  options.create = create;
  return database.open(options, error);
}

void sync_file(const std::string& path)
{
  const int fd = file_system().open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const bool done = fd >= 0 && file_system().fsync(fd) == 0;
  const int error = errno;
  if (fd >= 0)
    ignore_result(file_system().close(fd), "nothing was written through it");
  if (!done)
    throw std::runtime_error("Cannot make " + path + " durable: " + ::strerror(error));
}

/// The database as of one moment, while others go on writing.
void copy_database(const std::string& from, const std::string& to)
{
  soci::session session(soci::sqlite3, "db=\"" + from + "\"");
  session << "PRAGMA busy_timeout = 30000";
  std::string quoted;
  for (const char c : to)
    quoted += c == '\'' ? std::string("''") : std::string(1, c);
  session << "VACUUM INTO '" + quoted + "'";
  if (::chmod(to.c_str(), 0600) != 0)
    throw std::runtime_error("Cannot protect " + to + ": " + ::strerror(errno));
  sync_file(to);
}

void copy_file(const std::string& from, const std::string& to)
{
  std::string text, error;
  if (!read_whole_file(from, text, error) || !write_secret(to, text, error))
    throw std::runtime_error(error);
}

void copy_state(const std::string& directory, std::vector<std::string>& notes)
{
  copy_database(state_path("server.db"), directory + "/server.db");
  const Catalog_Place catalog = default_catalog_place();
  if (!catalog.server.empty())
    notes.push_back("The catalog is " + catalog.name() + " and not a part of this copy");
  else if (is_there(catalog.path))
    copy_database(catalog.path, directory + "/catalog.db");
  else
    notes.push_back("There is no catalog yet");
  for (const char* name : {"pools.json", "catalog.json", "server.toml"})
    if (is_there(state_path(name)))
      copy_file(state_path(name), directory + "/" + name);
  std::string error;
  if (!make_directory(directory + "/tls", error))
    throw std::runtime_error(error);
  for (const char* name : tls_files)
    if (is_there(state_path(name)))
      copy_file(state_path(name), directory + "/" + name);
}
} // namespace

bool init_server(const Server_Init& init, std::string& error)
{
  for (const char* name : {"server.toml", "server.db", "tls"})
    if (is_there(state_path(name))) {
      error = state_path(name) + " exists already: a server is made only once. To begin anew, move it away";
      return false;
    }
  TLS_Names names = init.names;
  const std::string name = names.names.empty()
                               ? (names.addresses.empty() ? host_name() : names.addresses.front())
                               : names.names.front();
  add_missing(names.names, host_name());
  add_missing<std::string>(names.names, "localhost");
  add_missing<std::string>(names.addresses, "127.0.0.1");
  TLS_Pair ca, server;
  if (!make_ca(ca, error) || !make_server_certificate(ca, names, server, error) ||
      !make_directory(state_path("tls"), error))
    return false;
  Scope_Guard clear_away(remove_parts); // after the database is closed
  if (!write_tls(ca, server, error))
    return false;
  Server_Database database;
  if (!open_database(database, true, error))
    return false;
  try {
    Accounts(database).add_user(init.admin, "admin", init.password);
    Audit(database).add(local_caller(), "LOCAL", "server init", "admin " + init.admin, 0);
  } catch (const REST_Error& refused) {
    error = refused.what();
    return false;
  } catch (const std::exception& failed) {
    error = database.translate(failed).what();
    return false;
  }
  const std::string url_host = name.find(':') == std::string::npos ? name : "[" + name + "]";
  if (!write_secret(state_path("server.toml"), toml_text(init, url_host), error))
    return false;
  clear_away.cancel();
  return true;
}

bool load_server_config(const std::string& path, Server_Config& config, std::string& error)
{
  const std::string file = path.empty() ? state_path("server.toml") : path;
  if (config.read(file, error))
    return true;
  if (path.empty() && !is_there(file))
    error = "There is no backup server here (" + file + " is missing): 'kestrel server init' makes one";
  return false;
}

bool with_accounts(const std::string& command, const std::string& what,
                   const std::function<void(Accounts&, Audit&)>& work, std::string& error)
{
  Server_Database database;
  if (!open_database(database, false, error))
    return false;
  try {
    Accounts accounts(database);
    Audit audit(database);
    work(accounts, audit);
    if (!command.empty())
      audit.add(local_caller(), "LOCAL", command, what, 0);
    return true;
  } catch (const REST_Error& refused) {
    error = refused.what();
  } catch (const std::exception& failed) {
    error = database.translate(failed).what();
  }
  return false;
}

bool renew_certificate(int64_t& not_after, std::string& error)
{
  Server_Config config;
  if (!load_server_config("", config, error))
    return false;
  if (!config.certificate_file.empty()) {
    error = "server.toml names a certificate of your own (" + config.certificate_file +
            "): renew it where it is "
            "from";
    return false;
  }
  TLS_Pair ca, server;
  std::string old;
  TLS_Names names;
  if (!read_whole_file(state_path("tls/ca.crt"), ca.certificate, error) ||
      !read_whole_file(state_path("tls/ca.key"), ca.key, error) ||
      !read_whole_file(state_path("tls/server.crt"), old, error) || !certificate_names(old, names, error) ||
      !make_server_certificate(ca, names, server, error))
    return false;
  // One file for both would be replaced at once; with two, a server that starts in between finds a key that
  // does not fit, says so, and starts the next time.
  int64_t end = 0;
  if (!write_secret(state_path("tls/server.key"), server.key, error) ||
      !write_secret(state_path("tls/server.crt"), server.certificate, error) ||
      !certificate_end(server.certificate, end, error) ||
      !with_accounts(
          "server renew", "server certificate", [](Accounts&, Audit&) {}, error))
    return false;
  not_after = end;
  return true;
}

bool enroll_host(const std::string& name, std::string& enrollment, bool& replaced, std::string& error)
{
  Server_Config config;
  std::string ca;
  if (!load_server_config("", config, error) || !read_whole_file(state_path("tls/ca.crt"), ca, error))
    return false;
  const std::string url =
      !config.url.empty() ? config.url : "https://" + host_name() + ":" + std::to_string(config.port);
  Accounts::New_Host host;
  if (!with_accounts(
          "server enroll", "host " + name, [&](Accounts& accounts, Audit&) { host = accounts.enroll(name); },
          error))
    return false;
  replaced = host.replaced;
  enrollment = write_json_pretty(json_spirit::Object{{"format", 1},
                                                     {"server", url},
                                                     {"host_uuid", host.uuid},
                                                     {"name", name},
                                                     {"access_key", host.access_key},
                                                     {"ca_pem", ca}});
  return true;
}

bool save_server(const std::string& directory, std::vector<std::string>& notes, std::string& error)
{
  Server_Config config;
  if (!load_server_config("", config, error) || !make_directory(directory, error))
    return false;
  try {
    copy_state(directory, notes);
  } catch (const std::exception& failed) {
    error = "The copy in " + directory + " is not complete: " + failed.what();
    return false;
  }
  const std::string mark =
      std::string("saved by kestrel ") + version() + " at " + std::to_string(clock().now()) + "\n";
  return with_accounts(
             "server save", directory, [](Accounts&, Audit&) {}, error) &&
         write_secret(directory + "/complete", mark, error);
}
} // namespace kestrel
