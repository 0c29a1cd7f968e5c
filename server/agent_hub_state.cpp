#include "server/agent_hub_state.h"

#include "base/clock.h"
#include "server/server_database.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

#include <exception>

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

bool Agent_Hub::State::bind_methods()
{
  typedef JSON_RPC_Dispatcher::Peer_Method Method;
  const Method hello = [this](Message_Channel& from, const json_spirit::Value& params,
                              json_spirit::Value& result,
                              JSON_RPC_Error& failure) { return greet(from, params, result, failure); };
  const Method job_state = [this](Message_Channel& from, const json_spirit::Value& params,
                                  json_spirit::Value& result, JSON_RPC_Error& failure) {
    result = true;
    return take_state(from, params) || refuse(failure, JSON_RPC_INVALID_PARAMS,
                                              "This is no state of a job, or the agent has not greeted");
  };
  const Method instances = [this](Message_Channel& from, const json_spirit::Value& params,
                                  json_spirit::Value& result, JSON_RPC_Error& failure) {
    result = true;
    return take_instances(from, params) || refuse(failure, JSON_RPC_INVALID_PARAMS,
                                                  "This is no list of instances, or the agent has not "
                                                  "greeted");
  };
  const JSON_RPC_Order order = JSON_RPC_Order::as_received;
  return dispatcher.bind("agent.hello", hello, order) && dispatcher.bind("job.state", job_state, order) &&
         dispatcher.bind("instance.changed", instances, order);
}

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

/// Hosts are revoked, and their keys replaced, by other processes, so that each message asks the database.
/// Without its answer the greeting counts: what is revoked meanwhile ends with drop_revoked().
bool Agent_Hub::State::still_admitted(Message_Channel& from)
{
  std::string key_hash;
  {
    const std::lock_guard<std::mutex> guard(mutex);
    const Host* const host = current(from);
    if (!host || !host->online())
      return false;
    key_hash = host->connection->key_hash;
  }
  try {
    if (store.is_admitted(from.who(), key_hash))
      return true;
  } catch (const std::exception& failure) {
    ACE_ERROR((LM_WARNING, "(%P|%t) Agent_Hub: whether host %C is still enrolled cannot be read: %C\n",
               from.who().c_str(), database.translate(failure).what()));
    return true;
  }
  from.close("This host is not enrolled any more, or has a new access key.");
  return false;
}

bool Agent_Hub::State::take_state(Message_Channel& from, const json_spirit::Value& params)
{
  if (params.type() != json_spirit::obj_type || !still_admitted(from))
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
  if (told.type() != json_spirit::array_type || !still_admitted(from))
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

std::shared_ptr<JSON_RPC_Peer> Agent_Hub::State::peer_of(const std::string& host_uuid) const
{
  const std::lock_guard<std::mutex> guard(mutex);
  const auto found = hosts.find(host_uuid);
  return found != hosts.end() && found->second.online() ? found->second.connection->peer : nullptr;
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
} // namespace kestrel
