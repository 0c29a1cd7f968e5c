#include "server/agent_hub.h"

#include "base/clock.h"
#include "base/ignore_result.h"
#include "rpc/json_rpc_peer.h"
#include "server/host_jobs.h"
#include "server/host_store.h"
#include "server/server_database.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

#include <chrono>
#include <exception>
#include <map>
#include <mutex>
#include <utility>

namespace kestrel
{
namespace
{
constexpr size_t INSTANCE_LIMIT = 10000;
/// A connection that does not greet within this time is none of an agent.
constexpr int64_t GREETING_MSEC = 60000;

bool refuse(JSON_RPC_Error& error, int code, const std::string& message)
{
  error.code = code;
  error.message = message;
  return false;
}

Agent_Call call_of(int error_code)
{
  switch (error_code) {
  case JSON_RPC_CLOSED:
    return Agent_Call::lost;
  case JSON_RPC_TIMED_OUT:
    return Agent_Call::late;
  case JSON_RPC_NOT_SENT:
    return Agent_Call::offline;
  default:
    return Agent_Call::refused;
  }
}

/// Only objects that have a name.
json_spirit::Array usable_instances(const json_spirit::Array& told)
{
  json_spirit::Array instances;
  for (const json_spirit::Value& entry : told)
    if (entry.type() == json_spirit::obj_type && instances.size() < INSTANCE_LIMIT &&
        json_spirit::find_value(entry.get_obj(), "name").type() == json_spirit::str_type)
      instances.push_back(entry);
  return instances;
}
} // namespace

struct Agent_Hub::State : std::enable_shared_from_this<Agent_Hub::State> {
  struct Connection {
    std::shared_ptr<Message_Channel> channel;
    std::shared_ptr<JSON_RPC_Peer> peer;
    bool greeted = false;
    int64_t since_msec = 0;
    std::string key_hash; ///< of the key it was admitted with
  };
  typedef std::shared_ptr<Connection> Connection_Ptr;
  struct Host {
    Host_Record record;
    Host_Jobs jobs;
    Connection_Ptr connection;
    bool went = false; ///< since its last_seen was written down
    bool online() const { return connection && connection->greeted; }
  };

  explicit State(Server_Database& given) : database(given), store(given) {}

  Server_Database& database;
  Host_Store store;
  Listeners listeners;
  JSON_RPC_Dispatcher dispatcher;
  mutable std::mutex mutex;
  std::map<std::string, Host> hosts; ///< by uuid
  bool stopped = false;

