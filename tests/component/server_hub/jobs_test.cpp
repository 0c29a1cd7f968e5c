#include "server_fixture.h"

#include "base/clock.h"

#include <algorithm>
#include <atomic>

using namespace kestrel_test;

namespace
{
class Served_Jobs : public Server_Fixture
{
protected:
  std::string job_path(const std::string& id, const std::string& further = "")
  {
    return "/k2/r/jobs/" + id + further;
  }
  json_spirit::Object job(const std::string& id) { return ask("GET", job_path(id)).get_obj(); }
  json_spirit::Object state(const std::string& id, size_t agent_index)
  {
    const json_spirit::Object entry = job(id);
    const json_spirit::Object& states = json_spirit::find_value(entry, "states").get_obj();
    const json_spirit::Value& told = json_spirit::find_value(states, agent_uuid(agent_index));
    return told.type() == json_spirit::obj_type ? told.get_obj() : json_spirit::Object();
  }
  bool has(size_t agent_index, const std::string& id)
  {
    const std::vector<std::string> ids = agent(agent_index).definitions();
    return std::find(ids.begin(), ids.end(), id) != ids.end();
  }
  std::string run_record(const std::string& run, const std::string& further = "")
  {
    const std::string now = std::to_string(kestrel::clock().now());
    return R"({"run_id":")" + run + R"(","definition_id":"d","revision":1,"name":"n","trigger":"console",)" +
           R"("state":"completed","queued_at":)" + now + R"(,"ended_at":)" + now + further + "}";
  }
};
} // namespace

TEST_F(Served_Jobs, a_definition_reaches_its_hosts_and_those_that_come_later)
{
  add_connected_agents(1);
  add_agent("db2");
  const std::string id = define();
  EXPECT_TRUE(eventually([&] { return has(0, id); }));
  EXPECT_FALSE(json_spirit::find_value(state(id, 1), "synced") == json_spirit::Value(true));
  connect(agent(1));
  EXPECT_TRUE(eventually([&] { return has(1, id); }));
  EXPECT_TRUE(eventually([&] {
    return json_spirit::find_value(state(id, 1), "synced") == json_spirit::Value(true) &&
           member_text(state(id, 1), "state") == "idle";
  }));
}

TEST_F(Served_Jobs, hosts_that_a_definition_leaves_are_told_too)
{
  add_connected_agents(2);
  const std::string id = define();
  EXPECT_TRUE(eventually([&] { return has(0, id) && has(1, id); }));
  EXPECT_EQ(status_of(ask("PUT", job_path(id), R"({"hosts":["db2"]})")), 0);
  EXPECT_TRUE(eventually([&] { return !has(0, id) && has(1, id); }));
  EXPECT_EQ(member_number(job(id), "revision"), 2);
  EXPECT_EQ(status_of(ask("DELETE", job_path(id))), 0);
  EXPECT_TRUE(eventually([&] { return !has(1, id); }));
  EXPECT_EQ(status_of(ask("GET", job_path(id))), 404);
  EXPECT_EQ(status_of(ask("DELETE", job_path(id))), 404);
}

TEST_F(Served_Jobs, what_an_agent_refuses_is_shown)
{
  add_agent("db1");
  agent(0).on("job.sync", [](const json_spirit::Value& params, json_spirit::Value& result, auto&) {
    const json_spirit::Array& sent = json_spirit::find_value(params.get_obj(), "definitions").get_array();
    json_spirit::Array refused;
    for (const json_spirit::Value& definition : sent)
      refused.push_back(json_spirit::Object{{"id", member_text(definition.get_obj(), "id")},
                                            {"reason", "source: no such instance"}});
    result = json_spirit::Object{{"refused", refused}};
    return true;
  });
  connect(agent(0));
  const std::string id = define();
  EXPECT_TRUE(eventually([&] { return member_text(state(id, 0), "refused") == "source: no such instance"; }));
}

TEST_F(Served_Jobs, an_agent_that_fails_to_take_its_definitions_is_sent_them_again)
{
  log_.allow(LM_WARNING, "did not take its job definitions");
  add_agent("db1");
  std::atomic<int> tries{0};
  agent(0).on("job.sync", [&](const json_spirit::Value&, json_spirit::Value& result, auto& error) {
    error.message = "busy";
    result = json(R"({"refused":[]})");
    return ++tries > 1;
  });
  connect(agent(0));
  EXPECT_TRUE(eventually([&] { return tries > 1; }));
}

