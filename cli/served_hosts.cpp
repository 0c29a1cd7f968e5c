#include "cli/object_path.h"
#include "cli/password_input.h"
#include "cli/served_commands.h"
#include "cli/served_json.h"
#include "cli/text_format.h"

#include "json/json_util.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/predicate.hpp>

#include <algorithm>
#include <cctype>

namespace kestrel
{
namespace
{
const unsigned LOGIN_SECONDS = 120;
const unsigned BROWSE_SECONDS = 60;
const unsigned PROBE_SECONDS = 60;

/// Text or number.
std::string cell(const json_spirit::Object& object, const char* key)
{
  const json_spirit::Value& value = find_value(object, key);
  if (value.is_null() || (value.type() == json_spirit::str_type && value.get_str().empty()))
    return "-";
  return value.type() == json_spirit::str_type ? value.get_str() : write_json(value);
}

/// The names of an instance's accounts, whichever form the host tells them in.
std::vector<std::string> users_of(const json_spirit::Object& instance)
{
  std::vector<std::string> users = texts_in(instance, "accounts");
  for (const json_spirit::Object& account : objects_in(instance, "accounts"))
    users.push_back(text_in(account, "user"));
  return users;
}

std::string join(const std::vector<std::string>& texts)
{
  std::string all;
  for (const std::string& text : texts)
    all += (all.empty() ? "" : ",") + text;
  return or_dash(all);
}

struct Shown_Instance {
  Served_Host host;
  json_spirit::Object entry;
};

json_spirit::Object json_of(const Shown_Instance& shown)
{
  json_spirit::Object object;
  set_value(object, "host", shown.host.name);
  for (const char* key : {"name", "uuid", "port", "version", "state", "home"})
    set_value(object, key, find_value(shown.entry, key));
  const std::vector<std::string> users = users_of(shown.entry);
  set_value(object, "users", json_spirit::Array(users.begin(), users.end()));
  return object;
}

/// What the host says now when it was asked for by name, else what the server knows of every host.
bool gather_instances(Console& console, std::vector<Shown_Instance>& shown)
{
  std::vector<Served_Host> hosts;
  if (console.line().host.empty()) {
    if (!console.hosts(hosts))
      return false;
  } else {
    Served_Host host;
    json_spirit::Value result;
    json_spirit::Object params;
    set_value(params, "probe", true);
    if (!console.find_host(console.line().host, host))
      return false;
    if (host.online) {
      if (!console.call_host(host, "instance.list", params, PROBE_SECONDS, result))
        return false;
      if (result.type() == json_spirit::obj_type)
        host.instances = array_in(result.get_obj(), "instances");
    }
    hosts.push_back(host);
  }
  for (const Served_Host& host : hosts)
    for (const json_spirit::Value& instance : host.instances)
      if (instance.type() == json_spirit::obj_type)
        shown.push_back({host, instance.get_obj()});
  return true;
}

/// INSTANCE, or HOST/INSTANCE[/...]: the host, and the rest.
bool split_place(Console& console, Served_Host& host, std::vector<std::string>& names)
{
  std::string rest = console.line().place;
  while (!rest.empty() && rest.back() == '/')
    rest.pop_back();
  for (size_t begin = 0; begin <= rest.size() && !rest.empty();) {
    const size_t slash = std::min(rest.find('/', begin), rest.size());
    if (slash == begin) {
      console.fail("'" + rest + "' has an empty name; HOST/INSTANCE/DATABASE/SCHEMA is the form",
                   EXIT_CODE_USAGE);
      return false;
    }
    names.push_back(rest.substr(begin, slash - begin));
    begin = slash + 1;
  }
  if (names.size() > 4) {
    console.fail("'" + rest + "' has too many names; HOST/INSTANCE/DATABASE/SCHEMA is the form",
                 EXIT_CODE_USAGE);
    return false;
  }
  if (names.empty())
    return true;
  if (!console.find_host(names.front(), host))
    return false;
  names.erase(names.begin());
  // A slash inside a name is written as %2F, as in the objects of an export.
  for (std::string& name : names) {
    Object_Path one;
    std::string error;
    if (!parse_object_path(name, one, error)) {
      console.fail(error, EXIT_CODE_USAGE);
      return false;
    }
    name = one.instance;
  }
  return true;
}

/// A list of texts, or of objects, as a table; one may lack what another has.
std::string text_of_list(const json_spirit::Value& value, const std::string& nothing)
{
  if (value.type() != json_spirit::array_type || value.get_array().empty())
    return nothing;
  std::vector<std::vector<std::string>> rows;
  std::vector<std::string> keys;
  for (const json_spirit::Value& entry : value.get_array())
    if (entry.type() == json_spirit::obj_type)
      for (const json_spirit::Pair& member : entry.get_obj())
        if (std::find(keys.begin(), keys.end(), member.name_) == keys.end())
          keys.push_back(member.name_);
  if (!keys.empty()) {
    rows.emplace_back();
    for (const std::string& key : keys)
      rows.back().push_back(boost::to_upper_copy(key));
  }
  for (const json_spirit::Value& entry : value.get_array()) {
    rows.emplace_back();
    if (entry.type() != json_spirit::obj_type)
      rows.back().push_back(entry.type() == json_spirit::str_type ? entry.get_str() : write_json(entry));
    else
      for (const std::string& key : keys)
        rows.back().push_back(cell(entry.get_obj(), key.c_str()));
  }
  return format_table(rows);
}
} // namespace

int served_status(Console& console)
{
  json_spirit::Object reply;
  if (!console.get({"status"}, reply))
    return EXIT_CODE_FAILED;
  std::vector<std::vector<std::string>> rows = {{"Server", console.client().url()}};
  for (const json_spirit::Pair& member : reply) {
    const bool is_time = member.name_ == "started" || member.name_ == "time";
    std::string title = member.name_;
    for (char& c : title)
      c = c == '_' ? ' ' : c;
    title[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(title[0])));
    rows.push_back({title, is_time && number_in(reply, member.name_.c_str()) > 0
                               ? format_time(static_cast<time_t>(number_in(reply, member.name_.c_str())))
                           : member.value_.type() == json_spirit::bool_type
                               ? (member.value_.get_bool() ? "yes" : "no")
                               : cell(reply, member.name_.c_str())});
  }
  json_spirit::Object json;
  set_value(json, "server", console.client().url());
  json.insert(json.end(), reply.begin(), reply.end());
  console.result(json, format_table(rows));
  return EXIT_CODE_DONE;
}