  bool greet(Message_Channel& from, const json_spirit::Value& params, json_spirit::Value& result,
             JSON_RPC_Error& error);
  static Host_Record greeted(Host& host, const std::string& name, const std::string& version,
                             const std::string& address, json_spirit::Array& instances,
                             const json_spirit::Array& jobs);
  bool take_state(Message_Channel& from, const json_spirit::Value& params);
  bool take_instances(Message_Channel& from, const json_spirit::Value& params);
  void ended(const std::string& host_uuid, const Message_Channel* channel, const std::string& why);
  void save(const Host_Record& record);
  Host* current(Message_Channel& from);
  std::shared_ptr<JSON_RPC_Peer> peer_of(const std::string& host_uuid) const;
  Host_Status status(const Host_Record& enrolled) const;
  std::vector<std::pair<std::string, Connection_Ptr>> take_invalid(
      const std::map<std::string, Host_Record>& known);
};

/// The host whose present connection this is; null for one that was replaced. With the lock held.
Agent_Hub::State::Host* Agent_Hub::State::current(Message_Channel& from)
{
  const auto found = hosts.find(from.who());
  if (found == hosts.end() || !found->second.connection || found->second.connection->channel.get() != &from)
    return nullptr;
  return &found->second;
}

void Agent_Hub::State::save(const Host_Record& record)
{
  try {
    store.save(record);
  } catch (const std::exception& failure) {
    ACE_ERROR((LM_ERROR, "(%P|%t) Agent_Hub: what host %C told is not kept: %C\n", record.name.c_str(),
               database.translate(failure).what()));
  }
}

/// What to keep of the host. With the lock held.
Host_Record Agent_Hub::State::greeted(Host& host, const std::string& name, const std::string& version,
                                      const std::string& address, json_spirit::Array& instances,
                                      const json_spirit::Array& jobs)
{
  host.connection->greeted = true;
  host.record.name = name;
  host.record.version = version;
  host.record.address = address;
  host.record.last_seen = clock().now();
  host.record.instances = std::move(instances);
  host.jobs.greeted(jobs);
  return host.record;
}

bool Agent_Hub::State::greet(Message_Channel& from, const json_spirit::Value& params,
                             json_spirit::Value& result, JSON_RPC_Error& error)
{
  std::string version;
  json_spirit::Array instances, jobs;
  try {
    const json_spirit::Object& greeting = params.get_obj();
    if (required<std::string>(greeting, "host_uuid") != from.who())
      return refuse(error, JSON_RPC_INVALID_PARAMS,
                    "This agent says that it is another host than the one its key belongs to");
    version = required<std::string>(greeting, "version");
    instances = usable_instances(required<json_spirit::Array>(greeting, "instances"));
    jobs = required<json_spirit::Array>(greeting, "jobs");
  } catch (const std::exception& failure) {
    return refuse(error, JSON_RPC_INVALID_PARAMS, failure.what());
  }
  const std::map<std::string, Host_Record> known = store.identities();
  const auto identity = known.find(from.who());
  if (identity == known.end() || identity->second.revoked) {
    from.close("This host is not enrolled any more.");
    return refuse(error, JSON_RPC_WRONG_STATE, "This host is not enrolled any more");
  }
  Host_Record record;
  bool admitted = false;
  {
    const std::lock_guard<std::mutex> guard(mutex);
    Host* host = current(from);
    if (!host)
      return refuse(error, JSON_RPC_WRONG_STATE, "Another connection of this host took its place");
    admitted = host->connection->key_hash == identity->second.key_hash;
    if (admitted)
      record = greeted(*host, identity->second.name, version, from.address(), instances, jobs);
  }
  if (!admitted) {
    from.close("This host has a new access key.");
    return refuse(error, JSON_RPC_WRONG_STATE, "This host has a new access key");
  }
  save(record);
  ACE_DEBUG((LM_INFO, "Agent of host %C (%C) is connected from %C\n", record.name.c_str(),
             record.uuid.c_str(), record.address.c_str()));
  json_spirit::Object answer;
  answer.emplace_back("server_time", static_cast<int64_t>(clock().now()));
  result = std::move(answer);
  if (listeners.hello)
    listeners.hello(record.uuid, params.get_obj());
  return true;
}

bool Agent_Hub::State::take_state(Message_Channel& from, const json_spirit::Value& params)
{
  if (params.type() != json_spirit::obj_type)
    return false;
  {
    const std::lock_guard<std::mutex> guard(mutex);
    Host* host = current(from);
    if (!host || !host->online() || !host->jobs.changed(params.get_obj()))
      return false;
    host->record.last_seen = clock().now();
  }
  if (listeners.job_state)
    listeners.job_state(from.who(), params.get_obj());
  return true;
}

bool Agent_Hub::State::take_instances(Message_Channel& from, const json_spirit::Value& params)
{
  if (params.type() != json_spirit::obj_type)
    return false;
  const json_spirit::Value& told = json_spirit::find_value(params.get_obj(), "instances");
  if (told.type() != json_spirit::array_type)
    return false;
  Host_Record record;
  {
    const std::lock_guard<std::mutex> guard(mutex);
    Host* host = current(from);
    if (!host || !host->online())
      return false;
    host->record.instances = usable_instances(told.get_array());
    host->record.last_seen = clock().now();
    record = host->record;
  }
  save(record);
  return true;
}

void Agent_Hub::State::ended(const std::string& host_uuid, const Message_Channel* channel,
                             const std::string& why)
{
  dispatcher.forget(channel);
  Connection_Ptr gone; // its end must not happen under the lock
  std::string name;
  bool was_online = false;
  {
    const std::lock_guard<std::mutex> guard(mutex);
    const auto found = hosts.find(host_uuid);
    if (found == hosts.end() || !found->second.connection ||
        found->second.connection->channel.get() != channel)
      return;
    was_online = found->second.online();
    if (was_online) {
      found->second.record.last_seen = clock().now();
      found->second.went = true; // written down later: this may be a thread of the network
    }
    name = found->second.record.name;
    gone.swap(found->second.connection);
  }
  ACE_DEBUG((LM_INFO, "Agent of host %C (%C) is gone: %C\n", name.c_str(), host_uuid.c_str(), why.c_str()));
  if (was_online && listeners.gone)
    listeners.gone(host_uuid);
}

Host_Status Agent_Hub::State::status(const Host_Record& enrolled) const
{
  Host_Status status;
  status.uuid = enrolled.uuid;
  status.name = enrolled.name;
  const std::lock_guard<std::mutex> guard(mutex);
  const auto found = hosts.find(enrolled.uuid);
  if (found == hosts.end())
    return status;
  const Host& host = found->second;
  status.online = host.online();
  status.address = host.record.address;
  status.version = host.record.version;
  status.last_seen = status.online ? static_cast<int64_t>(clock().now()) : host.record.last_seen;
  status.instances = host.record.instances;
  status.running_jobs = status.online ? static_cast<unsigned>(host.jobs.running()) : 0;
  return status;
}

Agent_Hub::Agent_Hub(Server_Database& database) : state_(std::make_shared<State>(database)) {}

Agent_Hub::~Agent_Hub()
{
  stop();
}

void Agent_Hub::set_listeners(Listeners listeners)
{
  state_->listeners = std::move(listeners);
}

bool Agent_Hub::start(std::string& error)
{
  State* const state = state_.get();
  try {
    for (Host_Record& record : state->store.load())
      state->hosts[record.uuid].record = record;
  } catch (const std::exception& failure) {
    error = std::string("The hosts cannot be read from the server's database: ") + failure.what();
    return false;
  }
  typedef JSON_RPC_Dispatcher::Peer_Method Method;
  const Method greet = [state](Message_Channel& from, const json_spirit::Value& params,
                               json_spirit::Value& result, JSON_RPC_Error& failure) {
    return state->greet(from, params, result, failure);
  };
  const Method job_state = [state](Message_Channel& from, const json_spirit::Value& params,
                                   json_spirit::Value& result, JSON_RPC_Error& failure) {
    result = true;
    return state->take_state(from, params) ||
           refuse(failure, JSON_RPC_INVALID_PARAMS, "This is no state of a job, or the agent has not greeted");
  };
  const Method instances = [state](Message_Channel& from, const json_spirit::Value& params,
                                   json_spirit::Value& result, JSON_RPC_Error& failure) {
    result = true;
    return state->take_instances(from, params) ||
           refuse(failure, JSON_RPC_INVALID_PARAMS, "This is no list of instances, or the agent has not "
                                                    "greeted");
  };
  JSON_RPC_Dispatcher::Options options;
  // Hundreds of agents greet at once after a restart of the server, each with states of its jobs behind it.
  options.queue_limit = 8192;
  options.open_limit = 16384;
  options.channel_queue_limit = 512;
  const JSON_RPC_Order order = JSON_RPC_Order::as_received;
  if (!state->dispatcher.bind("agent.hello", greet, order) ||
      !state->dispatcher.bind("job.state", job_state, order) ||
      !state->dispatcher.bind("instance.changed", instances, order) || !state->dispatcher.start(options)) {
    error = "The service for agents cannot be started; the log says why";
    return false;
  }
  return true;
}

void Agent_Hub::stop()
{
  std::vector<State::Connection_Ptr> open;
  {
    const std::lock_guard<std::mutex> guard(state_->mutex);
    if (std::exchange(state_->stopped, true))
      return;
    for (auto& [uuid, host] : state_->hosts) {
      if (!host.connection)
        continue;
      if (host.online()) {
        host.record.last_seen = clock().now();
        host.went = true;
      }
      open.push_back(std::move(host.connection));
    }
  }
  for (const State::Connection_Ptr& connection : open)
    connection->peer->close("The server is being stopped.");
  ignore_result(state_->dispatcher.stop(), "it logs what does not end");
}

void Agent_Hub::connect(const std::string& host_uuid, const std::string& name, const std::string& key_hash,
                        const std::shared_ptr<Message_Channel>& channel)
{
  channel->identify(host_uuid);
  const State::Connection_Ptr fresh = std::make_shared<State::Connection>();
  fresh->channel = channel;
  fresh->key_hash = key_hash;
  fresh->since_msec = clock().monotonic_msec();
  JSON_RPC_Peer::Options options;
  options.closed = [state = std::weak_ptr<State>(state_), host_uuid,
                    raw = channel.get()](const std::string& why) {
    if (const std::shared_ptr<State> alive = state.lock())
      alive->ended(host_uuid, raw, why);
  };
  State::Connection_Ptr replaced;
  bool stopped = false;
  {
    // The first message waits for the lock until everything is in place.
    const std::lock_guard<std::mutex> guard(state_->mutex);
    stopped = state_->stopped;
    if (!stopped) {
      State::Host& host = state_->hosts[host_uuid];
      host.record.uuid = host_uuid;
      host.record.name = name;
      replaced = std::exchange(host.connection, fresh);
      fresh->peer = JSON_RPC_Peer::start(channel, &state_->dispatcher, options);
    }
  }
  if (stopped)
    channel->close("The server is being stopped.");
  if (replaced)
    replaced->peer->close("A newer connection of this host took its place.");
}

std::shared_ptr<JSON_RPC_Peer> Agent_Hub::State::peer_of(const std::string& host_uuid) const
{
  const std::lock_guard<std::mutex> guard(mutex);
  const auto found = hosts.find(host_uuid);
  return found != hosts.end() && found->second.online() ? found->second.connection->peer : nullptr;
}

Agent_Call Agent_Hub::ask(const std::string& host_uuid, const std::string& method,
                          const json_spirit::Value& params, int timeout_msec, json_spirit::Value& result,
                          JSON_RPC_Error& error)
{
  std::vector<Answer> answers = ask_all({host_uuid}, method, params, timeout_msec);
  result = std::move(answers.front().result);
  error = std::move(answers.front().error);
  return answers.front().call;
}

std::vector<Agent_Hub::Answer> Agent_Hub::ask_all(const std::vector<std::string>& host_uuids,
                                                  const std::string& method, const json_spirit::Value& params,
                                                  int timeout_msec)
{
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_msec);
  std::vector<Answer> answers;
  std::vector<std::pair<std::shared_ptr<JSON_RPC_Peer>, std::shared_ptr<JSON_RPC_Peer::Call>>> calls;
  for (const std::string& host_uuid : host_uuids) {
    const std::shared_ptr<JSON_RPC_Peer> peer = state_->peer_of(host_uuid);
    const bool open = peer && peer->open();
    calls.emplace_back(peer, open ? peer->begin_call(method, params) : nullptr);
    answers.emplace_back();
    answers.back().host_uuid = host_uuid;
  }
  for (size_t i = 0; i < calls.size(); ++i) {
    Answer& answer = answers[i];
    if (!calls[i].second)
      ignore_result(refuse(answer.error, JSON_RPC_NOT_SENT, "Its agent is not connected."), "always false");
    else if (JSON_RPC_Peer::finish_call(calls[i].second, deadline, answer.result, answer.error))
      answer.call = Agent_Call::answered;
    else
      answer.call = call_of(answer.error.code);
  }
  return answers;
}

