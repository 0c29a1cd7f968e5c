#include "cli/console.h"

#include "base/log.h"
#include "base/uuid.h"
#include "cli/served_json.h"
#include "remote/upstream.h"
#include "json/wipe_json.h"
#include "json/json_util.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/predicate.hpp>

#include <clocale>
#include <csignal>

namespace kestrel
{
namespace
{
const unsigned REQUEST_SECONDS = 60;
/// A file of some terabytes takes its time to go.
const unsigned DELETION_SECONDS = 600;
/// What the server adds to the time that it gives an agent.
const unsigned FORWARDING_SECONDS = 10;

std::string sign_in_hint(const std::string& url)
{
  return "sign in with: kestrel --server " + url + " sign-in --user NAME";
}

std::string names_of(const std::vector<Known_Instance>& instances)
{
  std::string text;
  for (const Known_Instance& instance : instances)
    text += (text.empty() ? "" : ", ") + instance.host_name;
  return text;
}
} // namespace

Console::~Console()
{
  if (upstream_)
    unregister_upstream();
}

bool prepare_console(Command_Output& output)
{
  ::setlocale(LC_ALL, "");
  ::signal(SIGPIPE, SIG_IGN);
  Log_Options log;
  log.to_stderr = output.line().verbose;
  std::string error;
  if (open_process_log(log, error))
    return true;
  output.fail(error);
  return false;
}

bool Console::start()
{
  std::string url;
  std::string error;
  bool found = false;
  if (!normal_server_url(line().server, url, error) || !load_credentials(url, credentials_, found, error)) {
    fail(error);
    return false;
  }
  if (!found) {
    fail("you are not signed in at " + url + "; " + sign_in_hint(url));
    return false;
  }
  REST_Client_Options options;
  options.url = url;
  options.ca_pem = credentials_.ca_pem;
  options.bearer = credentials_.token;
  if (!line().ca_file.empty()) {
    options.ca_pem.clear();
    options.ca_file = line().ca_file;
  }
  client_ = std::make_unique<REST_Client>(options);
  upstream_ = register_console_upstream(options, error);
  if (!upstream_)
    fail(error);
  return upstream_;
}

bool Console::exchange(const char* method, const std::string& path, const json_spirit::Value& body,
                       json_spirit::Value& reply, REST_Problem& problem, unsigned seconds)
{
  REST_Call call;
  call.method = method;
  call.path = path;
  call.seconds = seconds;
  return client_->call(call, body.is_null() ? nullptr : &body, reply, problem);
}

bool Console::exchange_object(const char* method, const std::string& path, const json_spirit::Value& body,
                              json_spirit::Object& reply, REST_Problem& problem, unsigned seconds)
{
  json_spirit::Value value;
  if (!exchange(method, path, body, value, problem, seconds))
    return false;
  reply = value.type() == json_spirit::obj_type ? std::move(value.get_obj()) : json_spirit::Object();
  return true;
}

bool Console::try_get(const Parts& parts, const Query& query, json_spirit::Object& reply,
                      REST_Problem& problem)
{
  return exchange_object("GET", rest_path(parts, query), json_spirit::Value(), reply, problem,
                         REQUEST_SECONDS);
}

bool Console::try_get_list(const Parts& parts, const Query& query, const char* key,
                           std::vector<json_spirit::Object>& list, REST_Problem& problem)
{
  json_spirit::Value value;
  if (!exchange("GET", rest_path(parts, query), json_spirit::Value(), value, problem, REQUEST_SECONDS))
    return false;
  json_spirit::Object whole;
  set_value(whole, key, value.type() == json_spirit::obj_type ? find_value(value.get_obj(), key) : value);
  list = objects_in(whole, key);
  return true;
}

bool Console::get_list(const Parts& parts, const Query& query, const char* key,
                       std::vector<json_spirit::Object>& list)
{
  REST_Problem problem;
  if (try_get_list(parts, query, key, list, problem))
    return true;
  fail_request(problem);
  return false;
}

bool Console::try_send(const char* method, const Parts& parts, const json_spirit::Value& body,
                       json_spirit::Object& reply, REST_Problem& problem)
{
  return exchange_object(method, rest_path(parts), body, reply, problem, REQUEST_SECONDS);
}

bool Console::get(const Parts& parts, const Query& query, json_spirit::Object& reply)
{
  REST_Problem problem;
  if (try_get(parts, query, reply, problem))
    return true;
  fail_request(problem);
  return false;
}

bool Console::send(const char* method, const Parts& parts, const json_spirit::Value& body,
                   json_spirit::Object& reply)
{
  REST_Problem problem;
  if (try_send(method, parts, body, reply, problem))
    return true;
  fail_request(problem);
  return false;
}

int Console::fail_request(const REST_Problem& problem, const std::string& what)
{
  const std::string text = problem.status == 401 ? "the sign-in at " + client_->url() + " has ended; " +
                                                       sign_in_hint(client_->url())
                                                 : problem.text;
  return fail(what.empty() ? text : what + ": " + text);
}

int Console::fail_answer(const std::string& what)
{
  return fail("the answer of " + client_->url() + " lacks " + what +
              "; server and console are of versions that do not fit");
}

bool Console::call_host(const Served_Host& host, const std::string& method, json_spirit::Value params,
                        unsigned seconds, json_spirit::Value& result)
{
  json_spirit::Value body = json_spirit::Object();
  const Wipe_JSON_Guard wipe_body(body);
  set_value(body.get_obj(), "method", method);
  set_value(body.get_obj(), "timeout", seconds);
  set_value(body.get_obj(), "params", std::move(params));
  json_spirit::Object reply;
  REST_Problem problem;
  if (!exchange_object("POST", rest_path({"hosts", host.uuid, "rpc"}), body, reply, problem,
                       seconds + FORWARDING_SECONDS)) {
    fail_request(problem);
    return false;
  }
  const json_spirit::Object error = object_in(reply, "error");
  if (!error.empty()) {
    fail("host " + host.name + " refused: " + text_in(error, "message"));
    return false;
  }
  result = find_value(reply, "result");
  return true;
}

bool Console::load_hosts(REST_Problem& problem)
{
  if (hosts_loaded_)
    return true;
  std::vector<json_spirit::Object> entries;
  if (!try_get_list({"hosts"}, {}, "hosts", entries, problem))
    return false;
  for (const json_spirit::Object& entry : entries) {
    Served_Host host;
    host.uuid = text_in(entry, "uuid");
    host.name = text_in(entry, "name");
    host.online = flag_in(entry, "online");
    host.instances = array_in(entry, "instances");
    host.json = entry;
    hosts_.push_back(host);
  }
  hosts_loaded_ = true;
  return true;
}

bool Console::hosts(std::vector<Served_Host>& hosts)
{
  REST_Problem problem;
  if (!load_hosts(problem)) {
    fail_request(problem);
    return false;
  }
  hosts = hosts_;
  return true;
}

bool Console::find_host(const std::string& reference, Served_Host& host)
{
  std::vector<Served_Host> all;
  if (!hosts(all))
    return false;
  std::vector<Served_Host> fitting;
  for (const Served_Host& candidate : all) {
    if (candidate.name == reference || candidate.uuid == reference) {
      host = candidate;
      return true;
    }
    if (!reference.empty() && boost::starts_with(candidate.uuid, reference))
      fitting.push_back(candidate);
  }
  if (fitting.size() == 1) {
    host = fitting.front();
    return true;
  }
  fail("the server knows no host " + reference + "; 'kestrel hosts' lists them");
  return false;
}

std::string Console::host_name(const std::string& uuid)
{
  REST_Problem problem;
  if (load_hosts(problem))
    for (const Served_Host& host : hosts_)
      if (host.uuid == uuid)
        return host.name;
  return short_id(uuid);
}

std::vector<Known_Instance> Console::instances_like(const std::string& name, const std::string& uuid)
{
  std::vector<Known_Instance> found;
  for (const Served_Host& host : hosts_) {
    if (!line().host.empty() && line().host != host.name && line().host != host.uuid)
      continue;
    for (const json_spirit::Value& value : host.instances) {
      if (value.type() != json_spirit::obj_type)
        continue;
      const json_spirit::Object& entry = value.get_obj();
      const std::string its_name = text_in(entry, "name");
      const std::string its_uuid = text_in(entry, "uuid");
      // Whether it has an account the host tells when the job asks for it: what the server knows may be old.
      if (its_name == name || its_uuid == uuid)
        found.push_back({its_name, its_uuid, host.uuid, host.name, true});
    }
  }
  return found;
}

bool Console::find_instance(const std::string& name, Known_Instance& instance)
{
  std::vector<Served_Host> all;
  Served_Host wanted;
  if (!hosts(all) || (!line().host.empty() && !find_host(line().host, wanted)))
    return false;
  std::vector<Known_Instance> found = instances_like(name, name);
  if (found.empty())
    found = instances_like(boost::to_upper_copy(name), "");
  if (found.size() == 1) {
    instance = found.front();
    return true;
  }
  if (found.empty())
    fail((line().host.empty() ? "no host of " + client_->url() : "the host " + wanted.name) +
         " has an instance " + name + "; 'kestrel instances' lists them");
  else
    fail("several hosts have an instance " + name + " (" + names_of(found) + "); say which one with --host",
         EXIT_CODE_USAGE);
  return false;
}

bool Console::find_instance_of(const std::string& resource_uuid, Known_Instance& instance)
{
  std::vector<Served_Host> all;
  if (!hosts(all))
    return false;
  const std::vector<Known_Instance> found = instances_like("", resource_uuid);
  if (found.size() == 1) {
    instance = found.front();
    return true;
  }
  fail("no host has the instance that was backed up (" + short_id(resource_uuid) +
           "); say where to with --instance NAME --host HOST",
       EXIT_CODE_USAGE);
  return false;
}

bool Console::knows_instance(const std::string& resource_uuid, std::string& name)
{
  REST_Problem problem;
  if (!load_hosts(problem))
    return false;
  for (const Served_Host& host : hosts_) {
    for (const json_spirit::Value& value : host.instances) {
      if (value.type() == json_spirit::obj_type && text_in(value.get_obj(), "uuid") == resource_uuid) {
        name = text_in(value.get_obj(), "name");
        return true;
      }
    }
  }
  return false;
}

std::string Console::instance_name(const std::string& resource_uuid)
{
  std::string name;
  return knows_instance(resource_uuid, name) ? name : short_id(resource_uuid);
}

Host_Identity Console::identity_for(const Known_Instance& instance)
{
  // The same user of a server is the same owner on every host.
  return {instance.host_uuid, name_uuid("kestrel user " + credentials_.user)};
}

bool Console::delete_stored(const Stored_Reference& backup, bool keep_file, std::string& problem)
{
  json_spirit::Object reply;
  REST_Problem refusal;
  if (exchange_object("DELETE", rest_path({"backups", backup.id}, {{"keep_file", keep_file ? "1" : "0"}}),
                      json_spirit::Value(), reply, refusal, DELETION_SECONDS))
    return true;
  problem = refusal.text;
  return false;
}

bool Console::check_stored(const Backup_Entry&, const std::string&, std::string&)
{
  return true;
}
} // namespace kestrel
