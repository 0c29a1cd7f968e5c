#include "server/job_sync.h"

#include "base/clock.h"
#include "server/agent_hub.h"
#include "server/job_definitions.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

#include <chrono>
#include <exception>
#include <thread>

namespace kestrel
{
namespace
{
constexpr unsigned THREADS = 8;
constexpr int SYNC_MSEC = 30000;
constexpr int LIST_MSEC = 15000;

json_spirit::Object to_json(const Server_Definition& definition)
{
  json_spirit::Object entry;
  entry.emplace_back("id", definition.id);
  entry.emplace_back("revision", definition.revision);
  entry.emplace_back("enabled", definition.enabled);
  entry.emplace_back("document", definition.document);
  return entry;
}

std::map<std::string, std::string> read_refusals(const json_spirit::Value& answer)
{
  std::map<std::string, std::string> refused;
  try {
    for (const json_spirit::Value& entry : required<json_spirit::Array>(answer.get_obj(), "refused")) {
      const json_spirit::Object& members = entry.get_obj();
      refused[required<std::string>(members, "id")] = required<std::string>(members, "reason").substr(0, 2000);
    }
  } catch (const std::exception&) {
    // What can be read counts: the agent has the definitions.
  }
  return refused;
}
} // namespace

Job_Sync::Job_Sync(Agent_Hub& hub, Job_Definitions& definitions, Heartbeats* heartbeats)
    : hub_(hub), definitions_(definitions), workers_(THREADS, 1)
{
  workers_.watch(heartbeats, "definitions for hosts");
}

/// With the lock held.
void Job_Sync::schedule(const std::string& host_uuid)
{
  Host& host = hosts_[host_uuid];
  if (host.under_way)
    return;
  host.under_way = true;
  workers_.add(host_uuid, [this, host_uuid] { exchange(host_uuid); });
}

void Job_Sync::wanted(const std::vector<std::string>& host_uuids)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  for (const std::string& host_uuid : host_uuids) {
    hosts_[host_uuid].definitions_wanted = true;
    hosts_[host_uuid].synced = false;
    schedule(host_uuid);
  }
}

void Job_Sync::hello(const std::string& host_uuid)
{
  wanted({host_uuid});
}

void Job_Sync::list_again(const std::string& host_uuid)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  hosts_[host_uuid].list_wanted = true;
  schedule(host_uuid);
}

void Job_Sync::retry()
{
  const std::lock_guard<std::mutex> guard(mutex_);
  for (auto& [uuid, host] : hosts_)
    if (host.definitions_wanted && hub_.online(uuid))
      schedule(uuid);
}

void Job_Sync::stop()
{
  workers_.stop();
}

/// Until nothing is wanted any more, or the host does not take it.
void Job_Sync::exchange(const std::string& host_uuid)
{
  for (;;) {
    bool definitions = false;
    {
      const std::lock_guard<std::mutex> guard(mutex_);
      Host& host = hosts_[host_uuid];
      const bool online = hub_.online(host_uuid);
      if (!online || (!host.definitions_wanted && !host.list_wanted)) {
        host.under_way = false;
        return;
      }
      definitions = host.definitions_wanted;
      host.definitions_wanted = false;
      host.list_wanted = false;
    }
    if (definitions && !send_definitions(host_uuid)) {
      const std::lock_guard<std::mutex> guard(mutex_);
      hosts_[host_uuid].definitions_wanted = true;
      hosts_[host_uuid].under_way = false;
      return;
    }
    fetch_list(host_uuid);
  }
}

bool Job_Sync::send_definitions(const std::string& host_uuid)
{
  json_spirit::Array definitions;
  for (const Server_Definition_Ptr& definition : definitions_.of_host(host_uuid))
    definitions.push_back(to_json(*definition));
  json_spirit::Object params;
  params.emplace_back("definitions", std::move(definitions));
  json_spirit::Value answer;
  JSON_RPC_Error error;
  const Agent_Call call = hub_.ask(host_uuid, "job.sync", params, SYNC_MSEC, answer, error);
  if (call != Agent_Call::answered) {
    if (call == Agent_Call::refused || call == Agent_Call::late)
      ACE_ERROR((LM_WARNING, "Host %C did not take its job definitions: %C. They are sent again soon\n",
                 hub_.name_of(host_uuid).c_str(), error.message.c_str()));
    return false;
  }
  const std::lock_guard<std::mutex> guard(mutex_);
  Host& host = hosts_[host_uuid];
  host.refused = read_refusals(answer);
  host.synced = !host.definitions_wanted;
  return true;
}

void Job_Sync::fetch_list(const std::string& host_uuid)
{
  json_spirit::Value answer;
  JSON_RPC_Error error;
  if (hub_.ask(host_uuid, "job.list", json_spirit::Object(), LIST_MSEC, answer, error) !=
      Agent_Call::answered)
    return; // the next change or greeting brings it
  try {
    hub_.set_jobs(host_uuid, required<json_spirit::Array>(answer.get_obj(), "jobs"));
  } catch (const std::exception& failure) {
    ACE_ERROR((LM_WARNING, "Host %C tells its jobs in a form that cannot be read: %C\n",
               hub_.name_of(host_uuid).c_str(), failure.what()));
  }
}

bool Job_Sync::await(const std::string& host_uuid, int timeout_msec)
{
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_msec);
  while (hub_.online(host_uuid) && !synced(host_uuid)) {
    if (std::chrono::steady_clock::now() >= end)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

bool Job_Sync::synced(const std::string& host_uuid) const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  const auto found = hosts_.find(host_uuid);
  return found != hosts_.end() && found->second.synced;
}

std::string Job_Sync::refusal(const std::string& host_uuid, const std::string& definition_id) const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  const auto found = hosts_.find(host_uuid);
  if (found == hosts_.end())
    return std::string();
  const auto reason = found->second.refused.find(definition_id);
  return reason == found->second.refused.end() ? std::string() : reason->second;
}
} // namespace kestrel
