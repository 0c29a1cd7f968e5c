#include "server/cluster_coordinator.h"

#include "base/clock.h"
#include "base/ignore_result.h"
#include "server/host_workers.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

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
constexpr unsigned WORKER_THREADS = 32;
constexpr unsigned CALLS_PER_HOST = 4;

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
    Entry(const Cluster_Limits& limits, Cluster_Job job, const Cluster_Request& first, int64_t time,
          int64_t number, int64_t now)
        : round(limits, std::move(job), first, time, number, now)
    {
    }
    Cluster_Round round;
    bool decision_kept = false; ///< the explanation is in the database: announcements may go out
    int64_t decided_at = 0;     ///< seconds since 1970
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
  void poke();
  void run();
  int64_t step(std::vector<Entry_Ptr>& to_save);
  void step_round(const Entry_Ptr& entry, int64_t now, std::vector<Entry_Ptr>& to_save);
  void save(const Entry_Ptr& entry);
  void ask_state(const Entry_Ptr& entry, const std::string& host);
  void announce(const Entry_Ptr& entry, const Cluster_Round::Announcement& announcement);
  void note_choice(const Entry_Ptr& entry);
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
  if (found == rounds.end() || !found->second.front()->round.takes(request.host_uuid, now))
    return false;
  const Entry_Ptr& entry = found->second.front();
  ticket.number = entry->round.add(request, now);
  ticket.selection_time = entry->round.selection_time();
  ticket.round = entry;
  poke();
  return true;
}

void Cluster_Coordinator::State::ask_state(const Entry_Ptr& entry, const std::string& host)
{
  const json_spirit::Value params = entry->round.question();
  workers.add(host, [this, entry, host, params] {
    json_spirit::Value answer;
    JSON_RPC_Error error;
    Node_State node;
    const Agent_Call call = hosts.ask(host, "oscar.node.check_state", params,
                                      static_cast<int>(limits.state_msec), answer, error);
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
  if (entry->decision_kept)
    for (const Cluster_Round::Announcement& announcement : round.take_announcements(view, now))
      announce(entry, announcement);
  const bool changed_long_ago = round.version() != entry->saved_version &&
                                now >= entry->saved_at_msec + SAVE_INTERVAL_MSEC;
  if ((round.decided() && !entry->decision_kept) || changed_long_ago)
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
      const bool over =
          (*entry)->round.finished(now) && (*entry)->round.version() == (*entry)->saved_version;
      entry = over ? entries.erase(entry) : std::next(entry);
    }
    definition = entries.empty() ? rounds.erase(definition) : std::next(definition);
  }
  return rounds.empty() ? 60000 : 50;
}

void Cluster_Coordinator::State::save(const Entry_Ptr& entry)
{
  json_spirit::Object explanation;
  unsigned version = 0;
  int64_t decided_at = 0;
  {
    const std::lock_guard<std::mutex> guard(mutex);
    explanation = entry->round.explanation(view);
    version = entry->round.version();
    decided_at = entry->decided_at;
  }
  try {
    history.save(entry->round.number(), explanation, decided_at);
  } catch (const std::exception& failure) {
    // The agents wait: the choice goes out without its explanation.
    ACE_ERROR((LM_ERROR, "(%P|%t) Cluster_Coordinator: the explanation of selection %q is not kept: %C\n",
               static_cast<ACE_INT64>(entry->round.number()), history.failure_text(failure).c_str()));
  }
  const std::lock_guard<std::mutex> guard(mutex);
  entry->saved_version = version;
  entry->saved_at_msec = clock().monotonic_msec();
  entry->decision_kept = entry->decision_kept || decided_at != 0;
}

void Cluster_Coordinator::State::run()
{
  std::unique_lock<std::mutex> lock(mutex);
  while (!stopping) {
    poked = false;
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

Cluster_Coordinator::Cluster_Coordinator(Cluster_Hosts& hosts, Cluster_History& history,
                                         const Cluster_Limits& limits)
    : state_(std::make_shared<State>(hosts, history, limits))
{
}

Cluster_Coordinator::~Cluster_Coordinator()
{
  stop();
}

bool Cluster_Coordinator::start(std::string& error)
{
  try {
    const int64_t interrupted = state_->history.mark_interrupted();
    if (interrupted > 0)
      ACE_DEBUG((LM_NOTICE, "Node selections that a former server left unfinished: %q\n",
                 static_cast<ACE_INT64>(interrupted)));
    state_->last_chosen = state_->history.last_chosen();
  } catch (const std::exception& failure) {
    error = std::string("The node selections cannot be read from the server's database: ") + failure.what();
    return false;
  }
  state_->thread = std::thread([state = state_.get()] { state->run(); });
  return true;
}

void Cluster_Coordinator::stop()
{
  {
    const std::lock_guard<std::mutex> guard(state_->mutex);
    state_->stopping = true;
    state_->changed.notify_all();
  }
  if (state_->thread.joinable())
    state_->thread.join();
  state_->workers.stop();
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
  const int64_t number = state.history.open(request.definition_uuid, clock().now(), ticket.selection_time);
  const std::lock_guard<std::mutex> guard(state.mutex);
  std::list<State::Entry_Ptr>& entries = state.rounds[request.definition_uuid];
  for (const State::Entry_Ptr& former : entries)
    former->round.close();
  entries.push_front(std::make_shared<State::Entry>(state.limits, std::move(job), request,
                                                    ticket.selection_time, number,
                                                    clock().monotonic_msec()));
  ignore_result(state.join(request, ticket), "a new round takes its first request");
  return ticket;
}

std::function<void(bool written)> Cluster_Coordinator::reply_listener(const Ticket& ticket)
{
  const std::shared_ptr<State::Entry> entry = std::static_pointer_cast<State::Entry>(ticket.round);
  return [weak = std::weak_ptr<State>(state_), entry, number = ticket.number](bool written) {
    const std::shared_ptr<State> state = weak.lock();
    if (!state)
      return;
    const std::lock_guard<std::mutex> guard(state->mutex);
    entry->round.reply_written(number, written, clock().monotonic_msec());
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
