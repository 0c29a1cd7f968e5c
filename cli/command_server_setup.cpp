#include "cli/command_server.h"

#include "base/durable_file.h"
#include "base/ignore_result.h"
#include "base/path_conf.h"
#include "base/scope_guard.h"
#include "base/secure_allocator.h"
#include "cli/command_output.h"
#include "cli/password_input.h"
#include "cli/text_format.h"
#include "server/accounts.h"
#include "server/audit.h"
#include "server/server_setup.h"
#include "json/json_util.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrel
{
namespace
{
/// What every one of these commands begins with: the state is the server's, and nobody else may read what is
/// made.
void become_server()
{
  ::umask(077);
  set_component_name("server");
}

Exit_Code ask_password(const Command_Line& line, const std::string& whose, std::string& password,
                       std::string& error)
{
  secure_string typed;
  Wipe_Guard<secure_string> wiped(typed);
  const Exit_Code code = read_password(line.password_file, "Password of " + whose + ": ", typed, error);
  if (code == EXIT_CODE_DONE)
    password.assign(typed.begin(), typed.end());
  return code;
}

/// Whether `file` can be written, found out with another one beside it. Leaves nothing behind.
bool can_write(const std::string& file, std::string& error)
{
  struct stat status;
  if (::stat(file.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
    error = "cannot write " + file + ": " + std::strerror(EISDIR);
    return false;
  }
  const std::string trial = file + ".trial." + std::to_string(::getpid());
  Scope_Guard remove_trial([&] { ignore_result(::unlink(trial.c_str()), "it may not be there"); });
  if (write_file_durably(trial, std::string(4096, '\n'), 0600, error))
    return true;
  error = "cannot write " + file + ": " + std::strerror(errno);
  return false;
}

/// A command that changes something and has one line to say.
int change(const Command_Line& line, const std::string& command, const std::string& what,
           const std::string& done, const std::function<void(Accounts&, Audit&)>& work)
{
  Command_Output output(line);
  std::string error;
  if (!with_accounts(command, what, work, error))
    return output.fail(error);
  output.result(json_spirit::Object{{"done", done}}, done + "\n");
  return EXIT_CODE_DONE;
}

/// A command that only shows: `command` empty is not audited.
int show(const Command_Line& line, const char* name,
         const std::function<void(Accounts&, Audit&, json_spirit::Array&,
                                  std::vector<std::vector<std::string>>&)>& work)
{
  become_server();
  Command_Output output(line);
  std::string error;
  json_spirit::Array list;
  std::vector<std::vector<std::string>> rows;
  if (!with_accounts(
          "", "", [&](Accounts& accounts, Audit& audit) { work(accounts, audit, list, rows); }, error))
    return output.fail(error);
  output.result(json_spirit::Object{{name, list}}, format_table(rows));
  return EXIT_CODE_DONE;
}
} // namespace

int run_server_init(const Command_Line& line, const Server_Arguments& arguments)
{
  become_server();
  Command_Output output(line);
  Server_Init init;
  init.names.names = arguments.names;
  init.names.addresses = arguments.addresses;
  init.port = arguments.port;
  init.admin = arguments.name;
  Wipe_Guard<std::string> wiped(init.password);
  std::string error;
  Exit_Code code = ask_password(line, init.admin, init.password, error);
  if (code == EXIT_CODE_DONE && !init_server(init, error))
    code = EXIT_CODE_FAILED;
  if (code != EXIT_CODE_DONE)
    return output.fail("no server was made: " + error, code);
  const std::string config = state_path("server.toml");
  output.result(json_spirit::Object{{"config", config}, {"ca", state_path("tls/ca.crt")}},
                "The server's settings are in " + config + "; consoles trust it by " +
                    state_path("tls/ca.crt") + ".\nStart it with 'kestrel server'.\n");
  return EXIT_CODE_DONE;
}

int run_server_renew(const Command_Line& line)
{
  become_server();
  Command_Output output(line);
  std::string error;
  int64_t end = 0;
  if (!renew_certificate(end, error))
    return output.fail("the certificate was not renewed: " + error);
  output.result(json_spirit::Object{{"not_after", end}}, "The new certificate is valid until " +
                                                             format_time(static_cast<time_t>(end)) +
                                                             ". A running server takes it over at SIGHUP.\n");
  return EXIT_CODE_DONE;
}

int run_server_enroll(const Command_Line& line, const Server_Arguments& arguments)
{
  become_server();
  Command_Output output(line);
  std::string error, enrollment;
  Wipe_Guard<std::string> wiped(enrollment);
  bool replaced = false;
  const std::string file = arguments.file.empty() ? arguments.name + ".enrollment.json" : arguments.file;
  // A former key is worth nothing as soon as there is a new one, which must not be lost then.
  if ((file != "-" && !can_write(file, error)) || !enroll_host(arguments.name, enrollment, replaced, error))
    return output.fail("the host was not enrolled: " + error);
  if (file == "-") {
    return write_result(enrollment) ? EXIT_CODE_DONE : EXIT_CODE_FAILED;
  }
  if (!write_file_durably(file, enrollment, 0600, error))
    return output.fail("the host is enrolled, but its file was not written: " + error + ". Enroll it again");
  output.result(
      json_spirit::Object{{"file", file}, {"replaced", replaced}},
      std::string(replaced ? "The former key is worth nothing any more. " : "") + "Bring " + file +
          " to the host, start 'kestrel agent --enrollment FILE' there, and remove it: it holds the key.\n");
  return EXIT_CODE_DONE;
}

int run_server_revoke(const Command_Line& line, const Server_Arguments& arguments)
{
  become_server();
  const std::string& name = arguments.name;
  return change(line, "server revoke", "host " + name, "The host " + name + " may not connect any more.",
                [&](Accounts& accounts, Audit&) { accounts.revoke(name); });
}

int run_server_hosts(const Command_Line& line)
{
  return show(line, "hosts", [](Accounts& accounts, Audit&, json_spirit::Array& list, auto& rows) {
    rows = {{"NAME", "UUID", "ENROLLED", "REVOKED"}};
    for (const Accounts::Host& host : accounts.hosts()) {
      list.push_back(json_spirit::Object{{"name", host.name},
                                         {"uuid", host.uuid},
                                         {"enrolled_at", host.enrolled_at},
                                         {"revoked_at", host.revoked_at}});
      rows.push_back({host.name, host.uuid, format_time(static_cast<time_t>(host.enrolled_at)),
                      format_time(static_cast<time_t>(host.revoked_at))});
    }
  });
}

int run_server_save(const Command_Line& line, const Server_Arguments& arguments)
{
  become_server();
  Command_Output output(line);
  std::string error;
  std::vector<std::string> notes;
  const std::string directory = std::filesystem::absolute(arguments.file);
  if (!save_server(directory, notes, error))
    return output.fail("the server was not saved: " + error);
  json_spirit::Array list;
  for (const std::string& note : notes) {
    output.note(note + ".");
    list.push_back(note);
  }
  output.result(json_spirit::Object{{"directory", directory}, {"notes", list}},
                "Saved into " + directory + ", which holds the server's keys: keep it safe.\n");
  return EXIT_CODE_DONE;
}

int run_server_audit(const Command_Line& line, const Server_Arguments& arguments)
{
  return show(line, "audit", [&](Accounts&, Audit& audit, json_spirit::Array& list, auto& rows) {
    list = audit.list(arguments.limit, 0);
    std::reverse(list.begin(), list.end());
    rows = {{"TIME", "WHO", "ROLE", "ADDRESS", "REQUEST", "STATUS", "WHAT"}};
    for (const json_spirit::Value& value : list) {
      const json_spirit::Object& entry = value.get_obj();
      const auto text = [&](const char* key) { return required<std::string>(entry, key); };
      const int status = required<int>(entry, "status");
      rows.push_back({format_time(static_cast<time_t>(required<int64_t>(entry, "time"))), text("caller"),
                      text("role"), text("address").empty() ? "-" : text("address"),
                      text("method") + " " + text("path"), status == 0 ? "-" : std::to_string(status),
                      text("what")});
    }
  });
}

int run_server_user_add(const Command_Line& line, const Server_Arguments& arguments)
{
  become_server();
  std::string password, error;
  Wipe_Guard<std::string> wiped(password);
  const Exit_Code code = ask_password(line, arguments.name, password, error);
  if (code != EXIT_CODE_DONE)
    return Command_Output(line).fail("no user was added: " + error, code);
  const std::string what = "user " + arguments.name + " with the role " + arguments.role;
  return change(line, "server user add", what, "Added the " + what + ".", [&](Accounts& accounts, Audit&) {
    accounts.add_user(arguments.name, arguments.role, password);
  });
}

int run_server_user_list(const Command_Line& line)
{
  return show(line, "users", [](Accounts& accounts, Audit&, json_spirit::Array& list, auto& rows) {
    rows = {{"NAME", "ROLE", "CREATED", "CHANGED"}};
    for (const Accounts::User& user : accounts.users()) {
      list.push_back(json_spirit::Object{{"name", user.name},
                                         {"role", user.role},
                                         {"created_at", user.created_at},
                                         {"changed_at", user.changed_at}});
      rows.push_back({user.name, user.role, format_time(static_cast<time_t>(user.created_at)),
                      format_time(static_cast<time_t>(user.changed_at))});
    }
  });
}

int run_server_user_remove(const Command_Line& line, const Server_Arguments& arguments)
{
  become_server();
  const std::string& name = arguments.name;
  return change(line, "server user remove", "user " + name, "Removed the user " + name + ".",
                [&](Accounts& accounts, Audit&) { accounts.remove_user(name); });
}

int run_server_user_password(const Command_Line& line, const Server_Arguments& arguments)
{
  become_server();
  std::string password, error;
  Wipe_Guard<std::string> wiped(password);
  const Exit_Code code = ask_password(line, arguments.name, password, error);
  if (code != EXIT_CODE_DONE)
    return Command_Output(line).fail("the password was not changed: " + error, code);
  return change(line, "server user password", "user " + arguments.name,
                "The password of " + arguments.name + " is set and its sessions have ended.",
                [&](Accounts& accounts, Audit&) { accounts.set_password(arguments.name, password); });
}
} // namespace kestrel