int served_hosts(Console& console)
{
  std::vector<Served_Host> hosts;
  if (!console.hosts(hosts))
    return EXIT_CODE_FAILED;
  json_spirit::Array list;
  std::vector<std::vector<std::string>> rows = {{"HOST", "STATE", "LAST SEEN", "VERSION", "INSTANCES"}};
  for (const Served_Host& host : hosts) {
    list.push_back(host.json);
    std::vector<std::string> names;
    for (const json_spirit::Value& instance : host.instances)
      if (instance.type() == json_spirit::obj_type)
        names.push_back(text_in(instance.get_obj(), "name"));
    rows.push_back({host.name, host.online ? "online" : "offline", minute_in(host.json, "last_seen"),
                    or_dash(text_in(host.json, "version")), cut_to(join(names), 30)});
  }
  json_spirit::Object json;
  set_value(json, "hosts", list);
  console.result(json, hosts.empty() ? "There is no host yet. On the server: kestrel server enroll NAME\n"
                                     : format_table(rows));
  return EXIT_CODE_DONE;
}

int served_instances(Console& console)
{
  std::vector<Shown_Instance> shown;
  if (!gather_instances(console, shown))
    return EXIT_CODE_FAILED;
  json_spirit::Array list;
  std::vector<std::vector<std::string>> rows = {{"HOST", "NAME", "PORT", "VERSION", "STATE", "USER"}};
  for (const Shown_Instance& one : shown) {
    list.push_back(json_of(one));
    rows.push_back({one.host.name, cell(one.entry, "name"), cell(one.entry, "port"),
                    cell(one.entry, "version"), one.host.online ? cell(one.entry, "state") : "host offline",
                    join(users_of(one.entry))});
  }
  json_spirit::Object json;
  set_value(json, "instances", list);
  console.result(json, shown.empty()
                           ? "No host has told of an OSCAR instance yet; 'kestrel hosts' lists the hosts.\n"
                           : format_table(rows, {2}));
  return EXIT_CODE_DONE;
}

