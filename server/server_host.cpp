#include "server/server_host.h"

#include "base/clock.h"
#include "base/file_lock.h"
#include "base/heartbeat.h"
#include "base/path_conf.h"
#include "catalog/sql_back_end.h"
#include "rpc/websocket_server.h"
#include "server/account_resources.h"
#include "server/accounts.h"
#include "server/agent_hub_service.h"
#include "server/audit.h"
#include "server/backup_resources.h"
#include "server/catalog_resources.h"
#include "server/database_failure.h"
#include "server/pool_resources.h"
#include "server/server_database.h"
#include "server/server_metrics.h"
#include "server/storage_resources.h"
#include "storage/pool_registry.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

namespace kestrel
{
namespace
{
const char* const agent_path = "/k2/w/agent";
/// How long the connection of a host that was revoked may stay while it says nothing.
const int REVOKED_CHECK_SECONDS = 1;
const int PRUNE_SECONDS = 3600;
/// A turn waits for the disk, and for other processes that write to the database.
constexpr int64_t STUCK_MSEC = 300 * 1000;
/// No pool has it; asking for its backups shows whether the catalog answers.
const char* const no_pool = "00000000-0000-0000-0000-000000000000";
} // namespace

struct Server_Host::Parts {
  bool lock_state(std::string& error);
  bool open_database(std::string& error);
  void make_resources();
  void connect_router();
  void add_gauges();
  void describe(json_spirit::Object& status);
  void add_agents();
  REST_Reply admit_agent(REST_Request& request);
  bool listen(std::string& error);
  void keep_house();
  void prune();

  Server_Config config;
  Heartbeats* heartbeats = nullptr;
  time_t started = 0;
  File_Lock lock;
  Server_Database database;
  std::unique_ptr<Accounts> accounts;
  std::unique_ptr<Audit> audit;
  Server_Metrics metrics;
  REST_Router router;
  std::shared_ptr<Catalog_Back_End> catalog;
  std::unique_ptr<Pool_Registry> pools;
  std::unique_ptr<Account_Resources> account_resources;
  std::unique_ptr<Catalog_Resources> catalog_resources;
  std::unique_ptr<Pool_Resources> pool_resources;
  std::unique_ptr<Storage_Resources> storage_resources;
  std::unique_ptr<Backup_Resources> backup_resources;
  std::unique_ptr<Agent_Hub_Service> agents;
  HTTP_Server http; // after what its handlers use

