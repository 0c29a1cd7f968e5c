#include "cli/password_input.h"
#include "cli/served_commands.h"
#include "cli/served_job.h"
#include "cli/served_json.h"
#include "cli/text_format.h"

#include "base/uuid.h"
#include "json/json_util.h"
#include "json/wipe_json.h"

#include <algorithm>

namespace kestrel
{
namespace
{
json_spirit::Array array_of(const std::vector<json_spirit::Object>& entries)
{
  return json_spirit::Array(entries.begin(), entries.end());
}

std::string node_of(const json_spirit::Object& candidate)
{
  return flag_in(candidate, "answered") ? std::to_string(number_in(candidate, "node_id")) : "-";
}

/// What a node answered, or why it did not count.
std::string answer_of(const json_spirit::Object& candidate)
{
  const std::string problem = text_in(candidate, "problem");
  if (!problem.empty())
    return problem;
  if (!flag_in(candidate, "connected"))
    return "not connected";
  if (!flag_in(candidate, "answered"))
    return "no answer";
  std::string text = flag_in(candidate, "online") ? "online" : "offline";
  if (flag_in(candidate, "is_master"))
    text += ", master";
  if (!flag_in(candidate, "asked"))
    text += ", has not asked";
  return text + ", " + std::to_string(number_in(candidate, "running_jobs")) + " other jobs";
}

std::string text_of_selection(const json_spirit::Object& selection)
{
  const std::string state = text_in(selection, "state");
  std::string text = minute_in(selection, "asked_at") + "  " +
                     or_dash(text_in(selection, "name").empty() ? text_in(selection, "definition_uuid")
                                                                : text_in(selection, "name")) +
                     "  " +
                     (state == "success" ? "node " + std::to_string(number_in(selection, "node_id")) +
                                               " on " + text_in(selection, "host")
                                         : state) +
                     "\n";
  if (!text_in(selection, "reason").empty())
    text += "  " + text_in(selection, "reason") + "\n";
  std::vector<std::vector<std::string>> rows;
  for (const json_spirit::Object& candidate : objects_in(selection, "candidates"))
    rows.push_back({"  " + text_in(candidate, "host"), node_of(candidate), answer_of(candidate)});
  return text + (rows.empty() ? "" : format_table(rows, {1}));
}

/// The clusters' jobs, or the one that is asked for, whose last start left the work undone. Of such a start
/// there may be no selection. A server that does not tell has none.
bool find_undone_jobs(Console& console, const json_spirit::Object& job, json_spirit::Array& undone,
                      std::string& text)
{
  std::vector<json_spirit::Object> jobs = {job};
  if (job.empty() && !list_jobs(console, jobs))
    return false;
  for (const json_spirit::Object& one : jobs) {
    const std::string reason = text_in(one, "nobody_worked");
    if (reason.empty())
      continue;
    json_spirit::Object entry;
    set_value(entry, "id", text_in(one, "id"));
    set_value(entry, "name", job_name(one));
    set_value(entry, "reason", reason);
    undone.push_back(entry);
    text += format_wrapped(job_name(one) + ": " + reason, "", SCREEN_COLUMNS);
  }
  return true;
}

/// "POST jobs/d7d01d89/control: run on 1 host"
std::string change_of(const json_spirit::Object& entry)
{
  std::string path = text_in(entry, "path");
  if (path.compare(0, 6, "/k2/r/") == 0)
    path.erase(0, 6);
  std::string text = text_in(entry, "method") + " ";
  for (size_t begin = 0; begin < path.size();) {
    const size_t slash = std::min(path.find('/', begin), path.size());
    const std::string part = path.substr(begin, slash - begin);
    text += (is_uuid(part) ? short_id(part) : part) + (slash < path.size() ? "/" : "");
    begin = slash + 1;
  }
  const std::string what = text_in(entry, "what");
  return text + (what.empty() ? "" : ": " + what);
}
} // namespace

int served_nodes(Console& console)
{
  std::vector<json_spirit::Object> selections;
  Console::Query query = {{"limit", std::to_string(console.line().limit)}};
  json_spirit::Object job;
  if (!console.line().definition.empty()) {
    if (!find_job(console, console.line().definition, job))
      return EXIT_CODE_FAILED;
    query.push_back({"definition", text_in(job, "id")});
  }
  if (!console.get_list({"oscar", "cluster"}, query, "selections", selections))
    return EXIT_CODE_FAILED;
  json_spirit::Array undone;
  std::string text;
  if (!find_undone_jobs(console, job, undone, text))
    return EXIT_CODE_FAILED;
  for (const json_spirit::Object& selection : selections)
    text += (text.empty() ? "" : "\n") + text_of_selection(selection);
  json_spirit::Object json;
  set_value(json, "selections", array_of(selections));
  set_value(json, "nobody_worked", undone);
  console.result(json, text.empty() ? "No node has been chosen yet.\n" : text);
  return EXIT_CODE_DONE;
}

int served_users(Console& console)
{
  std::vector<json_spirit::Object> users;
  if (!console.get_list({"users"}, {}, "users", users))
    return EXIT_CODE_FAILED;
  std::vector<std::vector<std::string>> rows = {{"USER", "ROLE"}};
  for (const json_spirit::Object& user : users)
    rows.push_back({text_in(user, "name"), text_in(user, "role")});
  json_spirit::Object json;
  set_value(json, "users", array_of(users));
  console.result(json, format_table(rows));
  return EXIT_CODE_DONE;
}

int served_user_add(Console& console)
{
  const Command_Line& line = console.line();
  std::string error;
  secure_string password;
  const Wipe_Guard<secure_string> wipe(password);
  const Exit_Code read =
      read_password(line.password_file, "Password for the new user " + line.user + ": ", password, error);
  if (read != EXIT_CODE_DONE)
    return console.fail("no password for " + line.user + ": " + error, read);
  json_spirit::Value body = json_spirit::Object();
  const Wipe_JSON_Guard wipe_body(body);
  set_value(body.get_obj(), "name", line.user);
  set_value(body.get_obj(), "role", line.role);
  set_value(body.get_obj(), "password", std::string(password.data(), password.size()));
  json_spirit::Object reply;
  if (!console.send("POST", {"users"}, body, reply))
    return EXIT_CODE_FAILED;
  json_spirit::Object json;
  set_value(json, "name", line.user);
  set_value(json, "role", line.role);
  console.result(json, "User " + line.user + " (" + line.role + ") can sign in.\n");
  return EXIT_CODE_DONE;
}

int served_user_remove(Console& console)
{
  const std::string& name = console.line().user;
  json_spirit::Object reply;
  if (!console.send("DELETE", {"users", name}, json_spirit::Value(), reply))
    return EXIT_CODE_FAILED;
  json_spirit::Object json;
  set_value(json, "name", name);
  console.result(json, "User " + name + " is removed.\n");
  return EXIT_CODE_DONE;
}

int served_audit(Console& console)
{
  std::vector<json_spirit::Object> entries;
  if (!console.get_list({"audit"}, {{"limit", std::to_string(console.line().limit)}}, "audit", entries))
    return EXIT_CODE_FAILED;
  std::vector<std::vector<std::string>> rows = {{"TIME", "WHO", "ADDRESS", "STATUS", "WHAT"}};
  for (const json_spirit::Object& entry : entries)
    rows.push_back({minute_in(entry, "time"), cut_to(or_dash(text_in(entry, "caller")), 10),
                    or_dash(text_in(entry, "address")), std::to_string(number_in(entry, "status")),
                    cut_to(change_of(entry), 30)});
  json_spirit::Object json;
  set_value(json, "audit", array_of(entries));
  console.result(json, entries.empty() ? "Nothing has been changed yet.\n" : format_table(rows, {3}));
  return EXIT_CODE_DONE;
}
} // namespace kestrel
