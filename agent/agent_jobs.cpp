#include "agent/agent_jobs.h"

#include "agent/module_table.h"
#include "json/json_util.h"

namespace kestrel
{
struct Agent_Jobs::State {
  Module_Table& modules;
  Settings settings;
};

Agent_Jobs::Agent_Jobs(Module_Table& modules, Settings settings)
    : state_(new State{modules, std::move(settings)})
{
}

Agent_Jobs::~Agent_Jobs() = default;

bool Agent_Jobs::open(std::string&)
{
  return true;
}

bool Agent_Jobs::start(std::string&)
{
  return true;
}

bool Agent_Jobs::stop(unsigned, bool)
{
  return true;
}

bool Agent_Jobs::sync(const json_spirit::Array&, json_spirit::Array&, Jobs_Error& error)
{
  error = Jobs_Error{Jobs_Error::internal, "this agent runs no jobs yet"};
  return false;
}

bool Agent_Jobs::sync_directory(const std::string&, json_spirit::Array& refused, Jobs_Error&)
{
  refused.clear();
  return true;
}

bool Agent_Jobs::control(const std::string& id, const std::string&, const json_spirit::Object&, std::string&,
                         Jobs_Error& error)
{
  error = Jobs_Error{Jobs_Error::unknown_id, "there is no job " + id};
  return false;
}

json_spirit::Array Agent_Jobs::list() const
{
  return json_spirit::Array();
}

bool Agent_Jobs::log(const std::string& run_id, uint64_t, uint64_t, json_spirit::Object&,
                     Jobs_Error& error) const
{
  error = Jobs_Error{Jobs_Error::unknown_id, "there is no run " + run_id};
  return false;
}

bool Agent_Jobs::history(const std::string&, unsigned, json_spirit::Array& runs, Jobs_Error&) const
{
  runs.clear();
  return true;
}

json_spirit::Array Agent_Jobs::unsent_runs(unsigned) const
{
  return json_spirit::Array();
}

bool Agent_Jobs::mark_sent(const std::vector<std::string>&, Jobs_Error&)
{
  return true;
}

Agent_Jobs::Counts Agent_Jobs::counts() const
{
  return Counts();
}

void Agent_Jobs::set_listener(std::function<void(const Job_Notice&)>) {}

void Agent_Jobs::set_history_listener(std::function<void()>) {}
} // namespace kestrel
