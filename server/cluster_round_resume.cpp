#include "server/cluster_round.h"

#include "json/json_util.h"

#include <algorithm>
#include <stdexcept>

namespace kestrel
{
namespace
{
/// How long agents may take to come back: their first dials are one and two seconds apart.
constexpr int64_t COME_BACK_MSEC = 8000;
/// What the announcements need of the time that the agents wait.
constexpr int64_t ANNOUNCING_MSEC = 3000;
constexpr int64_t LEAST_WINDOW_MSEC = 1000;

json_spirit::Object kept_job(const Cluster_Job& job)
{
  json_spirit::Object kept;
  kept.emplace_back("kind", static_cast<int>(job.kind));
  kept.emplace_back("defined", job.defined);
  kept.emplace_back("hosts", json_spirit::Array(job.hosts.begin(), job.hosts.end()));
  kept.emplace_back("name", job.name);
  kept.emplace_back("instance", job.instance);
  kept.emplace_back("virtual_address", job.virtual_address);
  return kept;
}

Cluster_Job job_of(const json_spirit::Object& kept)
{
  Cluster_Job job;
  const int kind = required<int>(kept, "kind");
  if (kind < static_cast<int>(Cluster_Job::Kind::unknown) ||
      kind > static_cast<int>(Cluster_Job::Kind::restore))
    throw std::runtime_error("the kind of the job is none");
  job.kind = static_cast<Cluster_Job::Kind>(kind);
  job.defined = required<bool>(kept, "defined");
  for (const json_spirit::Value& host : required<json_spirit::Array>(kept, "hosts"))
    job.hosts.push_back(host.get_str());
  job.name = required<std::string>(kept, "name");
  job.instance = required<std::string>(kept, "instance");
  job.virtual_address = required<std::string>(kept, "virtual_address");
  return job;
}

json_spirit::Object kept_request(const Cluster_Request& request)
{
  json_spirit::Object kept;
  kept.emplace_back("host_uuid", request.host_uuid);
  kept.emplace_back("definition_uuid", request.definition_uuid);
  kept.emplace_back("uid", request.uid);
  kept.emplace_back("instance_uuid", request.instance_uuid);
  kept.emplace_back("select_master", request.select_master);
  return kept;
}

Cluster_Request request_of(const json_spirit::Object& kept)
{
  Cluster_Request request;
  request.host_uuid = required<std::string>(kept, "host_uuid");
  request.definition_uuid = required<std::string>(kept, "definition_uuid");
  request.uid = required<std::string>(kept, "uid");
  request.instance_uuid = required<std::string>(kept, "instance_uuid");
  request.select_master = required<bool>(kept, "select_master");
  return request;
}
} // namespace

json_spirit::Object Cluster_Round::kept_candidate(const Candidate& candidate) const
{
  json_spirit::Object kept;
  kept.emplace_back("host_uuid", candidate.host_uuid);
  kept.emplace_back("asked", candidate.asked);
  kept.emplace_back("excluded", candidate.excluded);
  kept.emplace_back("answered", candidate.question == Question::done);
  kept.emplace_back("problem", candidate.state.problem);
  kept.emplace_back("node_id", candidate.state.node_id);
  kept.emplace_back("is_master", candidate.state.is_master);
  kept.emplace_back("online", candidate.state.online);
  kept.emplace_back("connected", candidate.connected);
  kept.emplace_back("running_jobs", candidate.running_jobs);
  kept.emplace_back("last_chosen", candidate.last_chosen);
  return kept;
}

json_spirit::Object Cluster_Round::kept() const
{
  json_spirit::Array candidates, tickets;
  for (const Candidate& candidate : candidates_)
    candidates.push_back(kept_candidate(candidate));
  for (const Ticket& ticket : tickets_) {
    json_spirit::Object entry;
    entry.emplace_back("host_uuid", ticket.host_uuid);
    entry.emplace_back("request_id", ticket.request_id);
    entry.emplace_back("asked", ticket.asked);
    entry.emplace_back("may_know", ticket.may_know);
    entry.emplace_back("made_at", ticket.made_at);
    entry.emplace_back("replied", ticket.replied);
    entry.emplace_back("replied_at", ticket.replied_at);
    entry.emplace_back("sent", ticket.state == Ticket_State::sending);
    entry.emplace_back("settled", ticket.settled);
    entry.emplace_back("delivered", ticket.delivered);
    entry.emplace_back("lost", ticket.lost);
    entry.emplace_back("problem", ticket.problem);
    tickets.push_back(std::move(entry));
  }
  json_spirit::Object choice;
  choice.emplace_back("success", choice_.success);
  choice.emplace_back("node_id", choice_.node_id);
  choice.emplace_back("host_uuid", choice_.host_uuid);
  choice.emplace_back("reason", choice_.reason);
  json_spirit::Object kept;
  kept.emplace_back("job", kept_job(job_));
  kept.emplace_back("first", kept_request(first_));
  kept.emplace_back("opened_at", opened_at_);
  kept.emplace_back("select_master", select_master_);
  kept.emplace_back("closed", closed_);
  kept.emplace_back("decided", decided_);
  kept.emplace_back("decided_at", decided_at_);
  kept.emplace_back("chosen_told", chosen_told_);
  kept.emplace_back("choice", std::move(choice));
  kept.emplace_back("candidates", std::move(candidates));
  kept.emplace_back("tickets", std::move(tickets));
  return kept;
}

void Cluster_Round::resume_candidate(const json_spirit::Object& kept)
{
  const std::string host_uuid = required<std::string>(kept, "host_uuid");
  Candidate* candidate = find(host_uuid);
  if (!candidate) {
    candidates_.emplace_back();
    candidate = &candidates_.back();
    candidate->host_uuid = host_uuid;
  }
  candidate->asked = required<bool>(kept, "asked");
  candidate->excluded = required<std::string>(kept, "excluded");
  // Before the choice its node is asked again: what it told may have changed.
  if (!decided_ || !required<bool>(kept, "answered"))
    return;
  candidate->question = Question::done;
  candidate->state.problem = required<std::string>(kept, "problem");
  candidate->state.node_id = required<int>(kept, "node_id");
  candidate->state.is_master = required<bool>(kept, "is_master");
  candidate->state.online = required<bool>(kept, "online");
  candidate->connected = required<bool>(kept, "connected");
  candidate->running_jobs = required<unsigned>(kept, "running_jobs");
  candidate->last_chosen = required<int64_t>(kept, "last_chosen");
}

void Cluster_Round::resume_ticket(const json_spirit::Object& kept)
{
  Ticket ticket;
  ticket.host_uuid = required<std::string>(kept, "host_uuid");
  ticket.resumed = true;
  // A server of before these members had no requests that come again.
  optional(kept, "request_id", ticket.request_id);
  optional(kept, "asked", ticket.asked);
  optional(kept, "may_know", ticket.may_know);
  ticket.made_at = required<int64_t>(kept, "made_at");
  ticket.replied = required<bool>(kept, "replied");
  ticket.replied_at = required<int64_t>(kept, "replied_at");
  ticket.lost = required<bool>(kept, "lost");
  if (required<bool>(kept, "settled"))
    settle(ticket, required<bool>(kept, "delivered"), required<std::string>(kept, "problem"));
  else if (required<bool>(kept, "sent")) {
    settle(ticket, false, "the server was restarted while it told its agent, which may have heard");
    // Another choice now could make two of them work.
    chosen_told_ = chosen_told_ || ticket.host_uuid == choice_.host_uuid;
  } else if (ticket.replied)
    ticket.state = Ticket_State::ready;
  else {
    ticket.lost = true;
    settle(ticket, false, "the server was restarted, and whether the request had been answered is not known");
  }
  tickets_.push_back(std::move(ticket));
}

void Cluster_Round::resume_members(const json_spirit::Object& kept, int64_t now)
{
  resumed_ = true;
  select_master_ = required<bool>(kept, "select_master");
  closed_ = required<bool>(kept, "closed");
  decided_ = required<bool>(kept, "decided");
  decided_at_ = required<int64_t>(kept, "decided_at");
  chosen_told_ = required<bool>(kept, "chosen_told");
  const json_spirit::Object choice = required<json_spirit::Object>(kept, "choice");
  choice_.success = required<bool>(choice, "success");
  choice_.node_id = required<int>(choice, "node_id");
  choice_.host_uuid = required<std::string>(choice, "host_uuid");
  choice_.reason = required<std::string>(choice, "reason");
  for (const json_spirit::Value& candidate : required<json_spirit::Array>(kept, "candidates"))
    resume_candidate(candidate.get_obj());
  for (const json_spirit::Value& ticket : required<json_spirit::Array>(kept, "tickets"))
    resume_ticket(ticket.get_obj());
  resume_until_ = now + COME_BACK_MSEC;
  for (const Ticket& ticket : tickets_)
    if (!ticket.settled)
      resume_until_ = std::min(resume_until_, ticket.replied_at + limits_.announce_msec - ANNOUNCING_MSEC);
  if (!decided_)
    window_end_ = std::max({window_end_, resume_until_, now + LEAST_WINDOW_MSEC});
  ++version_;
}

std::unique_ptr<Cluster_Round> Cluster_Round::resume(const Cluster_Limits& limits,
                                                     const json_spirit::Object& kept, int64_t selection_time,
                                                     int64_t number, int64_t now)
{
  const int64_t opened_at = required<int64_t>(kept, "opened_at");
  if (opened_at > now)
    throw std::runtime_error("it was begun in the future");
  std::unique_ptr<Cluster_Round> round(new Cluster_Round(
      limits, job_of(required<json_spirit::Object>(kept, "job")),
      request_of(required<json_spirit::Object>(kept, "first")), selection_time, number, opened_at));
  round->resume_members(kept, now);
  if (round->decided_)
    return round->finished(now) ? nullptr : std::move(round);
  // Requests that the restart kept from coming belong to it, too.
  if (now >= opened_at + limits.window_msec + limits.announce_msec)
    return nullptr;
  return round;
}
} // namespace kestrel