bool Agent_Hub::call(const std::string& host_uuid, const std::string& method,
                     const json_spirit::Value& params, int timeout_msec, json_spirit::Value& result,
                     JSON_RPC_Error& error)
{
  return ask(host_uuid, method, params, timeout_msec, result, error) == Agent_Call::answered;
}

bool Agent_Hub::online(const std::string& host_uuid) const
{
  const std::lock_guard<std::mutex> guard(state_->mutex);
  const auto found = state_->hosts.find(host_uuid);
  return found != state_->hosts.end() && found->second.online();
}

std::string Agent_Hub::name_of(const std::string& host_uuid) const
{
  const std::lock_guard<std::mutex> guard(state_->mutex);
  const auto found = state_->hosts.find(host_uuid);
  return found == state_->hosts.end() || found->second.record.name.empty() ? host_uuid
                                                                            : found->second.record.name;
}

std::vector<Host_Status> Agent_Hub::hosts() const
{
  std::vector<Host_Status> all;
  for (const Host_Record& enrolled : state_->store.load()) {
    if (enrolled.revoked)
      continue;
    all.push_back(state_->status(enrolled));
  }
  return all;
}

bool Agent_Hub::find_host(const std::string& uuid_or_name, Host_Status& host) const
{
  for (const auto& [uuid, enrolled] : state_->store.identities()) {
    if (enrolled.revoked || (uuid != uuid_or_name && enrolled.name != uuid_or_name))
      continue;
    host = state_->status(enrolled);
    return true;
  }
  return false;
}

