#include "server/cluster_round.h"

#include "json/json_util.h"

#include <algorithm>
#include <exception>

namespace kestrel
{
namespace
{
constexpr unsigned QUESTION_TRIES = 3;
/// Even without a window there is a time in which nodes are asked.
constexpr int64_t LEAST_QUESTION_MSEC = 1000;
/// A reply that was not written after this time never will be: no request takes as long.
constexpr int64_t REPLY_LIMIT_MSEC = 90000;
constexpr int64_t RESUMED_STATE_MSEC = 2000;

const char* kind_text(Cluster_Job::Kind kind)
{
  switch (kind) {
  case Cluster_Job::Kind::backup:
    return "backup";
  case Cluster_Job::Kind::restore:
    return "restore";
  default:
    return "unknown";
  }
}
} // namespace

Host_View::~Host_View() = default;

bool read_node_state(const json_spirit::Value& answer, Node_State& state)
{
  Node_State read;
  try {
    const json_spirit::Object& members = answer.get_obj();
    read.node_id = required<int>(members, "node_id");
    read.is_master = required<bool>(members, "is_master");
    read.online = required<bool>(members, "online");
    if (read.node_id >= 0) {
      state = read;
      return true;
    }
    read.problem = "its agent tells the node id " + std::to_string(read.node_id) + ", which is none";
  } catch (const std::exception& failure) {
    read.problem = std::string("its agent's answer is not usable: ") + failure.what();
  }
  state = Node_State();
  state.problem = read.problem;
  return false;
}

Cluster_Round::Cluster_Round(const Cluster_Limits& limits, Cluster_Job job, const Cluster_Request& first,
                             int64_t selection_time, int64_t number, int64_t now)
    : limits_(limits), job_(std::move(job)), first_(first), selection_time_(selection_time), number_(number),
      opened_at_(now), window_end_(now + limits.window_msec)
{
  for (const std::string& host : job_.hosts)
    if (!find(host)) {
      candidates_.emplace_back();
      candidates_.back().host_uuid = host;
    }
}

Cluster_Round::Candidate* Cluster_Round::find(const std::string& host_uuid)
{
  for (Candidate& candidate : candidates_)
    if (candidate.host_uuid == host_uuid)
      return &candidate;
  return nullptr;
}

bool Cluster_Round::takes(const std::string& host_uuid, int64_t now) const
{
  if (closed_)
    return false;
  if (!decided_ || now < window_end_)
    return true;
  if (!choice_.success || now >= decided_at_ + limits_.late_msec)
    return false;
  return std::none_of(tickets_.begin(), tickets_.end(),
                      [&](const Ticket& ticket) { return ticket.host_uuid == host_uuid && !ticket.lost; });
}

/// Its agent asks again, so that it does not wait for what it asked for before the restart.
void Cluster_Round::supersede(const std::string& host_uuid)
{
  for (Ticket& ticket : tickets_)
    if (ticket.resumed && ticket.host_uuid == host_uuid && ticket.state == Ticket_State::ready)
      settle(ticket, false, "its agent asked again after the restart of the server");
}

unsigned Cluster_Round::add(const Cluster_Request& request, int64_t now)
{
  Candidate* candidate = find(request.host_uuid);
  if (!candidate) {
    candidates_.emplace_back();
    candidate = &candidates_.back();
    candidate->host_uuid = request.host_uuid;
    if (decided_)
      candidate->excluded = "it asked after the choice was made";
  }
  candidate->asked = true;
  supersede(request.host_uuid);
  select_master_ = select_master_ || request.select_master;
  Ticket ticket;
  ticket.host_uuid = request.host_uuid;
  ticket.request_id = request.request_id;
  ticket.made_at = now;
  tickets_.push_back(std::move(ticket));
  ++version_;
  return static_cast<unsigned>(tickets_.size() - 1);
}

size_t Cluster_Round::requests_of(const std::string& host_uuid) const
{
  return static_cast<size_t>(
      std::count_if(tickets_.begin(), tickets_.end(),
                    [&](const Ticket& ticket) { return ticket.host_uuid == host_uuid; }));
}

bool Cluster_Round::repeated(const Cluster_Request& request, int64_t now, unsigned& ticket)
{
  if (request.request_id.empty())
    return false;
  for (unsigned i = 0; i < tickets_.size(); ++i) {
    Ticket& known = tickets_[i];
    if (known.host_uuid != request.host_uuid || known.request_id != request.request_id)
      continue;
    ++known.asked;
    ++version_;
    ticket = i;
    if (known.may_know)
      return true;
    // Its agent does not wait for the announcement yet: it has not seen the former reply.
    known.state = Ticket_State::waiting;
    known.made_at = now;
    known.replied = known.settled = known.lost = false;
    known.problem.clear();
    return true;
  }
  return false;
}

void Cluster_Round::reply_written(unsigned ticket, bool written, int64_t now, unsigned asked)
{
  Ticket& told = tickets_.at(ticket);
  if (told.replied || told.settled || told.asked != asked)
    return;
  told.replied = true;
  told.replied_at = now;
  ++version_;
  if (written)
    told.state = Ticket_State::ready;
  else
    settle(told, false, "its request was not answered: the connection ended");
}

bool Cluster_Round::wants_answer(const Candidate& candidate, Host_View& view) const
{
  return candidate.question == Question::none && candidate.tries < QUESTION_TRIES &&
         view.connected(candidate.host_uuid);
}

std::vector<std::string> Cluster_Round::take_questions(Host_View& view, int64_t now)
{
  std::vector<std::string> hosts;
  // Who comes later than this would hold up the choice.
  const int64_t last = std::max(window_end_, opened_at_ + LEAST_QUESTION_MSEC);
  if (decided_ || job_.instance.empty() || now >= last)
    return hosts;
  for (Candidate& candidate : candidates_) {
    if (!wants_answer(candidate, view))
      continue;
    candidate.question = Question::open;
    ++candidate.tries;
    hosts.push_back(candidate.host_uuid);
  }
  return hosts;
}

json_spirit::Value Cluster_Round::question() const
{
  json_spirit::Object params;
  params.emplace_back("instance", job_.instance);
  params.emplace_back("uid", first_.uid);
  params.emplace_back("virtual_address", job_.virtual_address);
  return params;
}

void Cluster_Round::answered(const std::string& host_uuid, const Node_State& state)
{
  Candidate* candidate = find(host_uuid);
  if (!candidate || candidate->question != Question::open || decided_)
    return;
  candidate->state = state;
  const bool unreached = state.call == Agent_Call::offline || state.call == Agent_Call::lost;
  candidate->question = unreached && candidate->tries < QUESTION_TRIES ? Question::none : Question::done;
  ++version_;
}

/// Every connected host has asked and answered. Hosts that nobody named may always come, and after a restart
/// those that wait come back.
bool Cluster_Round::all_heard(Host_View& view) const
{
  return job_.defined && std::all_of(candidates_.begin(), candidates_.end(), [&](const Candidate& candidate) {
           const bool awaited =
               view.connected(candidate.host_uuid) || (resumed_ && waits(candidate.host_uuid));
           return !awaited || (candidate.asked && candidate.question == Question::done);
         });
}

bool Cluster_Round::anybody_waits() const
{
  return std::any_of(tickets_.begin(), tickets_.end(), [](const Ticket& ticket) { return !ticket.settled; });
}

/// Whether its agent still waits for the choice, or has heard of it.
bool Cluster_Round::waits(const std::string& host_uuid) const
{
  return std::any_of(tickets_.begin(), tickets_.end(), [&](const Ticket& ticket) {
    return ticket.host_uuid == host_uuid && (!ticket.settled || ticket.delivered);
  });
}

std::vector<Node_Candidate> Cluster_Round::candidates(Host_View& view) const
{
  std::vector<Node_Candidate> nodes;
  for (const Candidate& candidate : candidates_) {
    Node_Candidate node;
    node.host_uuid = candidate.host_uuid;
    node.host_name = view.name(candidate.host_uuid);
    node.asked = waits(candidate.host_uuid);
    node.connected = candidate.connected;
    node.running_jobs = candidate.running_jobs;
    node.last_chosen = candidate.last_chosen;
    node.problem = !candidate.excluded.empty()            ? candidate.excluded
                   : !candidate.connected                 ? "its agent is not connected"
                   : job_.instance.empty()                ? "the instance of the job is not known"
                   : !candidate.state.problem.empty()     ? candidate.state.problem
                   : candidate.question == Question::open ? "its agent did not answer in time"
                   : candidate.question == Question::none ? "its agent was connected too late to be asked"
                                                          : "";
    node.answered = node.problem.empty();
    if (node.answered) {
      node.node_id = candidate.state.node_id;
      node.is_master = candidate.state.is_master;
      node.online = candidate.state.online;
    }
    nodes.push_back(std::move(node));
  }
  return nodes;
}

void Cluster_Round::choose(Host_View& view)
{
  for (Candidate& candidate : candidates_) {
    candidate.connected = view.connected(candidate.host_uuid);
    candidate.running_jobs = view.running_jobs(candidate.host_uuid, first_.definition_uuid);
    candidate.last_chosen = view.last_chosen(candidate.host_uuid);
  }
  Node_Wish wish;
  wish.select_master = select_master_;
  wish.backup = job_.kind == Cluster_Job::Kind::backup;
  choice_ = choose_node(candidates(view), wish);
  if (resumed_)
    choice_.reason = "after a restart of the server: " + choice_.reason;
}

bool Cluster_Round::decide(Host_View& view, int64_t now)
{
  if (decided_)
    return false;
  const bool window_over = now >= window_end_;
  const bool open_questions =
      std::any_of(candidates_.begin(), candidates_.end(),
                  [](const Candidate& candidate) { return candidate.question == Question::open; });
  // Who waited through a restart has not much time left.
  const int64_t state_msec = resumed_ ? std::min(limits_.state_msec, RESUMED_STATE_MSEC) : limits_.state_msec;
  const bool too_long = now >= window_end_ + state_msec;
  if (!(window_over && !open_questions) && !too_long && !all_heard(view))
    return false;
  choose(view);
  if (resumed_ && !anybody_waits()) {
    interrupted_ = window_over; // until then agents may come
    choice_ = Node_Choice();
    choice_.reason = "the server was restarted before it decided, and no agent waits for the choice any more";
    closed_ = closed_ || interrupted_;
  }
  // A node may still come or come back, and its request would have to share a failure.
  if (!choice_.success && !window_over)
    return false;
  decided_ = true;
  decided_at_ = now;
  ++version_;
  return true;
}

void Cluster_Round::choose_without_chosen(Host_View& view, const std::string& why)
{
  if (Candidate* chosen = find(choice_.host_uuid))
    chosen->excluded = "it was chosen first, but " + why;
  choose(view);
  ++version_;
}

json_spirit::Value Cluster_Round::announcement_params() const
{
  json_spirit::Object params;
  params.emplace_back("definition_uuid", first_.definition_uuid);
  params.emplace_back("instance", job_.instance);
  params.emplace_back("host_uuid", choice_.host_uuid);
  params.emplace_back("state", choice_.success ? "success" : "failed");
  params.emplace_back("node_id", choice_.node_id);
  params.emplace_back("selection_time", selection_time_);
  return params;
}

/// The chosen node has asked and was not told yet.
bool Cluster_Round::others_wait() const
{
  return choice_.success && !chosen_told_ &&
         std::any_of(tickets_.begin(), tickets_.end(),
                     [&](const Ticket& ticket) { return ticket.host_uuid == choice_.host_uuid; });
}

/// Whether the chosen node cannot be told any more, or not soon enough for the others.
bool Cluster_Round::chosen_is_gone(int64_t now) const
{
  if (!decided_ || !others_wait())
    return false;
  bool open = false;
  for (const Ticket& ticket : tickets_) {
    if (ticket.host_uuid != choice_.host_uuid)
      continue;
    if (ticket.state == Ticket_State::sending)
      return false;
    open = open || !ticket.settled;
  }
  return !open || now >= std::max(decided_at_ + limits_.hold_msec, resume_until_);
}

bool Cluster_Round::may_go_out(const Ticket& ticket) const
{
  return ticket.state == Ticket_State::ready && (ticket.host_uuid == choice_.host_uuid || !others_wait());
}

std::vector<Cluster_Round::Announcement> Cluster_Round::take_announcements(Host_View& view, int64_t now)
{
  std::vector<Announcement> due;
  if (!decided_)
    return due;
  for (unsigned i = 0; i < tickets_.size(); ++i) {
    Ticket& ticket = tickets_[i];
    if (!may_go_out(ticket) || now >= ticket.replied_at + limits_.announce_msec ||
        !view.connected(ticket.host_uuid))
      continue;
    ticket.state = Ticket_State::sending;
    ticket.may_know = true;
    due.push_back(Announcement{i, ticket.host_uuid, announcement_params()});
  }
  return due;
}

void Cluster_Round::settle(Ticket& ticket, bool delivered, const std::string& problem)
{
  ticket.state = Ticket_State::done;
  ticket.settled = true;
  ticket.delivered = delivered;
  ticket.problem = problem;
  ++version_;
}

bool Cluster_Round::announced(Host_View& view, unsigned ticket, Agent_Call call, const std::string& problem)
{
  Ticket& told = tickets_.at(ticket);
  if (told.state != Ticket_State::sending)
    return true;
  if (call == Agent_Call::offline) {
    told.state = Ticket_State::ready;
    told.may_know = false;
    ++version_;
    return false;
  }
  settle(told, call == Agent_Call::answered, problem);
  if (told.host_uuid != choice_.host_uuid || chosen_told_)
    return true;
  if (call == Agent_Call::refused)
    choose_without_chosen(view, "its agent refused the announcement: " + problem);
  else
    chosen_told_ = true;
  return true;
}

std::vector<std::string> Cluster_Round::give_up(Host_View& view, int64_t now)
{
  std::vector<std::string> in_vain;
  if (chosen_is_gone(now)) {
    decided_at_ = now;
    resume_until_ = 0;
    choose_without_chosen(view, "its agent could not be told in time");
  }
  for (Ticket& ticket : tickets_) {
    const bool replied_long_ago =
        ticket.state == Ticket_State::ready && now >= ticket.replied_at + limits_.announce_msec;
    const bool never_replied =
        ticket.state == Ticket_State::waiting && now >= ticket.made_at + REPLY_LIMIT_MSEC;
    if (!replied_long_ago && !never_replied)
      continue;
    settle(ticket, false,
           never_replied ? "its request was not answered" : "its agent was not connected in time to be told");
    in_vain.push_back(view.name(ticket.host_uuid));
  }
  return in_vain;
}

bool Cluster_Round::finished(int64_t now) const
{
  if (!decided_ || (!closed_ && now < window_end_) ||
      (!closed_ && choice_.success && now < decided_at_ + limits_.late_msec))
    return false;
  // A request that comes again must find its ticket.
  return std::all_of(tickets_.begin(), tickets_.end(), [&](const Ticket& ticket) {
    return ticket.settled && (ticket.request_id.empty() || now >= ticket.made_at + limits_.repeat_msec);
  });
}

json_spirit::Object Cluster_Round::explanation(Host_View& view) const
{
  json_spirit::Array nodes;
  for (const Node_Candidate& node : candidates(view)) {
    json_spirit::Object entry;
    entry.emplace_back("host_uuid", node.host_uuid);
    entry.emplace_back("host", node.host_name);
    entry.emplace_back("connected", decided_ ? node.connected : view.connected(node.host_uuid));
    entry.emplace_back("asked", node.asked);
    entry.emplace_back("answered", node.answered);
    if (node.answered) {
      entry.emplace_back("node_id", node.node_id);
      entry.emplace_back("is_master", node.is_master);
      entry.emplace_back("online", node.online);
    }
    entry.emplace_back("problem", decided_ ? node.problem : std::string());
    entry.emplace_back("running_jobs", node.running_jobs);
    entry.emplace_back("last_chosen", node.last_chosen);
    nodes.push_back(std::move(entry));
  }
  json_spirit::Array announcements;
  for (const Ticket& ticket : tickets_) {
    json_spirit::Object entry;
    entry.emplace_back("host_uuid", ticket.host_uuid);
    entry.emplace_back("host", view.name(ticket.host_uuid));
    entry.emplace_back("delivered", ticket.delivered);
    entry.emplace_back("problem", ticket.problem);
    announcements.push_back(std::move(entry));
  }
  json_spirit::Object whole;
  whole.emplace_back("definition_uuid", first_.definition_uuid);
  whole.emplace_back("name", job_.name);
  whole.emplace_back("kind", kind_text(job_.kind));
  whole.emplace_back("instance", job_.instance);
  whole.emplace_back("select_master", select_master_);
  whole.emplace_back("selection_time", selection_time_);
  whole.emplace_back("state", !decided_         ? "open"
                              : interrupted_    ? "interrupted"
                              : choice_.success ? "success"
                                                : "failed");
  whole.emplace_back("node_id", choice_.node_id);
  whole.emplace_back("host_uuid", choice_.host_uuid);
  whole.emplace_back("host", choice_.success ? view.name(choice_.host_uuid) : std::string());
  whole.emplace_back("reason", decided_ ? choice_.reason : std::string());
  whole.emplace_back("resumed", resumed_);
  whole.emplace_back("candidates", std::move(nodes));
  whole.emplace_back("announcements", std::move(announcements));
  return whole;
}
} // namespace kestrel
