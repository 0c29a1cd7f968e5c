#include "server/agent_hub.h"

#include "base/clock.h"
#include "base/ignore_result.h"
#include "server/agent_hub_state.h"
#include "server/server_database.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

#include <chrono>
#include <exception>
#include <mutex>

namespace kestrel
{
namespace
{
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

/// The end of a connection that is still being put in its place.
struct Early_End {
  std::mutex mutex;
  bool placing = true;
  bool ended = false;
  std::string why;

  /// False: its place is known, and its end can be told.
  bool keep(const std::string& reason)
  {
    const std::lock_guard<std::mutex> guard(mutex);
    if (!placing)
      return false;
    ended = true;
    why = reason;
    return true;
  }
  /// From now on nothing is kept. True when something was.
  bool take()
  {
    const std::lock_guard<std::mutex> guard(mutex);
    placing = false;
    return ended;
  }
};
} // namespace

Agent_Hub::Agent_Hub(Server_Database& database) : state_(std::make_shared<State>(database)) {}

Agent_Hub::~Agent_Hub()
{
  stop();
}

void Agent_Hub::set_listeners(Listeners listeners)
{
  state_->listeners = std::move(listeners);
}

bool Agent_Hub::start(std::string& error, Heartbeats* heartbeats)
{
  State* const state = state_.get();
  try {
    const std::vector<Host_Record> records = state->store.load();
    // A choice of nodes that goes on after a restart asks for hosts already.
    const std::lock_guard<std::mutex> guard(state->mutex);
    for (const Host_Record& record : records)
      state->hosts[record.uuid].record = record;
  } catch (const std::exception& failure) {
    error = std::string("The hosts cannot be read from the server's database: ") + failure.what();
    return false;
  }
  JSON_RPC_Dispatcher::Options options;
  // Hundreds of agents greet at once after a restart of the server, each with states of its jobs behind it.
  options.queue_limit = 8192;
  options.open_limit = 16384;
  options.channel_queue_limit = 512;
  options.heartbeats = heartbeats;
  if (!state->bind_methods() || !state->dispatcher.start(options)) {
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
  // A channel that has closed already says so before its start returns, here under the lock.
  const auto early = std::make_shared<Early_End>();
  JSON_RPC_Peer::Options options;
  options.closed = [state = std::weak_ptr<State>(state_), host_uuid, raw = channel.get(),
                    early](const std::string& why) {
    const std::shared_ptr<State> alive = state.lock();
    if (alive && !early->keep(why))
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
  if (early->take())
    state_->ended(host_uuid, channel.get(), early->why);
  if (stopped)
    channel->close("The server is being stopped.");
  if (replaced)
    replaced->peer->close("A newer connection of this host took its place.");
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
    if (!calls[i].second) {
      answer.error.code = JSON_RPC_NOT_SENT;
      answer.error.message = "Its agent is not connected.";
    } else if (JSON_RPC_Peer::finish_call(calls[i].second, deadline, answer.result, answer.error))
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

bool Agent_Hub::runs(const std::string& host_uuid, const std::string& definition_uuid) const
{
  const std::lock_guard<std::mutex> guard(state_->mutex);
  const auto found = state_->hosts.find(host_uuid);
  return found != state_->hosts.end() && found->second.jobs.runs(definition_uuid);
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