TEST_F(Served_Jobs, definitions_are_durable_and_checked)
{
  add_connected_agents(1);
  const std::string id = define(R"(,"backup_protection_password":"secret-word")");
  EXPECT_EQ(status_of(ask("POST", "/k2/r/jobs",
                          R"({"id":")" + id + R"(","hosts":["db1"],"document":)" +
                              kestrel::write_json(json_spirit::find_value(job(id), "document")) + "}")),
            409);
  stop();
  start();
  console_.reset();
  const json_spirit::Object kept = job(id);
  EXPECT_EQ(member_text(kept, "changed_by"), "ada");
  EXPECT_EQ(kestrel::write_json(kept).find("secret-word"), std::string::npos);
  for (const char* body :
       {"{}", "[]", R"({"document":{},"hosts":["db1"]})", R"({"document":{"type":"backup"},"hosts":[]})",
        R"({"id":"no uuid","document":{},"hosts":["db1"]})"})
    EXPECT_EQ(status_of(ask("POST", "/k2/r/jobs", body)), 400) << body;
  EXPECT_EQ(status_of(ask("PUT", job_path(id), R"({"hosts":["nobody"]})")), 400);
  EXPECT_EQ(status_of(ask("PUT", job_path(id), R"({"hosts":[]})")), 400);
  EXPECT_EQ(status_of(ask("PUT", job_path(id), R"({"document":{"type":"backup"}})")), 400);
  EXPECT_EQ(status_of(ask("PUT", job_path(id), R"({"revision":9,"enabled":false})")), 409);
  EXPECT_EQ(status_of(ask("PUT", job_path(id), R"({"revision":1,"enabled":false})")), 0);
  EXPECT_EQ(status_of(ask("PUT", job_path("77777777-2222-4333-8444-555555555555"), "{}")), 404);
  EXPECT_EQ(status_of(ask(agent(0).rest(), "GET", "/k2/r/jobs")), 403);
  EXPECT_EQ(list_of(ask("GET", "/k2/r/jobs"), "jobs").size(), 1u);
}

TEST_F(Served_Jobs, a_run_is_asked_of_every_host_or_of_those_picked)
{
  add_connected_agents(2);
  add_agent("db3");
  const std::string id = define();
  const json_spirit::Value all =
      ask("POST", job_path(id, "/control"), R"({"action":"run","run":{"options":{}}})");
  const json_spirit::Array& results = list_of(all, "results");
  ASSERT_EQ(results.size(), 3u);
  EXPECT_EQ(member_text(results[0].get_obj(), "host"), agent_uuid(0));
  EXPECT_EQ(member_text(results[0].get_obj(), "run_id").size(), 36u);
  EXPECT_EQ(member_text(results[1].get_obj(), "run_id").size(), 36u);
  EXPECT_TRUE(has(0, id)) << "it has the definition before it is asked";
  EXPECT_EQ(kestrel::write_json(json_spirit::find_value(results[2].get_obj(), "error")),
            R"({"code":3,"message":"Its agent is not connected."})");
  const json_spirit::Value picked =
      ask("POST", job_path(id, "/control"), R"({"action":"cancel","hosts":["db2"]})");
  ASSERT_EQ(list_of(picked, "results").size(), 1u);
  EXPECT_EQ(member_text(list_of(picked, "results")[0].get_obj(), "host"), agent_uuid(1));
  for (const char* body : {R"({"action":"explode"})", "{}", R"({"action":"run","hosts":["nobody"]})",
                           R"({"action":"enable","hosts":["db1"]})"})
    EXPECT_EQ(status_of(ask("POST", job_path(id, "/control"), body)), 400) << body;
  EXPECT_EQ(status_of(ask("POST", job_path("no", "/control"), R"({"action":"run"})")), 404);
}

TEST_F(Served_Jobs, a_job_is_disabled_and_enabled_durably_and_its_hosts_hear_of_it)
{
  add_agent("db1");
  std::atomic<int> enabled{-1};
  agent(0).on("job.sync", [&](const json_spirit::Value& params, json_spirit::Value& result, auto&) {
    const json_spirit::Array& sent = json_spirit::find_value(params.get_obj(), "definitions").get_array();
    if (!sent.empty())
      enabled = kestrel::required<bool>(sent[0].get_obj(), "enabled");
    result = json(R"({"refused":[]})");
    return true;
  });
  connect(agent(0));
  const std::string id = define();
  EXPECT_TRUE(eventually([&] { return enabled == 1; }));
  EXPECT_EQ(list_of(ask("POST", job_path(id, "/control"), R"({"action":"disable"})"), "results").size(), 1u);
  EXPECT_TRUE(eventually([&] { return enabled == 0; }));
  EXPECT_EQ(member_number(job(id), "revision"), 2);
  ask("POST", job_path(id, "/control"), R"({"action":"disable"})");
  EXPECT_EQ(member_number(job(id), "revision"), 2) << "nothing changed";
  ask("POST", job_path(id, "/control"), R"({"action":"enable"})");
  EXPECT_TRUE(eventually([&] { return enabled == 1; }));
}

TEST_F(Served_Jobs, a_run_asked_for_begins_a_new_choice_of_a_node)
{
  add_connected_agents(1);
  const std::string id = define();
  const int64_t first = request(agent(0), id);
  EXPECT_EQ(request(agent(0), id), first);
  ask("POST", job_path(id, "/control"), R"({"action":"run"})");
  EXPECT_GT(request(agent(0), id), first);
  EXPECT_TRUE(agent(0).await_announcements(3));
}