  std::mutex mutex;
  std::condition_variable wake;
  bool ending = false;
  std::thread housekeeper;
};

Server_Host::Server_Host() {}

Server_Host::~Server_Host()
{
  stop(0);
}

bool Server_Host::Parts::lock_state(std::string& error)
{
  const std::string path = state_path("server.lock");
  if (lock.try_lock(path))
    return true;
  error = errno == EWOULDBLOCK ? "Another backup server is running on this state (" + path + ")"
                               : "Cannot lock " + path + ": " + ::strerror(errno);
  return false;
}

bool Server_Host::Parts::open_database(std::string& error)
{
  Server_Database::Options options;
  options.path = state_path("server.db");
  return database.open(options, error);
}

void Server_Host::Parts::make_resources()
{
  accounts = std::make_unique<Accounts>(database, config.session_hours);
  audit = std::make_unique<Audit>(database);
  catalog = std::make_shared<Sql_Back_End>(default_catalog_place(), true);
  pools = std::make_unique<Pool_Registry>();
  account_resources = std::make_unique<Account_Resources>(
      *accounts, *audit, metrics, [this](json_spirit::Object& status) { describe(status); });
  catalog_resources = std::make_unique<Catalog_Resources>(
      catalog, [this](const std::string& pool_id, const std::string& folder, const std::string& name) {
        return storage_resources->uploads().sender(pool_id, folder, name);
      });
  pool_resources = std::make_unique<Pool_Resources>(*pools, catalog);
  storage_resources = std::make_unique<Storage_Resources>(*pools, catalog, state_path("uploads"));
  backup_resources = std::make_unique<Backup_Resources>(*pools, catalog, storage_resources->reads());
  Agent_Hub_Service::Options options;
  options.cluster.window_msec = config.cluster_window_seconds * 1000;
  options.keep_run_days = config.keep_run_days;
  options.waiting.all = std::max(1u, config.workers / 2);
  options.heartbeats = heartbeats;
  agents = std::make_unique<Agent_Hub_Service>(database, options);

  account_resources->add_to(router);
  catalog_resources->add_to(router);
  pool_resources->add_to(router);
  storage_resources->add_to(router);
  backup_resources->add_to(router);
  agents->add_to(router);
}

void Server_Host::Parts::connect_router()
{
  router.set_authenticator([this](const REST_Request& request, REST_Caller& caller, std::string& problem) {
    return accounts->authenticate(request, caller, problem);
  });
  router.set_auditor([this](const REST_Request& request, int status, const std::string& what) {
    try {
      audit->add(request.caller, request.method, request.path, what, status);
    } catch (const std::exception& error) {
      // The library's own text holds the values of the statement.
      throw database.translate(error);
    }
  });
  router.set_observer([this](const std::string& method, const std::string& pattern, int status,
                             double seconds) { metrics.request(method, pattern, status, seconds); });
  router.set_translator([this](const std::exception& error, REST_Reply& reply) {
    return database_failure_reply(database, error, reply);
  });
}

void Server_Host::Parts::describe(json_spirit::Object& status)
{
  status.push_back({"started", static_cast<int64_t>(started)});
  status.push_back({"hosts_known", static_cast<uint64_t>(agents->hub().hosts().size())});
  status.push_back({"hosts_online", static_cast<uint64_t>(agents->hub().online_count())});
  status.push_back({"jobs_running", static_cast<uint64_t>(agents->hub().running_count())});
  uint64_t count = 0;
  std::string problem;
  const bool answers = catalog->count_by_pool(no_pool, count, problem) == Catalog_Status::done;
  status.push_back({"catalog_ok", answers});
  if (!answers)
    status.push_back({"catalog_problem", problem});
}

void Server_Host::Parts::add_gauges()
{
  metrics.add_gauge("kestrel_agents_online", "Connected agents",
                    [this] { return static_cast<double>(agents->hub().online_count()); });
  metrics.add_gauge("kestrel_jobs_running", "Jobs under way on all connected hosts",
                    [this] { return static_cast<double>(agents->hub().running_count()); });
  metrics.add_gauge("kestrel_sessions", "Sessions of console users",
                    [this] { return static_cast<double>(accounts->session_count()); });
  metrics.add_gauge("kestrel_connections", "Open connections, those of agents included",
                    [this] { return static_cast<double>(http.counts().open); });
  metrics.add_gauge("kestrel_connections_refused", "Connections over the limit since the start",
                    [this] { return static_cast<double>(http.counts().refused); });
}

REST_Reply Server_Host::Parts::admit_agent(REST_Request& request)
{
  try {
    std::string problem;
    if (!accounts->authenticate(request, request.caller, problem))
      return rest_error(401, "unauthorized", problem);
    if (request.caller.kind == REST_Caller::nobody)
      return rest_error(401, "unauthorized", "Agents identify themselves with their access key");
    if (request.caller.kind != REST_Caller::agent)
      return rest_error(403, "forbidden", "Only agents connect here");
    REST_Reply reply;
    reply.status = 101;
    return reply;
  } catch (const std::exception& error) {
    REST_Reply reply;
    if (database_failure_reply(database, error, reply))
      return reply;
    ACE_ERROR((LM_ERROR, "(%P|%t) Server_Host: an agent cannot be let in: %s\n", error.what()));
    return rest_error(500, "internal_error", "The server failed to do this; its log says why");
  }
}

void Server_Host::Parts::add_agents()
{
  const auto gate = [this](REST_Request& request) {
    const REST_Reply reply = admit_agent(request);
    metrics.request("GET", agent_path, reply.status, 0);
    return reply;
  };
  http.add_upgrade(agent_path, gate, [this](Upgraded_Connection connection, const REST_Request& request) {
    const REST_Caller caller = request.caller;
    websocket_accept(std::move(connection), WebSocket_Limits(),
                     [this, caller](std::shared_ptr<WebSocket_Channel> channel, const std::string& error) {
                       if (channel)
                         agents->connected(caller, channel);
                       else
                         ACE_DEBUG((LM_NOTICE, "(%P|%t) Server_Host: %s\n", error.c_str()));
                     });
  });
}

bool Server_Host::Parts::listen(std::string& error)
{
  HTTP_Server_Options options;
  options.address = config.address;
  options.port = config.port;
  options.workers = config.workers;
  options.limits = config.limits;
  options.heartbeats = heartbeats;
  if (!config.plain) {
    const bool own = config.certificate_file.empty();
    options.certificate_file = own ? state_path("tls/server.crt") : config.certificate_file;
    options.key_file = own ? state_path("tls/server.key") : config.key_file;
  }
  http.set_body_gate(
      [this](REST_Request& request, const std::string& target) { return router.check(request, target); });
  return http.start(
      options,
      [this](REST_Request& request, const std::string& target) { return router.handle(request, target); },
      error);
}

bool Server_Host::start(const Server_Config& config, std::string& error, Heartbeats* heartbeats)
{
  std::unique_ptr<Parts> parts = std::make_unique<Parts>();
  parts->config = config;
  parts->started = clock().now();
  parts->heartbeats = heartbeats;
  if (!parts->lock_state(error) || !parts->open_database(error))
    return false;
  try {
    parts->make_resources();
    parts->connect_router();
    parts->add_gauges();
    parts->add_agents();
    parts->prune();
  } catch (const std::exception& failed) {
    error = parts->database.translate(failed).what();
    return false;
  }
  if (!parts->agents->start(error))
    return false;
  if (!parts->listen(error)) {
    parts->agents->stop();
    return false;
  }
  parts->housekeeper = std::thread([raw = parts.get()] { raw->keep_house(); });
  parts_ = std::move(parts);
  return true;
}

void Server_Host::Parts::prune()
{
  accounts->prune();
  audit->prune(config.keep_audit_days);
}

void Server_Host::Parts::keep_house()
{
  auto prune_at = std::chrono::steady_clock::now() + std::chrono::seconds(PRUNE_SECONDS);
  Heartbeat heartbeat(heartbeats, "housekeeping", STUCK_MSEC);
  std::unique_lock<std::mutex> lock(mutex);
  while (!wake.wait_for(lock, std::chrono::seconds(REVOKED_CHECK_SECONDS), [this] { return ending; })) {
    lock.unlock();
    heartbeat.beat();
    try {
      agents->hub().drop_revoked();
      if (std::chrono::steady_clock::now() >= prune_at) {
        prune();
        prune_at = std::chrono::steady_clock::now() + std::chrono::seconds(PRUNE_SECONDS);
      }
    } catch (const std::exception& error) {
      ACE_ERROR((LM_WARNING, "(%P|%t) Server_Host: %s\n", database.translate(error).what()));
    }
    lock.lock();
  }
}

void Server_Host::stop(int grace_msec)
{
  if (!parts_)
    return;
  {
    std::lock_guard<std::mutex> guard(parts_->mutex);
    parts_->ending = true;
  }
  parts_->wake.notify_all();
  parts_->housekeeper.join();
  parts_->http.stop(grace_msec, [this] { parts_->agents->stop(); });
  parts_.reset();
}

bool Server_Host::reload(std::string& error)
{
  return parts_->http.reload_certificate(error);
}

const Server_Config& Server_Host::config() const
{
  return parts_->config;
}
Server_Database& Server_Host::database()
{
  return parts_->database;
}
REST_Router& Server_Host::router()
{
  return parts_->router;
}
HTTP_Server& Server_Host::http()
{
  return parts_->http;
}
Accounts& Server_Host::accounts()
{
  return *parts_->accounts;
}
Server_Metrics& Server_Host::metrics()
{
  return parts_->metrics;
}
unsigned short Server_Host::port() const
{
  return parts_->http.port();
}
} // namespace kestrel
