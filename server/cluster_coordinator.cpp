#include "server/cluster_coordinator.h"

#include "base/clock.h"
#include "base/durable_file.h"
#include "base/heartbeat.h"
#include "base/ignore_result.h"
#include "rpc/rest_router.h"
#include "server/host_workers.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <list>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace kestrel
{
namespace
{
constexpr int ANNOUNCE_CALL_MSEC = 5000;
constexpr int64_t SAVE_INTERVAL_MSEC = 500;
/// Before the choice: who asked and was answered is told after a restart when it was kept.
constexpr int64_t SAVE_OPEN_MSEC = 100;
constexpr unsigned WORKER_THREADS = 32;
constexpr unsigned CALLS_PER_HOST = 4;
constexpr int RETRY_SECONDS = 10;
constexpr int64_t IDLE_MSEC = 5000;
/// It waits for the disk only: questions to agents have threads of their own.
constexpr int64_t STUCK_MSEC = 120 * 1000;

/// Monotonic times of another boot mean nothing.
std::string boot_id()
{
  std::string text, error;
  if (!read_whole_file("/proc/sys/kernel/random/boot_id", text, error, 256))
    return std::string();
  return text;
}

std::string problem_of(Agent_Call call, const JSON_RPC_Error& error)
{
  switch (call) {
  case Agent_Call::answered:
    return std::string();
  case Agent_Call::refused: {
    std::string text = error.message.substr(0, 500);
    while (!text.empty() && text.back() == '\n')
      text.pop_back();
    return "its agent answered: " + text + " (" + std::to_string(error.code) + ")";
  }
  case Agent_Call::offline:
    return "its agent is not connected";
  case Agent_Call::lost:
    return "the connection to its agent ended before the answer came";
  default:
    return "its agent did not answer in time";
  }
}
} // namespace

struct Cluster_Coordinator::State {
  struct Entry {
    explicit Entry(std::unique_ptr<Cluster_Round> given) : whole(std::move(given)), round(*whole) {}
    const std::unique_ptr<Cluster_Round> whole;
    Cluster_Round& round;
    std::vector<Cluster_Round::Announcement> due; ///< go out when it is in the database that they may have
    bool decision_kept = false;                   ///< the explanation is in the database
    int64_t decided_at = 0;                       ///< seconds since 1970
    unsigned saved_version = 0;
    int64_t saved_at_msec = 0;
  };
  typedef std::shared_ptr<Entry> Entry_Ptr;

  State(Cluster_Hosts& given_hosts, Cluster_History& given_history, const Cluster_Limits& given_limits)
      : hosts(given_hosts), history(given_history), limits(given_limits),
        workers(WORKER_THREADS, CALLS_PER_HOST), view(*this)
  {
  }

  /// The hosts as rounds see them, with the memory of former choices.
  class View : public Host_View
  {
  public:
    explicit View(State& state) : state_(state) {}
    std::string name(const std::string& host) override { return state_.hosts.name(host); }
    bool connected(const std::string& host) override { return state_.hosts.connected(host); }
    unsigned running_jobs(const std::string& host, const std::string& definition) override
    {
      return state_.hosts.running_jobs(host, definition);
    }
    int64_t last_chosen(const std::string& host) override
    {
      const auto found = state_.last_chosen.find(host);
      return found == state_.last_chosen.end() ? 0 : found->second;
    }

  private:
    State& state_;
  };

  Cluster_Hosts& hosts;
  Cluster_History& history;
  const Cluster_Limits limits;
  const std::string boot = boot_id();
  Host_Workers workers;
  View view;
  std::mutex opening; ///< taken before `mutex`: only one request at a time begins a round
  std::mutex mutex;
  std::condition_variable changed;
  std::map<std::string, std::list<Entry_Ptr>> rounds; ///< by definition, the newest first
  std::map<std::string, int64_t> last_chosen;
  std::thread thread;
  bool poked = false;
  bool stopping = false;

  bool join(const Cluster_Request& request, Ticket& ticket);
  void check_room(const Cluster_Request& request, bool defined);
  void poke();
  void run(Heartbeats* heartbeats);
  int64_t step(std::vector<Entry_Ptr>& to_save);
  void step_round(const Entry_Ptr& entry, int64_t now, std::vector<Entry_Ptr>& to_save);
  void save(const Entry_Ptr& entry);
  void ask_state(const Entry_Ptr& entry, const std::string& host);
  void announce(const Entry_Ptr& entry, const Cluster_Round::Announcement& announcement);
  void note_choice(const Entry_Ptr& entry);
  bool resume(const Cluster_History::Unfinished& selection);
  void resume_all();
  void save_all();
};

void Cluster_Coordinator::State::poke()
{
  poked = true;
  changed.notify_all();
}

/// With the lock held.
bool Cluster_Coordinator::State::join(const Cluster_Request& request, Ticket& ticket)
{
  const auto found = rounds.find(request.definition_uuid);
  const int64_t now = clock().monotonic_msec();
  if (found == rounds.end())
    return false;
  const std::list<Entry_Ptr>& entries = found->second;
  const auto known = std::find_if(entries.begin(), entries.end(), [&](const Entry_Ptr& entry) {
    return entry->round.repeated(request, now, ticket.number);
  });
  if (known == entries.end() && !entries.front()->round.takes(request.host_uuid, now))
    return false;
  const Entry_Ptr& entry = known == entries.end() ? entries.front() : *known;
  if (known == entries.end()) {
    const size_t asked = entry->round.requests_of(request.host_uuid);
    if (asked >= limits.requests_of_host)
      throw REST_Error(429, "too_many_selections",
                       "Host " + hosts.name(request.host_uuid) + " has asked " + std::to_string(asked) +
                           " times for this selection: ask again later",
                       RETRY_SECONDS);
    ticket.number = entry->round.add(request, now);
  }
  ticket.asked = entry->round.asked(ticket.number);
  ticket.selection_time = entry->round.selection_time();
  ticket.round = entry;
  poke();
  return true;
}

/// Every choice is a write to the disk, questions to agents, and memory for as long as hosts may still join
/// it.
void Cluster_Coordinator::State::check_room(const Cluster_Request& request, bool defined)
{
  const std::lock_guard<std::mutex> guard(mutex);
  size_t all = 0, of_host = 0;
  for (const auto& [definition, entries] : rounds)
    for (const Entry_Ptr& entry : entries) {
      ++all;
      of_host += entry->round.begun_by() == request.host_uuid;
    }
  const size_t share = defined ? 1 : 2;
  if (of_host >= limits.rounds_of_host / share)
    throw REST_Error(429, "too_many_selections",
                     "Host " + hosts.name(request.host_uuid) + " has begun " + std::to_string(of_host) +
                         " selections that are not over: ask again later",
                     RETRY_SECONDS);
  if (all >= limits.rounds / share)
    throw REST_Error(429, "too_many_selections",
                     std::to_string(all) + " selections are not over: ask again later", RETRY_SECONDS);
}

void Cluster_Coordinator::State::ask_state(const Entry_Ptr& entry, const std::string& host)
{
  const json_spirit::Value params = entry->round.question();
  workers.add(host, [this, entry, host, params] {
    json_spirit::Value answer;
    JSON_RPC_Error error;
    Node_State node;
    const Agent_Call call =
        hosts.ask(host, "oscar.node.check_state", params, static_cast<int>(limits.state_msec), answer, error);
    if (call != Agent_Call::answered || read_node_state(answer, node))
      node.problem = problem_of(call, error);
    node.call = call;
    const std::lock_guard<std::mutex> guard(mutex);
    entry->round.answered(host, node);
    poke();
  });
}

void Cluster_Coordinator::State::announce(const Entry_Ptr& entry,
                                          const Cluster_Round::Announcement& announcement)
{
  workers.add(announcement.host_uuid, [this, entry, announcement] {
    json_spirit::Value answer;
    JSON_RPC_Error error;
    const Agent_Call call = hosts.ask(announcement.host_uuid, "oscar.node.notify_selected",
                                      announcement.params, ANNOUNCE_CALL_MSEC, answer, error);
    if (call != Agent_Call::answered && call != Agent_Call::offline)
      ACE_ERROR((LM_WARNING, "Node selection of job %C: host %C may not have been told: %C\n",
                 entry->round.definition_uuid().c_str(), hosts.name(announcement.host_uuid).c_str(),
                 problem_of(call, error).c_str()));
    const std::lock_guard<std::mutex> guard(mutex);
    entry->round.announced(view, announcement.ticket, call, problem_of(call, error));
    poke();
  });
}

void Cluster_Coordinator::State::note_choice(const Entry_Ptr& entry)
{
  const Cluster_Round& round = entry->round;
  if (round.decided() && round.choice().success)
    last_chosen[round.choice().host_uuid] = round.number();
}

void Cluster_Coordinator::State::step_round(const Entry_Ptr& entry, int64_t now,
                                            std::vector<Entry_Ptr>& to_save)
{
  Cluster_Round& round = entry->round;
  for (const std::string& host : round.take_questions(view, now))
    ask_state(entry, host);
  if (round.decide(view, now)) {
    entry->decided_at = clock().now();
    ACE_DEBUG((LM_INFO, "Node selection of job %C (%C): %C: %C\n", round.definition_uuid().c_str(),
               round.job().name.c_str(),
               round.choice().success ? hosts.name(round.choice().host_uuid).c_str() : "nobody",
               round.choice().reason.c_str()));
  }
  for (const std::string& name : round.give_up(view, now))
    ACE_ERROR((LM_WARNING, "Node selection of job %C: host %C asked but could not be told of the choice\n",
               round.definition_uuid().c_str(), name.c_str()));
  note_choice(entry);
  for (Cluster_Round::Announcement& announcement : round.take_announcements(view, now))
    entry->due.push_back(std::move(announcement));
  const int64_t interval = round.decided() ? SAVE_INTERVAL_MSEC : SAVE_OPEN_MSEC;
  const bool changed_long_ago =
      round.version() != entry->saved_version && now >= entry->saved_at_msec + interval;
  if ((round.decided() && !entry->decision_kept) || !entry->due.empty() || changed_long_ago)
    to_save.push_back(entry);
}

/// One look at every round, with the lock held. Gives how long to wait for the next, in milliseconds.
int64_t Cluster_Coordinator::State::step(std::vector<Entry_Ptr>& to_save)
{
  const int64_t now = clock().monotonic_msec();
  for (auto definition = rounds.begin(); definition != rounds.end();) {
    std::list<Entry_Ptr>& entries = definition->second;
    for (auto entry = entries.begin(); entry != entries.end();) {
      step_round(*entry, now, to_save);
      const bool over = (*entry)->round.finished(now) && (*entry)->round.version() == (*entry)->saved_version;
      entry = over ? entries.erase(entry) : std::next(entry);
    }
    definition = entries.empty() ? rounds.erase(definition) : std::next(definition);
  }
  return rounds.empty() ? IDLE_MSEC : 50;
}

void Cluster_Coordinator::State::save(const Entry_Ptr& entry)
{
  json_spirit::Object explanation, kept;
  unsigned version = 0;
  int64_t decided_at = 0;
  {
    const std::lock_guard<std::mutex> guard(mutex);
    explanation = entry->round.explanation(view);
    set_value(kept, "boot", boot);
    set_value(kept, "decided_at", entry->decided_at);
    set_value(kept, "round", entry->round.kept());
    version = entry->round.version();
    decided_at = entry->decided_at;
  }
  try {
    history.save(entry->round.number(), explanation, kept, decided_at);
  } catch (const std::exception& failure) {
    // The agents wait: the choice goes out without its explanation.
    ACE_ERROR((LM_ERROR, "(%P|%t) Cluster_Coordinator: the explanation of selection %q is not kept: %C\n",
               static_cast<ACE_INT64>(entry->round.number()), history.failure_text(failure).c_str()));
  }
  const std::lock_guard<std::mutex> guard(mutex);
  entry->saved_version = version;
  entry->saved_at_msec = clock().monotonic_msec();
  entry->decision_kept = entry->decision_kept || decided_at != 0;
  for (const Cluster_Round::Announcement& announcement : std::exchange(entry->due, {}))
    announce(entry, announcement);
}

void Cluster_Coordinator::State::run(Heartbeats* heartbeats)
{
  Heartbeat heartbeat(heartbeats, "choice of nodes", STUCK_MSEC);
  std::unique_lock<std::mutex> lock(mutex);
  while (!stopping) {
    poked = false;
    heartbeat.beat();
    std::vector<Entry_Ptr> to_save;
    const int64_t wait_msec = step(to_save);
    if (!to_save.empty()) {
      lock.unlock();
      for (const Entry_Ptr& entry : to_save)
        save(entry);
      lock.lock();
      continue;
    }
    changed.wait_for(lock, std::chrono::milliseconds(wait_msec), [this] { return poked || stopping; });
  }
}

/// False when nobody can go on with it.
bool Cluster_Coordinator::State::resume(const Cluster_History::Unfinished& selection)
{
  if (selection.kept.type() != json_spirit::obj_type)
    return false;
  try {
    const json_spirit::Object& kept = selection.kept.get_obj();
    if (boot.empty() || required<std::string>(kept, "boot") != boot)
      return false;
    std::unique_ptr<Cluster_Round> round =
        Cluster_Round::resume(limits, required<json_spirit::Object>(kept, "round"), selection.selection_time,
                              selection.number, clock().monotonic_msec());
    if (!round)
      return false;
    const Entry_Ptr entry = std::make_shared<Entry>(std::move(round));
    entry->decided_at = required<int64_t>(kept, "decided_at");
    entry->decision_kept = entry->round.decided();
    std::list<Entry_Ptr>& entries = rounds[entry->round.definition_uuid()];
    for (const Entry_Ptr& former : entries)
      former->round.close();
    entries.push_front(entry);
    return true;
  } catch (const std::exception& failure) {
    ACE_ERROR((LM_WARNING,
               "Node selection %q, which a former server left unfinished, cannot be resumed: %C\n",
               static_cast<ACE_INT64>(selection.number), failure.what()));
    return false;
  }
}

void Cluster_Coordinator::State::resume_all()
{
  std::vector<int64_t> over;
  size_t resumed = 0;
  for (const Cluster_History::Unfinished& selection : history.unfinished())
    if (resume(selection))
      ++resumed;
    else
      over.push_back(selection.number);
  const int64_t interrupted = over.empty() ? 0 : history.mark_over(over);
  if (interrupted > 0 || resumed > 0)
    ACE_DEBUG((LM_NOTICE, "Node selections of a former server: %q were interrupted, %q go on\n",
               static_cast<ACE_INT64>(interrupted), static_cast<ACE_INT64>(resumed)));
}

/// So that the next server knows as much as this one. After the thread and the workers have ended.
void Cluster_Coordinator::State::save_all()
{
  std::vector<Entry_Ptr> changed_ones;
  {
    const std::lock_guard<std::mutex> guard(mutex);
    for (const auto& [definition, entries] : rounds)
      for (const Entry_Ptr& entry : entries)
        if (entry->round.version() != entry->saved_version)
          changed_ones.push_back(entry);
  }
  for (const Entry_Ptr& entry : changed_ones)
    save(entry);
}

Cluster_Coordinator::Cluster_Coordinator(Cluster_Hosts& hosts, Cluster_History& history,
                                         const Cluster_Limits& limits)
    : state_(std::make_shared<State>(hosts, history, limits))
{
}

Cluster_Coordinator::~Cluster_Coordinator()
{
  stop();
}

bool Cluster_Coordinator::start(std::string& error, Heartbeats* heartbeats)
{
  try {
    state_->resume_all();
    state_->last_chosen = state_->history.last_chosen();
  } catch (const std::exception& failure) {
    error = std::string("The node selections cannot be read from the server's database: ") + failure.what();
    return false;
  }
  state_->workers.watch(heartbeats, "questions to nodes");
  state_->thread = std::thread([state = state_.get(), heartbeats] { state->run(heartbeats); });
  return true;
}

void Cluster_Coordinator::stop_choosing()
{
  {
    const std::lock_guard<std::mutex> guard(state_->mutex);
    state_->stopping = true;
    state_->changed.notify_all();
  }
  if (state_->thread.joinable())
    state_->thread.join();
}

void Cluster_Coordinator::stop()
{
  stop_choosing();
  state_->workers.stop();
  state_->save_all();
  // Tickets that are still out hold their rounds, not the state.
  const std::lock_guard<std::mutex> guard(state_->mutex);
  state_->rounds.clear();
}

Cluster_Coordinator::Ticket Cluster_Coordinator::request(const Cluster_Request& request)
{
  State& state = *state_;
  Ticket ticket;
  {
    const std::lock_guard<std::mutex> guard(state.mutex);
    if (state.join(request, ticket))
      return ticket;
  }
  const std::lock_guard<std::mutex> one_at_a_time(state.opening);
  {
    const std::lock_guard<std::mutex> guard(state.mutex);
    if (state.join(request, ticket))
      return ticket;
  }
  Cluster_Job job = state.hosts.job_of(request);
  state.check_room(request, job.defined);
  const int64_t number = state.history.open(request.definition_uuid, clock().now(), ticket.selection_time);
  const std::lock_guard<std::mutex> guard(state.mutex);
  std::list<State::Entry_Ptr>& entries = state.rounds[request.definition_uuid];
  for (const State::Entry_Ptr& former : entries)
    former->round.close();
  entries.push_front(std::make_shared<State::Entry>(std::make_unique<Cluster_Round>(
      state.limits, std::move(job), request, ticket.selection_time, number, clock().monotonic_msec())));
  ignore_result(state.join(request, ticket), "a new round takes its first request");
  return ticket;
}

std::function<void(bool written)> Cluster_Coordinator::reply_listener(const Ticket& ticket)
{
  const std::shared_ptr<State::Entry> entry = std::static_pointer_cast<State::Entry>(ticket.round);
  return [weak = std::weak_ptr<State>(state_), entry, number = ticket.number, asked = ticket.asked](bool written) {
    const std::shared_ptr<State> state = weak.lock();
    if (!state)
      return;
    const std::lock_guard<std::mutex> guard(state->mutex);
    entry->round.reply_written(number, written, clock().monotonic_msec(), asked);
    state->poke();
  };
}

void Cluster_Coordinator::wake()
{
  const std::lock_guard<std::mutex> guard(state_->mutex);
  state_->poke();
}

void Cluster_Coordinator::new_run(const std::string& definition_uuid)
{
  const std::lock_guard<std::mutex> guard(state_->mutex);
  const auto found = state_->rounds.find(definition_uuid);
  if (found == state_->rounds.end())
    return;
  for (const State::Entry_Ptr& entry : found->second)
    entry->round.close();
}
} // namespace kestrel
