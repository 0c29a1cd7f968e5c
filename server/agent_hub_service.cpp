#include "server/agent_hub_service.h"

#include "base/clock.h"
#include "base/heartbeat.h"
#include "server/cluster_coordinator.h"
#include "server/cluster_resources.h"
#include "server/host_gate.h"
#include "server/host_jobs.h"
#include "server/host_resources.h"
#include "server/job_definitions.h"
#include "server/job_resources.h"
#include "server/job_sync.h"
#include "server/run_records.h"
#include "server/run_resources.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>

namespace kestrel
{
namespace
{
constexpr int UPKEEP_MSEC = 2000;
/// A turn waits for the disk, and for other processes that write to the database.
constexpr int64_t STUCK_MSEC = 300 * 1000;
constexpr int64_t PRUNE_MSEC = 3600 * 1000;
constexpr int64_t DAY_SECONDS = 24 * 3600;

/// The hub and the definitions, as the choice of nodes sees them.
class Served_Hosts : public Cluster_Hosts
{
public:
  Served_Hosts(Agent_Hub& hub, Job_Definitions& definitions) : hub_(hub), definitions_(definitions) {}

  std::string name(const std::string& host) override { return hub_.name_of(host); }
  bool connected(const std::string& host) override { return hub_.online(host); }
  unsigned running_jobs(const std::string& host, const std::string& definition) override
  {
    return hub_.running_jobs(host, definition);
  }
  int64_t last_chosen(const std::string&) override { return 0; } // the coordinator remembers
  Agent_Call ask(const std::string& host, const std::string& method, const json_spirit::Value& params,
                 int timeout_msec, json_spirit::Value& result, JSON_RPC_Error& error) override
  {
    return hub_.ask(host, method, params, timeout_msec, result, error);
  }
  Cluster_Job job_of(const Cluster_Request& request) override
  {
    Cluster_Job job;
    if (const Server_Definition_Ptr definition = definitions_.find(request.definition_uuid)) {
      job.defined = true;
      job.hosts = definition->hosts;
      read_cluster_job(definition->document, job);
    }
    // The agent knows best which instance it asks for; the uuid may be another on every host.
    const std::string instance = hub_.instance_name(request.host_uuid, request.instance_uuid);
    if (!instance.empty())
      job.instance = instance;
    return job;
  }

private:
  Agent_Hub& hub_;
  Job_Definitions& definitions_;
};
} // namespace

struct Agent_Hub_Service::Parts {
  Parts(Server_Database& database, const Options& given)
      : options(given), hub(database), gate(given.waiting), definitions(database), runs(database),
        history(database), sync(hub, definitions, given.heartbeats), served_hosts(hub, definitions),
        coordinator(served_hosts, history, given.cluster), host_resources(hub, gate),
        job_resources(hub, gate, definitions, sync, runs,
                      [this](const std::string& definition) { coordinator.new_run(definition); }),
        run_resources(hub, gate, runs, definitions), cluster_resources(coordinator, history, definitions)
  {
  }

  const Options options;
  Agent_Hub hub;
  Host_Gate gate;
  Job_Definitions definitions;
  Run_Records runs;
  Cluster_History history;
  Job_Sync sync;
  Served_Hosts served_hosts;
  Cluster_Coordinator coordinator;
  Host_Resources host_resources;
  Job_Resources job_resources;
  Run_Resources run_resources;
  Cluster_Resources cluster_resources;

  std::mutex mutex;
  std::condition_variable changed;
  bool stopping = false;
  std::thread upkeep;

  void listen();
  void keep_up();
  void prune();
};

void Agent_Hub_Service::Parts::listen()
{
  Agent_Hub::Listeners listeners;
  listeners.hello = [this](const std::string& host, const json_spirit::Object&) {
    sync.hello(host);
    coordinator.wake();
  };
  listeners.job_state = [this](const std::string& host, const json_spirit::Object& state) {
    const json_spirit::Value& word = json_spirit::find_value(state, "state");
    if (word.type() == json_spirit::str_type && !run_under_way(word.get_str()))
      sync.list_again(host);
  };
  listeners.gone = [this](const std::string&) { coordinator.wake(); };
  hub.set_listeners(std::move(listeners));
}

void Agent_Hub_Service::Parts::prune()
{
  try {
    if (options.keep_run_days > 0)
      runs.prune(static_cast<int64_t>(clock().now()) - options.keep_run_days * DAY_SECONDS);
  } catch (const std::exception& failure) {
    ACE_ERROR((LM_ERROR, "(%P|%t) Agent_Hub_Service: old runs cannot be removed: %C\n", failure.what()));
  }
}

void Agent_Hub_Service::Parts::keep_up()
{
  int64_t pruned_at = clock().monotonic_msec();
  Heartbeat heartbeat(options.heartbeats, "hosts and jobs", STUCK_MSEC);
  prune();
  std::unique_lock<std::mutex> lock(mutex);
  while (!changed.wait_for(lock, std::chrono::milliseconds(UPKEEP_MSEC), [this] { return stopping; })) {
    lock.unlock();
    heartbeat.beat();
    sync.retry();
    hub.keep_last_seen();
    if (clock().monotonic_msec() >= pruned_at + PRUNE_MSEC) {
      pruned_at = clock().monotonic_msec();
      prune();
    }
    lock.lock();
  }
}

Agent_Hub_Service::Agent_Hub_Service(Server_Database& database, const Options& options)
    : parts_(new Parts(database, options))
{
}

Agent_Hub_Service::~Agent_Hub_Service()
{
  stop();
}

void Agent_Hub_Service::add_to(REST_Router& router)
{
  parts_->host_resources.add_to(router);
  parts_->job_resources.add_to(router);
  parts_->run_resources.add_to(router);
  parts_->cluster_resources.add_to(router);
}

bool Agent_Hub_Service::start(std::string& error)
{
  try {
    parts_->definitions.load();
  } catch (const std::exception& failure) {
    error = std::string("The job definitions cannot be read from the server's database: ") + failure.what();
    return false;
  }
  parts_->listen();
  if (!parts_->coordinator.start(error, parts_->options.heartbeats) || !parts_->hub.start(error, parts_->options.heartbeats))
    return false;
  parts_->upkeep = std::thread([parts = parts_.get()] { parts->keep_up(); });
  return true;
}

void Agent_Hub_Service::stop()
{
  {
    const std::lock_guard<std::mutex> guard(parts_->mutex);
    parts_->stopping = true;
    parts_->changed.notify_all();
  }
  if (parts_->upkeep.joinable())
    parts_->upkeep.join();
  parts_->coordinator.stop_choosing();
  // Calls under way fail when their connections end, so that nobody below waits for an agent.
  parts_->hub.stop();
  parts_->hub.keep_last_seen();
  parts_->sync.stop();
  parts_->coordinator.stop();
}

void Agent_Hub_Service::connected(const REST_Caller& caller, const std::shared_ptr<Message_Channel>& channel)
{
  parts_->hub.connect(caller.uuid, caller.name, caller.key_hash, channel);
}

Agent_Hub& Agent_Hub_Service::hub()
{
  return parts_->hub;
}
} // namespace kestrel