namespace
{
json_spirit::Value login_params(const std::string& instance, const std::string& user,
                                const secure_string& password)
{
  json_spirit::Object params;
  set_value(params, "instance", instance);
  set_value(params, "user", user);
  set_value(params, "password", std::string(password.data(), password.size()));
  return params;
}
} // namespace

int served_login(Console& console)
{
  const Command_Line& line = console.line();
  Known_Instance instance;
  Served_Host host;
  if (!console.find_instance(line.instance, instance) || !console.find_host(instance.host_uuid, host))
    return console.last_code();
  std::string error;
  secure_string password;
  const Wipe_Guard<secure_string> wipe(password);
  const Exit_Code read = read_password(
      line.password_file, "Password of " + line.user + " at " + instance.name + " on " + host.name + ": ",
      password, error);
  if (read != EXIT_CODE_DONE)
    return console.fail("no password for " + line.user + " at " + instance.name + ": " + error, read);
  json_spirit::Value result;
  const bool done = console.call_host(
      host, "instance.login", login_params(instance.name, line.user, password), LOGIN_SECONDS, result);
  if (!done)
    return EXIT_CODE_FAILED;
  const std::string warning =
      result.type() == json_spirit::obj_type ? text_in(result.get_obj(), "warning") : std::string();
  if (!warning.empty())
    console.note(warning);
  json_spirit::Object json;
  set_value(json, "instance", instance.name);
  set_value(json, "host", host.name);
  set_value(json, "user", line.user);
  set_value(json, "warning", warning);
  console.result(json, "The login works; " + host.name + " keeps the account of " + line.user + " at " +
                           instance.name + ".\n");
  return EXIT_CODE_DONE;
}

namespace
{
/// What the host lists below INSTANCE, DATABASE and SCHEMA, as far as they are given. False after fail().
bool list_place(Console& console, const Served_Host& host, const std::vector<std::string>& names,
                json_spirit::Value& result)
{
  json_spirit::Value params;
  if (!names.empty()) {
    json_spirit::Object object;
    set_value(object, "uid", console.identity_for({}).user_id);
    const char* const keys[] = {"instance", "database", "schema"};
    for (size_t i = 0; i < names.size(); ++i)
      set_value(object, keys[i], names[i]);
    params = object;
  }
  return console.call_host(host, "oscar.list", params, BROWSE_SECONDS, result);
}

/// A host lists what is in an instance's only database under every name, so this looks whether there is one
/// of that name. False after fail().
bool check_database(Console& console, const Served_Host& host, const std::string& instance,
                    const std::string& database)
{
  json_spirit::Value result;
  if (!list_place(console, host, {instance}, result))
    return false;
  std::string known;
  if (result.type() == json_spirit::array_type)
    for (const json_spirit::Value& entry : result.get_array()) {
      const std::string name =
          entry.type() == json_spirit::obj_type ? text_in(entry.get_obj(), "database") : std::string();
      if (boost::iequals(name, database))
        return true;
      known += (known.empty() ? "" : ", ") + name;
    }
  console.fail("there is no database " + database + " in " + instance + " on " + host.name +
               (known.empty() ? "" : ", only " + known));
  return false;
}
} // namespace

int served_browse(Console& console)
{
  Served_Host host;
  std::vector<std::string> names;
  if (!split_place(console, host, names))
    return console.last_code();
  if (host.uuid.empty())
    return served_hosts(console);
  if (names.size() > 1 && !check_database(console, host, names[0], names[1]))
    return EXIT_CODE_FAILED;
  json_spirit::Value result;
  if (!list_place(console, host, names, result))
    return EXIT_CODE_FAILED;
  const char* const levels[] = {"instances", "databases", "schemas", "tables"};
  json_spirit::Object json;
  set_value(json, "host", host.name);
  set_value(json, levels[names.size()], result);
  console.result(json,
                 text_of_list(result, std::string("There are no ") + levels[names.size()] + " here.\n"));
  return EXIT_CODE_DONE;
}
} // namespace kestrel
