#include "served_agent.h"

#include "jobs/job_definition_loader.h"
#include "remote/upstream.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

namespace kestrel_test
{
using namespace kestrel;

Served_Agent::Served_Agent(const Enrollment& enrollment) : enrollment_(enrollment)
{
  agent.settings.host_uuid = enrollment.host_uuid;
}

Served_Agent::~Served_Agent()
{
  disconnect();
}

void Served_Agent::disconnect()
{
  if (disconnected_)
    return;
  disconnected_ = true;
  if (agent.jobs) {
    EXPECT_TRUE(agent.jobs->stop(0, true));
    agent.jobs->set_listener(nullptr);
    agent.jobs->set_history_listener(nullptr);
  }
  link_.reset();
  unregister_upstream();
  instances_.stop();
  EXPECT_TRUE(dispatcher_.stop());
  network_.stop();
}

void Served_Agent::connect()
{
  std::string error;
  Upstream_Options upstream;
  upstream.url = enrollment_.url;
  upstream.ca_pem = enrollment_.ca_pem;
  upstream.access_key = enrollment_.credential();
  ASSERT_TRUE(register_upstream(upstream, error)) << error;
  REST_Client_Options rest;
  rest.url = upstream.url;
  rest.ca_pem = upstream.ca_pem;
  rest.access_key = upstream.access_key;
  rest_ = std::make_unique<REST_Client>(rest);

  agent.open();
  Agent_Services::Identity identity;
  identity.host_uuid = enrollment_.host_uuid;
  identity.name = enrollment_.name;
  services_ = std::make_unique<Agent_Services>(identity, *agent.jobs, instances_);
  ASSERT_TRUE(services_->bind(dispatcher_, agent.modules.rpc_handlers(), error)) << error;
  ASSERT_TRUE(dispatcher_.start_with_defaults());
  ASSERT_TRUE(network_.start());
  Server_Link::Settings settings;
  settings.url = enrollment_.url;
  settings.access = enrollment_.credential();
  settings.tls.ca_pem = enrollment_.ca_pem;
  link_ = std::make_unique<Server_Link>(settings, link_host(), dispatcher_, network_, nullptr);
  agent.jobs->set_listener([this](const Job_Notice& notice) { link_->job_changed(notice); });
  agent.jobs->set_history_listener([this] { link_->runs_changed(); });
  instances_.start();
  link_->start();
  agent.start();
}

Link_Host Served_Agent::link_host()
{
  Link_Host host;
  host.hello = [this] { return services_->hello(); };
  host.unsent_runs = [this](unsigned limit) { return agent.jobs->unsent_runs(limit); };
  host.post_runs = [this](const json_spirit::Array& records, Report_Answer& answer) {
    json_spirit::Object runs;
    runs.emplace_back("runs", records);
    json_spirit::Value reply;
    REST_Problem problem;
    return rest_->post("/k2/r/runs", runs, reply, problem) ? read_report_answer(reply, answer)
                                                           : read_report_failure(problem, answer);
  };
  host.acknowledge = [this](const std::vector<std::string>& run_ids) {
    Jobs_Error error;
    return agent.jobs->mark_sent(run_ids, error);
  };
  host.refuse = [](const std::vector<Refused_Run>& runs) {
    ADD_FAILURE() << "the server refuses a record: " << runs.at(0).reason;
    return false;
  };
  return host;
}

json_spirit::Object Served_Agent::document(Job_Definition_Fields fields, unsigned number,
                                           const std::string& pool_id) const
{
  fields.id = Agent_Bench::id(number);
  fields.name = "job " + std::to_string(number);
  fields.target = Job_Target(pool_id);
  std::string text, error;
  EXPECT_TRUE(Job_Definition_Loader::generate(Job_Definition(fields), text, error)) << error;
  json_spirit::Value value;
  EXPECT_TRUE(read_json(text, value, error)) << error;
  return value.get_obj();
}
} // namespace kestrel_test
