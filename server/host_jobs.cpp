#include "server/host_jobs.h"

#include "jobs/job_types.h"
#include "json/json_util.h"

namespace kestrel
{
namespace
{
constexpr size_t ITEM_BYTES = 4096;

std::string text_of(const json_spirit::Object& object, const char* key)
{
  const json_spirit::Value& value = json_spirit::find_value(object, key);
  return value.type() == json_spirit::str_type ? value.get_str().substr(0, ITEM_BYTES) : std::string();
}

void copy_number(const json_spirit::Object& from, const char* key, json_spirit::Object& to)
{
  const json_spirit::Value& value = json_spirit::find_value(from, key);
  if (value.type() == json_spirit::int_type || value.type() == json_spirit::real_type)
    to.emplace_back(key, value);
}
} // namespace

bool run_under_way(const std::string& state)
{
  Job_State known = JOB_STATE_NONE;
  return state == "queued" || (job_state_from_text(state, known) && job_run_in_progress(known));
}

void Host_Jobs::greeted(const json_spirit::Array& jobs)
{
  jobs_.clear();
  running_.clear();
  listed(jobs);
  for (const auto& [id, job] : jobs_) {
    const json_spirit::Value& running = json_spirit::find_value(job.listed, "running");
    if (running.type() == json_spirit::bool_type && running.get_bool())
      running_.insert(id);
  }
}

void Host_Jobs::listed(const json_spirit::Array& jobs)
{
  std::map<std::string, Job> fresh;
  for (const json_spirit::Value& entry : jobs) {
    if (entry.type() != json_spirit::obj_type || fresh.size() >= JOB_LIMIT)
      continue;
    const json_spirit::Object& job = entry.get_obj();
    const std::string id = text_of(job, "id");
    if (id.empty())
      continue;
    fresh[id].listed = job;
    const auto known = jobs_.find(id);
    if (known != jobs_.end())
      fresh[id].now = known->second.now;
  }
  jobs_ = std::move(fresh);
}

bool Host_Jobs::changed(const json_spirit::Object& state)
{
  const std::string id = text_of(state, "id");
  const std::string run = text_of(state, "run_id");
  const std::string word = text_of(state, "state");
  if (id.empty() || word.empty() || (jobs_.size() >= JOB_LIMIT && jobs_.count(id) == 0))
    return false;
  json_spirit::Object now;
  now.emplace_back("run_id", run);
  now.emplace_back("state", word);
  for (const char* key : {"progress", "done_bytes", "total_bytes", "time"})
    copy_number(state, key, now);
  now.emplace_back("item", text_of(state, "item"));
  jobs_[id].now = std::move(now);
  if (!run_under_way(word))
    running_.erase(id);
  else if (running_.size() < JOB_LIMIT)
    running_.insert(id);
  return true;
}

unsigned Host_Jobs::running_but(const std::string& definition_uuid) const
{
  return static_cast<unsigned>(running_.size() - running_.count(definition_uuid));
}

bool Host_Jobs::find_run(const std::string& run_id, std::string& definition_uuid, std::string& state) const
{
  for (const auto& [id, job] : jobs_) {
    const bool told = text_of(job.now, "run_id") == run_id;
    if (!told && text_of(job.listed, "run_id") != run_id)
      continue;
    definition_uuid = id;
    state = text_of(told ? job.now : job.listed, "state");
    return true;
  }
  return false;
}

json_spirit::Value Host_Jobs::job(const std::string& definition_uuid) const
{
  const auto found = jobs_.find(definition_uuid);
  if (found == jobs_.end())
    return json_spirit::Value();
  json_spirit::Object told = found->second.listed;
  if (!found->second.now.empty())
    set_value(told, "now", found->second.now);
  return told;
}
} // namespace kestrel