size_t Agent_Hub::online_count() const
{
  const std::lock_guard<std::mutex> guard(state_->mutex);
  size_t count = 0;
  for (const auto& [uuid, host] : state_->hosts)
    count += host.online();
  return count;
}

size_t Agent_Hub::running_count() const
{
  const std::lock_guard<std::mutex> guard(state_->mutex);
  size_t count = 0;
  for (const auto& [uuid, host] : state_->hosts)
    if (host.online())
      count += host.jobs.running();
  return count;
}

unsigned Agent_Hub::running_jobs(const std::string& host_uuid, const std::string& except_definition) const
{
  const std::lock_guard<std::mutex> guard(state_->mutex);
  const auto found = state_->hosts.find(host_uuid);
  return found == state_->hosts.end() ? 0 : found->second.jobs.running_but(except_definition);
}

json_spirit::Value Agent_Hub::job_state(const std::string& host_uuid,
                                        const std::string& definition_uuid) const
{
  const std::lock_guard<std::mutex> guard(state_->mutex);
  const auto found = state_->hosts.find(host_uuid);
  return found == state_->hosts.end() ? json_spirit::Value() : found->second.jobs.job(definition_uuid);
}

void Agent_Hub::set_jobs(const std::string& host_uuid, const json_spirit::Array& jobs)
{
  const std::lock_guard<std::mutex> guard(state_->mutex);
  const auto found = state_->hosts.find(host_uuid);
  if (found != state_->hosts.end())
    found->second.jobs.listed(jobs);
}