TEST_F(Served_Jobs, the_state_of_a_run_is_shown_while_it_is_under_way)
{
  add_connected_agents(1);
  const std::string id = define();
  EXPECT_TRUE(eventually([&] { return member_text(state(id, 0), "state") == "idle"; }));
  ASSERT_TRUE(agent(0).tell_state(id, "run-1", "running"));
  const auto now = [&] {
    const json_spirit::Object told = state(id, 0);
    const json_spirit::Value& value = json_spirit::find_value(told, "now");
    return value.type() == json_spirit::obj_type ? member_text(value.get_obj(), "state") : "";
  };
  EXPECT_TRUE(eventually([&] { return now() == "running"; }));
  EXPECT_EQ(member_text(ask("GET", "/k2/r/runs/run-1").get_obj(), "state"), "running");
  EXPECT_EQ(status_of(ask("GET", "/k2/r/runs/run-2")), 404);
}

TEST_F(Served_Jobs, runs_are_stored_once_kept_and_listed)
{
  add_connected_agents(2);
  const std::string id = define();
  std::vector<std::string> stored;
  kestrel::REST_Problem problem;
  const json_spirit::Array records =
      json("[" + run_record("r1") + "," + run_record("r2") + ",7]").get_array();
  for (int times = 0; times < 2; ++times) {
    ASSERT_TRUE(agent(0).report_runs(records, stored, problem)) << problem.text;
    EXPECT_EQ(stored, (std::vector<std::string>{"r1", "r2"}));
  }
  ASSERT_TRUE(agent(1).report_runs(records, stored, problem)) << problem.text;
  EXPECT_TRUE(stored.empty()) << "they are another host's";
  ask("DELETE", job_path(id));
  stop();
  start();
  console_.reset();
  EXPECT_EQ(list_of(ask("GET", "/k2/r/runs"), "runs").size(), 2u);
  EXPECT_EQ(list_of(ask("GET", "/k2/r/runs?host=db1&state=completed&limit=1"), "runs").size(), 1u);
  EXPECT_EQ(list_of(ask("GET", "/k2/r/runs?host=db2"), "runs").size(), 0u);
  EXPECT_EQ(list_of(ask("GET", "/k2/r/jobs/d/runs"), "runs").size(), 2u)
      << "of a job that is not defined any more";
  EXPECT_EQ(status_of(ask("GET", "/k2/r/jobs/e/runs")), 404);
  EXPECT_EQ(member_text(ask("GET", "/k2/r/runs/r1").get_obj(), "host_uuid"), agent_uuid(0));
  EXPECT_EQ(status_of(ask("GET", "/k2/r/runs?limit=0")), 400);
  EXPECT_EQ(status_of(ask("GET", "/k2/r/runs?host=nobody")), 404);
  EXPECT_EQ(status_of(ask("POST", "/k2/r/runs", R"({"runs":[]})")), 403) << "users do not report runs";
  EXPECT_EQ(status_of(ask(agent(0).rest(), "POST", "/k2/r/runs", R"({"runs":7})")), 400);
}

TEST_F(Served_Jobs, the_log_of_a_run_is_fetched_from_its_host)
{
  add_agent("db1");
  std::string asked;
  agent(0).on("job.log", [&](const json_spirit::Value& params, json_spirit::Value& result, auto& error) {
    asked = kestrel::write_json(params);
    error.code = -32001;
    error.message = "no such run";
    result = json(R"({"text":"line\n","next_offset":12,"ended":true})");
    return member_text(params.get_obj(), "run_id") == "r1";
  });
  connect(agent(0));
  std::vector<std::string> stored;
  kestrel::REST_Problem problem;
  ASSERT_TRUE(agent(0).report_runs(json("[" + run_record("r1") + "," + run_record("r2") + "]").get_array(),
                                   stored, problem))
      << problem.text;
  EXPECT_EQ(kestrel::write_json(ask("GET", "/k2/r/runs/r1/log?offset=7&limit=100")),
            R"({"text":"line\n","next_offset":12,"ended":true})");
  EXPECT_EQ(asked, R"({"run_id":"r1","offset":7,"limit":100})");
  EXPECT_EQ(status_of(ask("GET", "/k2/r/runs/r2/log")), 404);
  EXPECT_EQ(status_of(ask("GET", "/k2/r/runs/r3/log")), 404);
  EXPECT_EQ(status_of(ask("GET", "/k2/r/runs/r1/log?offset=-1")), 400);
  agent(0).disconnect();
  EXPECT_TRUE(eventually([&] { return !is_online("db1"); }));
  EXPECT_EQ(status_of(ask("GET", "/k2/r/runs/r1/log")), 503);
}
