#include "agent/agent_daemon.h"

#include "base/ignore_result.h"
#include "base/log.h"
#include "base/path_conf.h"
#include "base/scope_guard.h"
#include "base/version.h"
#include "instances/instance_handler.h"
#include "remote/upstream.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

#include <boost/algorithm/string/join.hpp>

#include <atomic>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

namespace kestrel
{
namespace
{
/// For who started the agent in a terminal; the log has its own lines.
void say(const std::string& text)
{
  std::printf("%s\n", text.c_str());
  std::fflush(stdout);
}

const int64_t turn_msec = 500;
const int64_t main_stuck_msec = 120 * 1000;
/// Asked for again and again while the runs end; the unit's own limit need not know agent.toml.
const int64_t extend_msec = 60 * 1000;
const int64_t extend_every_msec = 10 * 1000;
const unsigned report_seconds = 60;
const unsigned service_threads = Agent_Services::slow_limit + Agent_Services::node_state_limit + 4;

std::string in_words(unsigned count, const char* one, const char* many)
{
  return std::to_string(count) + " " + (count == 1 ? one : many);
}
} // namespace

Agent_Daemon::Agent_Daemon(Options options) : options_(std::move(options)) {}

Agent_Daemon::~Agent_Daemon() = default;

int Agent_Daemon::run()
{
  std::string error;
  if (!prepare(error) || !open_jobs(error) || !serve(error)) {
    std::fprintf(stderr, "kestrel: the agent cannot start: %s\n", error.c_str());
    if (log_opened_)
      ACE_ERROR((LM_ERROR, "The agent cannot start: %C\n", error.c_str()));
    ignore_result(notifier_.stopping(error), "it is over either way");
    give_up();
    return EXIT_FAILURE;
  }
  told_status_ = status_text();
  ignore_result(notifier_.ready(told_status_), "logged");
  ACE_DEBUG((LM_INFO, "The agent of %C is ready: %C\n", name_.c_str(), told_status_.c_str()));
  say("The agent of " + name_ + " is ready: " + told_status_);
  turn_until_ended();
  stop();
  return EXIT_SUCCESS;
}

void Agent_Daemon::give_up()
{
  const bool all_ended = !jobs_ || jobs_->stop(0, true);
  if (!leave() || !all_ended)
    std::_Exit(EXIT_FAILURE);
}

bool Agent_Daemon::prepare(std::string& error)
{
  ::setlocale(LC_ALL, "");
  notifier_ = Service_Notifier::from_environment();
  if (!signals_.install()) {
    error = std::string("signals cannot be handled: ") + std::strerror(errno);
    return false;
  }
  // Before anything is read or written: another agent may be at work on it.
  const std::string lock_path = state_path("agent.lock");
  if (!lock_.try_lock(lock_path)) {
    error = errno == EWOULDBLOCK
                ? "another agent runs on the same state (" + lock_path + " is locked); stop it first"
                : "cannot lock " + lock_path + ": " + std::strerror(errno);
    return false;
  }
  if (!read_agent_settings(source(), settings_, error) ||
      (settings_.fresh_key && !keep_server_key(settings_.key, error)))
    return false;
  name_ = settings_.name();
  if (!open_log(error) || !load_host_identity(identity_, error))
    return false;
  watchdog_ = std::make_unique<Watchdog>(notifier_, heartbeats_);
  main_heartbeat_ = heartbeats_.add("main loop", main_stuck_msec);
  watchdog_->start();
  return true;
}

Agent_Settings_Source Agent_Daemon::source() const
{
  return {options_.server_url, options_.enrollment, options_.config};
}

bool Agent_Daemon::open_log(std::string& error)
{
  Log_Options log;
  log.file = Path_Conf("/var/log/kestrel3").path("agent.log");
  log.to_stderr = options_.stderr_log;
  log.minimum = settings_.config.log_level;
  log_opened_ = open_process_log(log, error);
  return log_opened_;
}

bool Agent_Daemon::open_jobs(std::string& error)
{
  if (!modules_.open(settings_.config.modules, error))
    return false;
  registry_ = std::make_unique<Instance_Registry>(identity_.host_id);
  Instance_Service::Settings times;
  times.probe_msec = static_cast<int64_t>(settings_.config.probe_minutes) * 60 * 1000;
  instances_ = std::make_unique<Instance_Service>(*registry_, modules_.instance_handlers(), times);

  Agent_Jobs::Settings settings;
  settings.host_uuid = identity_.host_id;
  settings.server = !settings_.url.empty();
  settings.max_concurrent = settings_.config.max_concurrent;
  settings.history_days = settings_.config.history_days;
  settings.heartbeats = &heartbeats_;
  jobs_ = std::make_unique<Agent_Jobs>(modules_, settings);
  if (!jobs_->open(error)) {
    jobs_.reset();
    return false;
  }
  read_local_definitions();
  return true;
}

void Agent_Daemon::read_local_definitions()
{
  json_spirit::Array refused;
  Jobs_Error problem;
  if (!jobs_->sync_directory(Path_Conf("/var/opt/tarnvik/kestrel3/$COMPONENT", "jobs").directory(), refused,
                             problem))
    ACE_ERROR((LM_ERROR, "The definitions of this host cannot be read: %C\n", problem.text.c_str()));
  for (const json_spirit::Value& definition : refused)
    ACE_ERROR((LM_WARNING, "A definition of this host is refused: %C\n", write_json(definition).c_str()));
}

bool Agent_Daemon::serve(std::string& error)
{
  Agent_Services::Identity identity;
  identity.version = version();
  identity.host_uuid = identity_.host_id;
  identity.name = name_;
  identity.started = static_cast<int64_t>(::time(nullptr));
  services_ = std::make_unique<Agent_Services>(identity, *jobs_, *instances_);
  JSON_RPC_Dispatcher::Options threads;
  threads.threads = service_threads;
  // No heartbeats for these: a tool that hangs in several calls keeps the server's questions waiting, but the
  // runs and the schedule go on, and a restart would end those runs.
  if (!services_->bind(dispatcher_, modules_.rpc_handlers(), error))
    return false;
  if (!dispatcher_.start(threads) || !network_.start()) {
    error = "no threads can be made; see the log";
    return false;
  }
  jobs_->set_listener([this](const Job_Notice& notice) {
    const std::lock_guard<std::mutex> guard(link_mutex_);
    if (link_)
      link_->job_changed(notice);
  });
  jobs_->set_history_listener([this] {
    const std::lock_guard<std::mutex> guard(link_mutex_);
    if (link_)
      link_->runs_changed();
  });
  instances_->set_listener([this](const json_spirit::Array& instances) {
    const std::lock_guard<std::mutex> guard(link_mutex_);
    if (link_)
      link_->instances_changed(instances);
  });
  instances_->start();
  // Jobs may ask the server as soon as they run.
  return connect(error) && jobs_->start(error);
}

bool Agent_Daemon::connect(std::string& error)
{
  if (settings_.url.empty())
    return true;
  const TLS_Client_Options tls = settings_.tls();
  Upstream_Options upstream;
  upstream.url = settings_.url;
  upstream.ca_pem = tls.ca_pem;
  upstream.ca_file = tls.ca_file;
  upstream.access_key = settings_.access();
  if (!register_upstream(upstream, error))
    return false;
  REST_Client_Options rest;
  rest.url = upstream.url;
  rest.ca_pem = upstream.ca_pem;
  rest.ca_file = upstream.ca_file;
  rest.access_key = upstream.access_key;

  Server_Link::Settings settings;
  settings.url = settings_.url;
  settings.access = upstream.access_key;
  settings.tls = tls;
  const auto link = std::make_shared<Server_Link>(settings, link_host(), dispatcher_, network_, &heartbeats_);
  {
    const std::lock_guard<std::mutex> guard(link_mutex_);
    rest_ = std::make_shared<REST_Client>(rest);
    link_ = link;
  }
  link->start();
  return true;
}

void Agent_Daemon::stop_link()
{
  std::shared_ptr<Server_Link> link;
  {
    const std::lock_guard<std::mutex> guard(link_mutex_);
    link.swap(link_);
  }
  if (link)
    link->stop();
}

Link_Host Agent_Daemon::link_host()
{
  Link_Host host;
  host.hello = [this] { return services_->hello(); };
  host.unsent_runs = [this](unsigned limit) { return jobs_->unsent_runs(limit); };
  host.post_runs = [this](const json_spirit::Array& records, Report_Answer& answer) {
    return post_runs(records, answer);
  };
  host.refuse = [this](const std::vector<Refused_Run>& runs) { return refuse_runs(runs); };
  host.acknowledge = [this](const std::vector<std::string>& run_ids) {
    Jobs_Error problem;
    if (jobs_->mark_sent(run_ids, problem))
      return true;
    ACE_ERROR((LM_ERROR, "Reported runs cannot be marked as such, they will be reported again: %C\n",
               problem.text.c_str()));
    return false;
  };
  return host;
}

Report_Outcome Agent_Daemon::post_runs(const json_spirit::Array& records, Report_Answer& answer)
{
  std::shared_ptr<REST_Client> client;
  {
    const std::lock_guard<std::mutex> guard(link_mutex_);
    client = rest_;
  }
  json_spirit::Object runs;
  runs.emplace_back("runs", records);
  const json_spirit::Value body(runs);
  REST_Call call;
  call.method = "POST";
  call.path = rest_path({"runs"});
  call.seconds = report_seconds;
  json_spirit::Value reply;
  REST_Problem problem;
  const Report_Outcome outcome = client->call(call, &body, reply, problem)
                                     ? read_report_answer(reply, answer)
                                     : read_report_failure(problem, answer);
  if (outcome == Report_Outcome::unreachable && report_problem_ != answer.reason)
    ACE_ERROR((LM_WARNING, "%C not be reported to the server now: %C\n",
               (in_words(static_cast<unsigned>(records.size()), "run", "runs") + " can").c_str(),
               answer.reason.c_str()));
  report_problem_ = outcome == Report_Outcome::unreachable ? answer.reason : std::string();
  return outcome;
}

bool Agent_Daemon::refuse_runs(const std::vector<Refused_Run>& runs)
{
  Jobs_Error problem;
  if (!jobs_->mark_refused(runs, problem)) {
    ACE_ERROR((LM_ERROR,
               "Runs that the server refuses cannot be marked as such, they will be reported again: %C\n",
               problem.text.c_str()));
    return false;
  }
  for (const Refused_Run& run : runs)
    ACE_ERROR(
        (LM_WARNING,
         "The server will not take the record of run %C, which stays in the history of this host only: %C\n",
         run.run_id.c_str(), run.reason.c_str()));
  return true;
}

void Agent_Daemon::turn_until_ended()
{
  while (signals_.terminations() == 0) {
    heartbeats_.beat(main_heartbeat_);
    if (signals_.take_reload())
      reload();
    tell_status();
    signals_.wait(turn_msec);
  }
}

void Agent_Daemon::reload()
{
  ignore_result(notifier_.reloading(), "logged");
  Agent_Settings next;
  std::string error;
  if (!read_agent_settings(source(), next, error) || !settings_.can_become(next, error))
    ACE_ERROR((LM_ERROR, "The settings stay as they were: %C\n", error.c_str()));
  else
    take(next);
  told_status_ = status_text();
  ignore_result(notifier_.ready(told_status_), "logged");
}

void Agent_Daemon::take(const Agent_Settings& next)
{
  std::string error;
  if (next.fresh_key && !keep_server_key(next.key, error)) {
    ACE_ERROR((LM_ERROR, "The settings stay as they were: %C\n", error.c_str()));
    return;
  }
  const bool same_connection = settings_.same_connection(next);
  std::vector<std::string> restart;
  const Agent_Config config = reloaded_config(settings_.config, next.config, restart);
  if (name_ != next.name() && settings_.config.name == next.config.name)
    restart.insert(restart.begin(), "agent.name");
  settings_ = next;
  settings_.config = config;
  ACE_DEBUG((LM_INFO, "The settings were read again\n"));
  if (!restart.empty())
    ACE_ERROR((LM_WARNING, "These settings have changed and count when the agent is restarted: %C\n",
               boost::algorithm::join(restart, ", ").c_str()));
  set_process_log_minimum(settings_.config.log_level);
  instances_->set_probe_msec(static_cast<int64_t>(settings_.config.probe_minutes) * 60 * 1000);
  read_local_definitions();
  if (same_connection)
    return;
  // The former way to the server stays for jobs until the new one is in its place.
  stop_link();
  if (!connect(error))
    ACE_ERROR((LM_ERROR, "The connection to the server cannot be set up: %C\n", error.c_str()));
}

std::string Agent_Daemon::status_text() const
{
  std::string text = "no server";
  if (link_) {
    const Server_Link::Status link = link_->status();
    text = link.connected         ? "connected to " + settings_.url
           : link.problem.empty() ? "connecting to " + settings_.url
                                  : "not connected to " + settings_.url + ": " + link.problem;
  }
  const Agent_Jobs::Counts counts = jobs_->counts();
  return text + "; " + in_words(counts.running, "run", "runs") + " under way, " +
         std::to_string(counts.queued) + " waiting; " +
         in_words(counts.definitions, "definition", "definitions");
}

void Agent_Daemon::tell_status()
{
  std::string text = status_text();
  if (text == told_status_)
    return;
  told_status_.swap(text);
  ignore_result(notifier_.status(told_status_), "logged");
  // Runs come and go; who started the agent by hand waits for the connection.
  if (told_status_.substr(0, told_status_.find(';')) != text.substr(0, text.find(';')))
    say("The agent of " + name_ + " is " + told_status_);
}

bool Agent_Daemon::stop_jobs()
{
  std::atomic<bool> ended{false};
  bool all_ended = false;
  std::thread waiter([&] {
    all_ended = jobs_->stop(settings_.config.stop_seconds, settings_.config.cancel_at_stop);
    ended = true;
    signals_.wake();
  });
  int64_t extended = 0;
  bool canceled = false;
  for (int64_t waited = 0; !ended; waited += turn_msec) {
    heartbeats_.beat(main_heartbeat_);
    if (extended == 0 || waited - extended >= extend_every_msec) {
      ignore_result(notifier_.extend(extend_msec), "logged");
      extended = waited + 1;
    }
    if (signals_.terminations() > 1) {
      jobs_->end_grace();
      if (!canceled)
        ACE_DEBUG((LM_INFO, "Asked again to end: the runs under way are canceled\n"));
      canceled = true;
    }
    signals_.wait(turn_msec);
  }
  waiter.join();
  return all_ended;
}

void Agent_Daemon::stop()
{
  const Agent_Jobs::Counts counts = jobs_->counts();
  const std::string text = counts.running == 0
                               ? "ending"
                               : "ending when " + in_words(counts.running, "run has", "runs have") + " ended";
  ACE_DEBUG((LM_INFO, "The agent is %C\n", text.c_str()));
  ignore_result(notifier_.stopping(text), "logged");
  const bool all_ended = stop_jobs();
  if (link_ && link_->status().connected)
    ignore_result(link_->report_now(), "what is left is reported by the next start");
  if (!leave() || !all_ended) {
    ACE_ERROR(
        (LM_ERROR, "The agent ends although %C still at work\n", all_ended ? "a request is" : "a run is"));
    // Code of a module may be running; unloading it would crash.
    std::_Exit(EXIT_FAILURE);
  }
  jobs_.reset();
  modules_.close();
  ACE_DEBUG((LM_INFO, "The agent has ended\n"));
}

bool Agent_Daemon::leave()
{
  if (jobs_) {
    jobs_->set_listener(nullptr);
    jobs_->set_history_listener(nullptr);
  }
  if (instances_)
    instances_->set_listener(nullptr);
  stop_link();
  unregister_upstream();
  if (instances_)
    instances_->stop();
  const bool served = dispatcher_.stop();
  if (watchdog_)
    watchdog_->stop();
  network_.stop();
  return served;
}
} // namespace kestrel
