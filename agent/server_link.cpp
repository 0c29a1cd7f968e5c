#include "agent/server_link.h"

#include "base/scope_guard.h"
#include "rpc/json_rpc_peer.h"
#include "storage/host_manager.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <random>
#include <set>
#include <unistd.h>

namespace kestrel
{
namespace
{
typedef std::chrono::steady_clock Time;
const int access_key_head = 49;
const int status_unauthorized = 401;
const int status_forbidden = 403;
/// Longer than a dial may take, with all its steps, and the greeting behind it.
const int64_t stuck_msec = 180 * 1000;
const std::chrono::milliseconds turn(500);
/// How often a sender looks whether a slow reader has caught up.
const std::chrono::milliseconds slow_turn(50);

uint32_t any_seed()
{
  return std::random_device()() ^ static_cast<uint32_t>(::getpid());
}

std::string run_id_of(const json_spirit::Value& record)
{
  return required<std::string>(record.get_obj(), "run_id");
}
} // namespace

/// What the connection's callbacks reach after the link itself may be gone.
struct Server_Link::Shared {
  mutable std::mutex mutex;
  std::condition_variable wake;        ///< for the connection's thread
  std::condition_variable wake_report; ///< for the reports' thread
  bool stop = false;
  std::shared_ptr<JSON_RPC_Peer> peer; ///< of the connection in use
  uint64_t connection = 0;             ///< number of the one in use
  uint64_t closed = 0;                 ///< number of the last one that has gone
  std::string close_reason;
  bool instances_waiting = false;
  json_spirit::Array instances;
  bool report_due = false;
  bool connected_anew = false; ///< since the last report
  Status status;

