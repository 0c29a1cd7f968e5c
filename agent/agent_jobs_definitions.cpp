// What becomes of the definitions of an agent's jobs.

#include "agent/agent_jobs_state.h"

#include "agent/module_table.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

#include <utility>

namespace kestrel
{
json_spirit::Object refused_definition(const std::string& id, const std::string& reason)
{
  json_spirit::Object object;
  set_value(object, "id", id);
  set_value(object, "reason", reason);
  return object;
}

void Agent_Jobs::State::replace(Known_Job& job, Known_Job other, time_t now)
{
  Definition_Change change = change_of(job, other);
  job.replace(std::move(other));
  if (change.changed || change.told_enabled)
    hooks.add(std::move(change));
  adopt(job, now);
}

bool Agent_Jobs::State::add_untold(std::string& error)
{
  std::vector<Job_Store::Told> told;
  if (!store.load_told(told, error))
    return false;
  std::map<std::string, Known_Job> former;
  for (const Job_Store::Told& one : told)
    former[one.id].stored = Stored_Definition{one.id, 0, one.enabled, "", one.document, 0};
  for (auto& [id, heard] : former) {
    const auto found = jobs.find(id);
    if (found != jobs.end() && heard.stored.document == found->second.stored.document &&
        heard.stored.enabled == found->second.stored.enabled)
      continue;
    read_definition(modules.loader(), settings.host_uuid, heard);
    hooks.add(found == jobs.end() ? removal_of(heard) : change_of(heard, found->second));
  }
  for (const auto& [id, job] : jobs)
    if (!former.count(id))
      hooks.add(change_of(Known_Job(), job));
  return true;
}

void Agent_Jobs::State::keep_told()
{
  const std::lock_guard<std::mutex> guard(told_mutex);
  for (Job_Store::Told& one : hooks.take_told())
    unstored_told[one.id] = std::move(one);
  if (unstored_told.empty())
    return;
  std::vector<Job_Store::Told> told;
  for (const auto& each : unstored_told)
    told.push_back(each.second);
  std::string error;
  const bool kept = store.set_told(told, error);
  if (kept)
    unstored_told.clear();
  else if (!told_waits)
    ACE_ERROR((LM_ERROR, "(%P|%t) Agent_Jobs: what modules were told waits to be stored: %C\n", error.c_str()));
  told_waits = !kept;
}

void Agent_Jobs::State::forget(const std::string& id)
{
  const auto found = jobs.find(id);
  if (found == jobs.end())
    return;
  scheduler.remove(id);
  hooks.add(removal_of(found->second));
  jobs.erase(found);
}

void Agent_Jobs::State::settle_pending()
{
  for (auto place = pending.begin(); place != pending.end();) {
    Job_Runner::Status status;
    if (runner.status(*place, status)) {
      ++place;
      continue;
    }
    const std::string id = *place;
    place = pending.erase(place);
    const auto found = jobs.find(id);
    if (found == jobs.end())
      continue;
    if (found->second.removed) {
      forget(id);
    } else if (found->second.next) {
      Known_Job next = std::move(*found->second.next);
      replace(found->second, std::move(next), scheduler.looked_until());
    }
  }
}

/// Those of the offers that are news; `present` gets the ids of all that may stand here.
std::map<std::string, Known_Job>
Agent_Jobs::State::read_offers_that_changed(std::vector<Definition_Offer> offers, const std::string& origin,
                                            time_t now, std::set<std::string>& present,
                                            json_spirit::Array& refused) const
{
  std::map<std::string, Known_Job> changed;
  for (Definition_Offer& offer : offers) {
    const auto known = jobs.find(offer.id);
    if (known != jobs.end() && known->second.stored.origin != origin) {
      refused.push_back(
          refused_definition(offer.id, "a definition from " + known->second.stored.origin + " has this id"));
      continue;
    }
    if (!present.insert(offer.id).second) {
      refused.push_back(refused_definition(offer.id, "the id stands there twice"));
      continue;
    }
    Known_Job job;
    job.stored = Stored_Definition{offer.id, offer.revision, offer.enabled, origin, offer.document, now};
    if (known != jobs.end() && known->second.is(job.stored)) {
      if (!known->second.refused.empty())
        refused.push_back(refused_definition(offer.id, known->second.refused));
      continue;
    }
    read_definition(modules.loader(), settings.host_uuid, job);
    if (!job.refused.empty())
      refused.push_back(refused_definition(offer.id, job.refused));
    changed[offer.id] = std::move(job);
  }
  return changed;
}

/// What is stored already; the definitions of runs under way follow when these have ended.
void Agent_Jobs::State::take_over(std::map<std::string, Known_Job> changed,
                                  const std::vector<std::string>& removed, time_t now)
{
  for (auto& each : changed) {
    Known_Job& job = jobs[each.first];
    Job_Runner::Status status;
    if (runner.status(each.first, status)) {
      job.postpone(std::move(each.second));
      pending.insert(each.first);
    } else {
      replace(job, std::move(each.second), now);
    }
  }
  for (const std::string& id : removed) {
    Job_Runner::Status status;
    if (runner.status(id, status)) {
      jobs[id].removed = true;
      pending.insert(id);
      scheduler.remove(id);
    } else {
      forget(id);
    }
  }
  wake.notify_all();
}

bool Agent_Jobs::State::apply(std::vector<Definition_Offer> offers, const std::string& origin,
                              const Kept_Definitions& kept, json_spirit::Array& refused, Jobs_Error& error)
{
  if (!opened || stopping) {
    error = Jobs_Error{Jobs_Error::busy, "the agent is stopping"};
    return false;
  }
  settle_pending();
  // What is due by the definitions so far is due.
  take_due();
  const time_t now = scheduler.looked_until();
  std::set<std::string> present;
  std::map<std::string, Known_Job> changed =
      read_offers_that_changed(std::move(offers), origin, now, present, refused);
  std::vector<Stored_Definition> stored;
  std::vector<std::string> removed;
  for (const auto& each : changed)
    stored.push_back(each.second.stored);
  for (const auto& each : jobs)
    if (each.second.stored.origin == origin && !present.count(each.first) && !kept.all &&
        !kept.ids.count(each.first))
      removed.push_back(each.first);
  std::string problem;
  if ((!stored.empty() || !removed.empty()) && !store.change(stored, removed, problem)) {
    error = Jobs_Error{Jobs_Error::internal, problem};
    return false;
  }
  take_over(std::move(changed), removed, now);
  return true;
}

bool Agent_Jobs::State::apply_offers(std::vector<Definition_Offer> offers, const std::string& origin,
                                     const Kept_Definitions& kept, json_spirit::Array& refused,
                                     Jobs_Error& error)
{
  std::unique_lock<std::mutex> lock(mutex);
  const uint64_t since = hooks.added();
  const bool applied = apply(std::move(offers), origin, kept, refused, error);
  call_modules(lock, since);
  return applied;
}
} // namespace kestrel
