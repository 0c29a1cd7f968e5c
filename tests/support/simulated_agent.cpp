#include "support/simulated_agent.h"

#include "base/clock.h"
#include "base/uuid.h"
#include "rpc/websocket_client.h"
#include "storage/host_manager.h"
#include "support/waiting.h"
#include "json/json_util.h"

#include <set>
#include <stdexcept>

using namespace kestrel;

namespace kestrel_test
{
namespace
{
constexpr int ACCESS_KEY_HEAD = 49;
constexpr int GREETING_MSEC = 30000;

REST_Client_Options client_options(const Enrollment& enrollment)
{
  REST_Client_Options options;
  options.url = enrollment.url;
  options.ca_pem = enrollment.ca_pem;
  options.access_key = enrollment.credential();
  return options;
}

json_spirit::Value object_of(const char* name, json_spirit::Value value)
{
  json_spirit::Object object;
  object.emplace_back(name, std::move(value));
  return object;
}
} // namespace

std::string member_text(const json_spirit::Object& object, const char* key)
{
  const json_spirit::Value& value = json_spirit::find_value(object, key);
  return value.type() == json_spirit::str_type ? value.get_str() : std::string();
}

int64_t member_number(const json_spirit::Object& object, const char* key)
{
  const json_spirit::Value& value = json_spirit::find_value(object, key);
  return value.type() == json_spirit::int_type ? value.get_int64() : 0;
}

Enrollment read_enrollment(const std::string& text)
{
  json_spirit::Value value;
  std::string error;
  if (!read_json(text, value, error))
    throw std::runtime_error(error);
  const json_spirit::Object& members = value.get_obj();
  Enrollment enrollment;
  enrollment.url = required<std::string>(members, "server");
  enrollment.host_uuid = required<std::string>(members, "host_uuid");
  enrollment.name = required<std::string>(members, "name");
  enrollment.access_key = required<std::string>(members, "access_key");
  enrollment.ca_pem = required<std::string>(members, "ca_pem");
  return enrollment;
}

Simulated_Agent::Simulated_Agent(Network_Threads& threads, Enrollment enrollment)
    : threads_(threads), enrollment_(std::move(enrollment)),
      rest_(new REST_Client(client_options(enrollment_)))
{
  on("oscar.node.check_state",
     [this](const json_spirit::Value&, json_spirit::Value& result, JSON_RPC_Error&) {
       const std::lock_guard<std::mutex> guard(mutex_);
       ++questions_;
       json_spirit::Object state;
       state.emplace_back("instance", "");
       state.emplace_back("node_id", node_id_);
       state.emplace_back("is_master", is_master_);
       state.emplace_back("online", online_);
       result = std::move(state);
       return true;
     });
  on("oscar.node.notify_selected",
     [this](const json_spirit::Value& params, json_spirit::Value& result, JSON_RPC_Error&) {
       const std::lock_guard<std::mutex> guard(mutex_);
       announcements_.push_back(params.get_obj());
       result = true;
       return true;
     });
  on("job.sync", [this](const json_spirit::Value& params, json_spirit::Value& result, JSON_RPC_Error&) {
    const json_spirit::Array sent = required<json_spirit::Array>(params.get_obj(), "definitions");
    const std::lock_guard<std::mutex> guard(mutex_);
    synced_.clear();
    for (const json_spirit::Value& definition : sent)
      synced_.push_back(definition.get_obj());
    ++syncs_;
    result = object_of("refused", json_spirit::Array());
    return true;
  });
  on("job.list", [this](const json_spirit::Value&, json_spirit::Value& result, JSON_RPC_Error&) {
    json_spirit::Array jobs;
    for (const std::string& id : definitions()) {
      json_spirit::Object job;
      job.emplace_back("id", id);
      job.emplace_back("state", "idle");
      job.emplace_back("running", false);
      jobs.push_back(std::move(job));
    }
    result = object_of("jobs", std::move(jobs));
    return true;
  });
  on("job.control", [](const json_spirit::Value&, json_spirit::Value& result, JSON_RPC_Error&) {
    result = object_of("run_id", make_uuid());
    return true;
  });
}

Simulated_Agent::~Simulated_Agent()
{
  disconnect();
  if (serving_)
    (void)dispatcher_.stop();
}

void Simulated_Agent::on(const std::string& method, Method serve)
{
  for (auto& [name, function] : methods_)
    if (name == method) {
      function = std::move(serve);
      return;
    }
  methods_.emplace_back(method, std::move(serve));
}

void Simulated_Agent::on(const std::string& method, JSON_RPC_Handler* handler)
{
  handlers_.emplace_back(method, handler);
}

void Simulated_Agent::set_node(int node_id, bool is_master, bool online)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  node_id_ = node_id;
  is_master_ = is_master;
  online_ = online;
}

void Simulated_Agent::set_instances(json_spirit::Array instances)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  instances_ = std::move(instances);
}