bool Agent_Hub::find_run(const std::string& run_id, std::string& host_uuid, std::string& definition_uuid,
                         std::string& state) const
{
  const std::lock_guard<std::mutex> guard(state_->mutex);
  for (const auto& [uuid, host] : state_->hosts)
    if (host.jobs.find_run(run_id, definition_uuid, state)) {
      host_uuid = uuid;
      return true;
    }
  return false;
}

std::string Agent_Hub::instance_name(const std::string& host_uuid, const std::string& instance_uuid) const
{
  const std::lock_guard<std::mutex> guard(state_->mutex);
  const auto found = state_->hosts.find(host_uuid);
  if (found == state_->hosts.end())
    return std::string();
  for (const json_spirit::Value& entry : found->second.record.instances) {
    const json_spirit::Value& uuid = json_spirit::find_value(entry.get_obj(), "uuid");
    if (uuid.type() == json_spirit::str_type && uuid.get_str() == instance_uuid)
      return json_spirit::find_value(entry.get_obj(), "name").get_str();
  }
  return std::string();
}

std::vector<std::pair<std::string, Agent_Hub::State::Connection_Ptr>>
Agent_Hub::State::take_invalid(const std::map<std::string, Host_Record>& known)
{
  std::vector<std::pair<std::string, Connection_Ptr>> invalid;
  const int64_t now = clock().monotonic_msec();
  const std::lock_guard<std::mutex> guard(mutex);
  for (auto& [uuid, host] : hosts) {
    if (!host.connection)
      continue;
    const auto identity = known.find(uuid);
    if (identity == known.end() || identity->second.revoked)
      invalid.emplace_back("This host is not enrolled any more.", host.connection);
    else if (host.connection->key_hash != identity->second.key_hash)
      invalid.emplace_back("This host has a new access key.", host.connection);
    else if (!host.connection->greeted && now > host.connection->since_msec + GREETING_MSEC)
      invalid.emplace_back("The agent did not greet.", host.connection);
  }
  return invalid;
}

void Agent_Hub::drop_revoked()
{
  std::map<std::string, Host_Record> known;
  try {
    known = state_->store.identities();
  } catch (const std::exception& failure) {
    ACE_ERROR((LM_ERROR, "(%P|%t) Agent_Hub: the enrolled hosts cannot be read: %C\n",
               state_->database.translate(failure).what()));
    return;
  }
  for (const auto& [why, connection] : state_->take_invalid(known))
    connection->peer->close(why);
}

void Agent_Hub::keep_last_seen()
{
  std::map<std::string, int64_t> gone;
  {
    const std::lock_guard<std::mutex> guard(state_->mutex);
    for (auto& [uuid, host] : state_->hosts)
      if (std::exchange(host.went, false))
        gone[uuid] = host.record.last_seen;
  }
  try {
    for (const auto& [uuid, when] : gone)
      state_->store.seen(uuid, when);
  } catch (const std::exception& failure) {
    ACE_ERROR((LM_ERROR, "(%P|%t) Agent_Hub: when hosts were seen last is not kept: %C\n",
               state_->database.translate(failure).what()));
  }
}
} // namespace kestrel
