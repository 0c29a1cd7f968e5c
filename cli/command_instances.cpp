#include "cli/password_input.h"
#include "cli/session.h"
#include "cli/text_format.h"

#include "instances/instance_handler.h"
#include "json/json_util.h"

#include <set>

namespace kestrel
{
namespace
{
/// Null when the handler cannot tell.
json_spirit::Value port_of(Session& session, const std::string& name)
{
  unsigned short port = 0;
  if (!session.host().instances().port(session.host().instance_handler(), name, port))
    return json_spirit::Value();
  return port;
}

std::string users_of(const Instance_Registry::Entry& entry)
{
  std::set<std::string> names;
  for (const Instance_Registry::Account& account : entry.accounts)
    names.insert(account.username);
  std::string text;
  for (const std::string& name : names)
    text += (text.empty() ? "" : ",") + name;
  return text.empty() ? "-" : text;
}
} // namespace

int run_instances(Session& session)
{
  std::string error;
  std::vector<Instance_Registry::Entry> entries;
  Instance_Registry& registry = session.host().instances();
  if (registry.probe(session.host().instance_handler(), error) != 0 || registry.list(entries, error) != 0)
    return session.fail("the instances of this host cannot be listed: " + error);

  json_spirit::Array list;
  std::vector<std::vector<std::string>> rows = {{"NAME", "PORT", "VERSION", "STATE", "USER", "HOME"}};
  for (const Instance_Registry::Entry& entry : entries) {
    const Instance& instance = entry.instance;
    const std::string state = registry.state(session.host().instance_handler(), instance.name);
    const json_spirit::Value port = port_of(session, instance.name);
    json_spirit::Object object;
    set_value(object, "name", instance.name);
    set_value(object, "uuid", instance.uuid);
    set_value(object, "port", port);
    set_value(object, "version", option_text(instance, "version"));
    set_value(object, "state", state);
    set_value(object, "home", option_text(instance, "oscar_home"));
    json_spirit::Array users;
    for (const Instance_Registry::Account& account : entry.accounts)
      users.push_back(account.username);
    set_value(object, "users", users);
    list.push_back(object);
    rows.push_back({instance.name, port.is_null() ? "-" : write_json(port), option_text(instance, "version"),
                    state, users_of(entry), option_text(instance, "oscar_home")});
  }
  json_spirit::Object json;
  set_value(json, "instances", list);
  session.result(json, entries.empty()
                           ? "No OSCAR instance was found on this host. Start one and try again.\n"
                           : format_table(rows, {1}));
  return EXIT_CODE_DONE;
}

int run_login(Session& session)
{
  const Command_Line& line = session.line();
  Known_Instance instance;
  std::string error;
  // The handler tests logins only at instances that its own last look found.
  Instance_Registry& registry = session.host().instances();
  if (registry.probe(session.host().instance_handler(), error) != 0)
    return session.fail("the instances of this host cannot be listed: " + error);
  if (!session.find_instance(line.instance, instance))
    return EXIT_CODE_FAILED;

  secure_string password;
  const Exit_Code read = read_password(
      line.password_file, "Password of " + line.user + " at " + instance.name + ": ", password, error);
  if (read != EXIT_CODE_DONE)
    return session.fail("no password for " + line.user + " at " + instance.name + ": " + error, read);
  std::string warning;
  if (registry.logon(session.host().instance_handler(), instance.name, "", line.user, password, warning,
                     error) != 0) {
    const bool awkward = password.find_first_of(" \t\"'") != secure_string::npos;
    return session.fail("the login of " + line.user + " at " + instance.name +
                        " failed: " + (error.empty() ? "see the log" : error) +
                        (registry.state(session.host().instance_handler(), instance.name) == "offline"
                             ? "; the instance is offline: start it and try again"
                             : "") +
                        (awkward ? " (OSCAR's tools take no password with blanks or quotes)" : ""));
  }
  json_spirit::Object json;
  set_value(json, "instance", instance.name);
  set_value(json, "user", line.user);
  session.result(json,
                 "The login works; the account of " + line.user + " at " + instance.name + " is kept.\n");
  return EXIT_CODE_DONE;
}
} // namespace kestrel