void Simulated_Agent::serve()
{
  if (serving_)
    return;
  std::set<std::string> bound;
  for (const auto& [name, handler] : handlers_)
    if (!bound.insert(name).second || !dispatcher_.bind(name, handler))
      throw std::runtime_error("cannot bind " + name);
  for (const auto& [name, function] : methods_)
    if (bound.insert(name).second && !dispatcher_.bind(name, function))
      throw std::runtime_error("cannot bind " + name);
  JSON_RPC_Dispatcher::Options options;
  options.threads = serving_threads_;
  if (!dispatcher_.start(options))
    throw std::runtime_error("the dispatcher does not start");
  serving_ = true;
}

bool Simulated_Agent::dial(std::string& error)
{
  serve();
  WebSocket_Dial dial;
  dial.url = enrollment_.url + "/k2/w/agent";
  dial.headers.emplace_back(http_head_string(ACCESS_KEY_HEAD, 0), enrollment_.credential());
  dial.tls.ca_pem = enrollment_.ca_pem;
  WebSocket_Client client(threads_);
  WebSocket_Failure failure;
  const std::shared_ptr<Message_Channel> channel = client.dial(dial, failure);
  if (!channel) {
    error = failure.message;
    return false;
  }
  const std::shared_ptr<JSON_RPC_Peer> fresh = JSON_RPC_Peer::start(channel, &dispatcher_);
  std::shared_ptr<JSON_RPC_Peer> former;
  const std::lock_guard<std::mutex> guard(mutex_);
  former = std::exchange(peer_, fresh);
  return true;
}

json_spirit::Object Simulated_Agent::greeting() const
{
  json_spirit::Object hello;
  hello.emplace_back("version", "simulated");
  hello.emplace_back("host_uuid", enrollment_.host_uuid);
  hello.emplace_back("name", enrollment_.name);
  const std::lock_guard<std::mutex> guard(mutex_);
  hello.emplace_back("instances", instances_);
  hello.emplace_back("jobs", json_spirit::Array());
  return hello;
}

bool Simulated_Agent::greet(std::string& error)
{
  json_spirit::Value answer;
  JSON_RPC_Error failure;
  if (peer()->call("agent.hello", greeting(), GREETING_MSEC, answer, failure))
    return true;
  error = failure.message;
  return false;
}

bool Simulated_Agent::connect(std::string& error)
{
  return dial(error) && greet(error);
}

void Simulated_Agent::disconnect()
{
  std::shared_ptr<JSON_RPC_Peer> former;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    former.swap(peer_);
  }
  if (former)
    former->close();
}

bool Simulated_Agent::connected() const
{
  const std::shared_ptr<JSON_RPC_Peer> present = peer();
  return present && present->open();
}

std::shared_ptr<JSON_RPC_Peer> Simulated_Agent::peer() const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return peer_;
}

bool Simulated_Agent::request_selection(const std::string& definition_uuid, bool select_master,
                                        int64_t& selection_time, REST_Problem& problem)
{
  json_spirit::Object body;
  body.emplace_back("definition_uuid", definition_uuid);
  body.emplace_back("uid", "");
  body.emplace_back("instance_uuid", "");
  body.emplace_back("select_master", select_master);
  json_spirit::Value reply;
  if (!rest_->post("/k2/r/oscar/cluster", body, reply, problem))
    return false;
  selection_time = required<int64_t>(reply.get_obj(), "selection_time");
  return true;
}

bool Simulated_Agent::tell_state(const std::string& definition_uuid, const std::string& run_id,
                                 const std::string& state)
{
  json_spirit::Object params;
  params.emplace_back("id", definition_uuid);
  params.emplace_back("run_id", run_id);
  params.emplace_back("state", state);
  params.emplace_back("time", static_cast<int64_t>(kestrel::clock().now()));
  const std::shared_ptr<JSON_RPC_Peer> present = peer();
  return present && present->notify("job.state", params);
}

bool Simulated_Agent::report_runs(const json_spirit::Array& records, std::vector<std::string>& stored,
                                  REST_Problem& problem)
{
  json_spirit::Value reply;
  if (!rest_->post("/k2/r/runs", object_of("runs", records), reply, problem))
    return false;
  stored.clear();
  for (const json_spirit::Value& id : required<json_spirit::Array>(reply.get_obj(), "stored"))
    stored.push_back(id.get_str());
  return true;
}

std::vector<json_spirit::Object> Simulated_Agent::announcements() const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return announcements_;
}

bool Simulated_Agent::await_announcements(size_t count) const
{
  return eventually([&] { return announcements().size() >= count; });
}

std::vector<std::string> Simulated_Agent::definitions() const
{
  std::vector<std::string> ids;
  const std::lock_guard<std::mutex> guard(mutex_);
  for (const json_spirit::Object& definition : synced_)
    ids.push_back(member_text(definition, "id"));
  return ids;
}

size_t Simulated_Agent::syncs() const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return syncs_;
}

unsigned Simulated_Agent::questions() const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return questions_;
}
} // namespace kestrel_test