  bool gone() const { return stop || closed >= connection; }
};

json_spirit::Object job_notice_params(const Job_Notice& notice)
{
  json_spirit::Object params;
  params.emplace_back("id", notice.id);
  params.emplace_back("run_id", notice.run_id);
  params.emplace_back("state", job_state_text(notice.state));
  params.emplace_back("progress", notice.progress);
  params.emplace_back("done_bytes", notice.done_bytes);
  params.emplace_back("total_bytes", notice.total_bytes);
  params.emplace_back("item", notice.item);
  params.emplace_back("time", static_cast<int64_t>(notice.time));
  return params;
}

Server_Link::Server_Link(Settings settings, Link_Host host, JSON_RPC_Dispatcher& dispatcher,
                         Network_Threads& network, Heartbeats* heartbeats)
    : settings_(std::move(settings)), host_(std::move(host)), dispatcher_(dispatcher), client_(network),
      heartbeats_(heartbeats), delay_(settings_.seed == 0 ? any_seed() : settings_.seed),
      shared_(std::make_shared<Shared>())
{
}

void Server_Link::start()
{
  if (thread_.joinable())
    return;
  if (heartbeats_)
    heartbeat_ = heartbeats_->add("connection to the server", stuck_msec);
  thread_ = std::thread([this] { run(); });
  report_thread_ = std::thread([this] { run_reports(); });
}

void Server_Link::stop()
{
  std::shared_ptr<JSON_RPC_Peer> peer;
  {
    const std::lock_guard<std::mutex> guard(shared_->mutex);
    shared_->stop = true;
    peer = shared_->peer;
  }
  client_.cancel();
  // A greeting may be waiting for its answer.
  if (peer)
    peer->close("The agent stops.");
  shared_->wake.notify_all();
  shared_->wake_report.notify_all();
  for (std::thread* thread : {&thread_, &report_thread_})
    if (thread->joinable())
      thread->join();
}

void Server_Link::job_changed(const Job_Notice& notice)
{
  outbox_.put(notice);
  // Taken so that the thread is either waiting, or looks at the outbox after this.
  const std::lock_guard<std::mutex> guard(shared_->mutex);
  shared_->wake.notify_all();
}

void Server_Link::instances_changed(const json_spirit::Array& instances)
{
  const std::lock_guard<std::mutex> guard(shared_->mutex);
  shared_->instances = instances;
  shared_->instances_waiting = true;
  shared_->wake.notify_all();
}

void Server_Link::runs_changed()
{
  const std::lock_guard<std::mutex> guard(shared_->mutex);
  shared_->report_due = true;
  shared_->wake_report.notify_all();
}

Server_Link::Status Server_Link::status() const
{
  const std::lock_guard<std::mutex> guard(shared_->mutex);
  return shared_->status;
}

void Server_Link::beat()
{
  if (heartbeats_)
    heartbeats_->beat(heartbeat_);
}

bool Server_Link::stopping() const
{
  const std::lock_guard<std::mutex> guard(shared_->mutex);
  return shared_->stop;
}

void Server_Link::pause(int64_t msec)
{
  const Time::time_point end =
      Time::now() + std::chrono::milliseconds(std::min(msec, settings_.longest_delay_msec));
  std::unique_lock<std::mutex> lock(shared_->mutex);
  while (!shared_->stop && Time::now() < end) {
    shared_->wake.wait_until(lock, std::min(end, Time::now() + turn));
    beat();
  }
}

void Server_Link::run()
{
  while (!stopping()) {
    beat();
    const int64_t delay_msec = connect_once();
    if (!stopping())
      pause(delay_msec);
  }
  if (heartbeats_)
    heartbeats_->end(heartbeat_);
}

int64_t Server_Link::connect_once()
{
  WebSocket_Dial dial;
  dial.url = settings_.url + "/k2/w/agent";
  dial.headers.emplace_back(http_head_string(access_key_head, 0), settings_.access);
  dial.tls = settings_.tls;
  dial.limits = settings_.limits;
  WebSocket_Failure failure;
  const std::shared_ptr<WebSocket_Channel> channel = client_.dial(dial, failure);
  beat();
  if (!channel) {
    if (stopping())
      return 0;
    const bool refused =
        failure.kind == WebSocket_Failure::refused &&
        (failure.http_status == status_unauthorized || failure.http_status == status_forbidden);
    note_problem(failure.message, refused);
    return refused ? delay_.after_refusal() : delay_.after_failure();
  }
  const Time::time_point begin = Time::now();
  const std::shared_ptr<JSON_RPC_Peer> peer = start_peer(channel);
  const Scope_Guard forget([this] {
    const std::lock_guard<std::mutex> guard(shared_->mutex);
    shared_->peer.reset();
  });
  if (!use(peer) || !greet(*peer)) {
    peer->close();
    return delay_.after_failure();
  }
  note_connected();
  keep_telling(*peer);
  peer->close("The agent stops.");
  const auto lasted = std::chrono::duration_cast<std::chrono::milliseconds>(Time::now() - begin);
  {
    const std::lock_guard<std::mutex> guard(shared_->mutex);
    shared_->status.connected = false;
  }
  if (!stopping())
    note_problem(shared_->close_reason, false);
  return delay_.after_connection(lasted.count());
}

std::shared_ptr<JSON_RPC_Peer> Server_Link::start_peer(const std::shared_ptr<WebSocket_Channel>& channel)
{
  uint64_t number;
  {
    const std::lock_guard<std::mutex> guard(shared_->mutex);
    number = ++shared_->connection;
    // The greeting holds what they would say.
    shared_->instances_waiting = false;
  }
  outbox_.clear();
  JSON_RPC_Peer::Options options;
  options.closed = [shared = shared_, number](const std::string& why) {
    const std::lock_guard<std::mutex> guard(shared->mutex);
    shared->closed = std::max(shared->closed, number);
    shared->close_reason = why;
    shared->wake.notify_all();
  };
  return JSON_RPC_Peer::start(channel, &dispatcher_, options);
}

/// False when it came too late: the link stops.
bool Server_Link::use(const std::shared_ptr<JSON_RPC_Peer>& peer)
{
  const std::lock_guard<std::mutex> guard(shared_->mutex);
  shared_->peer = peer;
  return !shared_->stop;
}

bool Server_Link::greet(JSON_RPC_Peer& peer)
{
  json_spirit::Value answer;
  JSON_RPC_Error error;
  if (peer.call("agent.hello", host_.hello(), settings_.hello_msec, answer, error)) {
    beat();
    return true;
  }
  beat();
  if (!stopping())
    note_problem("the server did not take the greeting of this host: " + error.message, false);
  return false;
}

void Server_Link::note_problem(const std::string& text, bool refused)
{
  const std::lock_guard<std::mutex> guard(shared_->mutex);
  shared_->status.connected = false;
  shared_->status.refused = refused;
  if (shared_->status.problem == text)
    return; // said already, and nothing has changed since
  shared_->status.problem = text;
  if (refused)
    ACE_ERROR((LM_ERROR, "The backup server %C refuses this host: %C Until then it is asked once a minute.\n",
               settings_.url.c_str(), text.c_str()));
  else
    ACE_ERROR(
        (LM_WARNING, "No connection to the backup server %C: %C\n", settings_.url.c_str(), text.c_str()));
}

void Server_Link::note_connected()
{
  {
    const std::lock_guard<std::mutex> guard(shared_->mutex);
    shared_->status.connected = true;
    shared_->status.refused = false;
    shared_->status.problem.clear();
    ++shared_->status.connections;
    shared_->connected_anew = true;
    shared_->wake_report.notify_all();
  }
  ACE_DEBUG((LM_INFO, "Connected to the backup server %C\n", settings_.url.c_str()));
}

void Server_Link::keep_telling(JSON_RPC_Peer& peer)
{
  std::unique_lock<std::mutex> lock(shared_->mutex);
  while (!shared_->gone()) {
    lock.unlock();
    beat();
    const bool slow = peer.channel()->unsent() >= settings_.most_unsent;
    const bool told = !slow && tell_next(peer);
    lock.lock();
    if (told || shared_->gone())
      continue;
    if (slow)
      shared_->wake.wait_for(lock, slow_turn, [this] { return shared_->gone(); });
    else if (!shared_->instances_waiting && outbox_.size() == 0)
      shared_->wake.wait_for(lock, turn);
  }
}

bool Server_Link::tell_next(JSON_RPC_Peer& peer)
{
  json_spirit::Array instances;
  bool changed = false;
  {
    const std::lock_guard<std::mutex> guard(shared_->mutex);
    changed = shared_->instances_waiting;
    shared_->instances_waiting = false;
    instances.swap(shared_->instances);
  }
  if (changed) {
    json_spirit::Object params;
    params.emplace_back("instances", instances);
    // What is not accepted is lost with the connection: the next greeting tells it.
    return peer.notify("instance.changed", params);
  }
  Job_Notice notice;
  return outbox_.take(notice) && peer.notify("job.state", job_notice_params(notice));
}

void Server_Link::run_reports()
{
  int64_t pause_msec = settings_.report_msec;
  bool failed = false;
  Time::time_point next = Time::now() + std::chrono::milliseconds(pause_msec);
  std::unique_lock<std::mutex> lock(shared_->mutex);
  while (!shared_->stop) {
    shared_->wake_report.wait_until(lock, next, [this, failed] {
      return shared_->stop ||
             (shared_->status.connected && (shared_->connected_anew || (shared_->report_due && !failed)));
    });
    if (shared_->stop)
      break;
    if (shared_->status.connected) {
      shared_->report_due = shared_->connected_anew = false;
      lock.unlock();
      failed = !report_batches();
      lock.lock();
      pause_msec = failed ? std::min(2 * pause_msec, settings_.longest_report_msec) : settings_.report_msec;
    }
    next = Time::now() + std::chrono::milliseconds(pause_msec);
  }
}

bool Server_Link::report_now()
{
  return report_batches();
}

bool Server_Link::report_batches()
{
  const std::lock_guard<std::mutex> guard(report_mutex_);
  std::set<std::string> settled;
  for (;;) {
    const json_spirit::Array records = host_.unsent_runs(settings_.report_batch);
    if (records.empty())
      return true;
    // One that is settled and offered again was not noted as such: this would go on for ever.
    for (const json_spirit::Value& record : records)
      if (settled.count(run_id_of(record)) != 0)
        return false;
    if (!report(records, settled))
      return false;
  }
}

/// False when it is of no use to go on now.
bool Server_Link::report(const json_spirit::Array& records, std::set<std::string>& settled)
{
  if (stopping())
    return false;
  Report_Answer answer;
  const Report_Outcome outcome = host_.post_runs(records, answer);
  if (outcome == Report_Outcome::unreachable)
    return false;
  if (outcome == Report_Outcome::answered)
    return settle(records, answer, settled);
  if (records.size() == 1) {
    answer.stored.clear();
    answer.refused = {Refused_Run{run_id_of(records.front()), answer.reason}};
    return settle(records, answer, settled);
  }
  const auto middle = records.begin() + static_cast<std::ptrdiff_t>(records.size() / 2);
  return report(json_spirit::Array(records.begin(), middle), settled) &&
         report(json_spirit::Array(middle, records.end()), settled);
}

/// Notes what became of the records. False when it says nothing of any, or cannot be noted. A server cannot
/// settle what it was not sent.
bool Server_Link::settle(const json_spirit::Array& records, const Report_Answer& answer,
                         std::set<std::string>& settled)
{
  std::set<std::string> sent;
  for (const json_spirit::Value& record : records)
    sent.insert(run_id_of(record));
  std::vector<std::string> stored;
  std::vector<Refused_Run> refused;
  for (const std::string& id : answer.stored)
    if (sent.erase(id) != 0)
      stored.push_back(id);
  for (const Refused_Run& run : answer.refused)
    if (sent.erase(run.run_id) != 0)
      refused.push_back(run);
  if ((stored.empty() && refused.empty()) || (!stored.empty() && !host_.acknowledge(stored)) ||
      (!refused.empty() && !host_.refuse(refused)))
    return false;
  settled.insert(stored.begin(), stored.end());
  for (const Refused_Run& run : refused)
    settled.insert(run.run_id);
  return true;
}
} // namespace kestrel
