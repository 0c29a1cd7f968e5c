#include "server_fixture.h"

#include "support/clocks.h"

#include <set>
#include <thread>

using namespace kestrel_test;

namespace
{
class Served_Cluster : public Server_Fixture
{
protected:
  /// Every agent asks, one after the other; the first one's time. A failure is shared within the window only,
  /// which may be over on a busy machine.
  int64_t all_request(const std::string& job, bool select_master = false, bool shared = true)
  {
    std::vector<int64_t> times;
    for (const std::unique_ptr<Simulated_Agent>& agent : agents_)
      times.push_back(request(*agent, job, select_master));
    if (shared) {
      EXPECT_EQ(std::set<int64_t>(times.begin(), times.end()).size(), 1u) << "they share one choice";
    }
    return times.front();
  }
  std::string reason() { return member_text(last_selection(), "reason"); }
};

std::string state_of(const json_spirit::Object& announcement)
{
  return member_text(announcement, "state") + " " +
         std::to_string(kestrel::required<int>(announcement, "node_id"));
}
} // namespace

TEST_F(Served_Cluster, exactly_one_node_is_told_to_work_and_all_hear_of_it)
{
  add_connected_agents(3);
  const std::string job = define();
  const int64_t time = all_request(job);
  for (const std::unique_ptr<Simulated_Agent>& agent : agents_) {
    ASSERT_TRUE(agent->await_announcements(1));
    const json_spirit::Object told = agent->announcements().at(0);
    EXPECT_EQ(kestrel::write_json(told),
              R"({"definition_uuid":")" + job + R"(","instance":"DB1","host_uuid":")" + agent_uuid(0) +
                  R"(","state":"success","node_id":1,"selection_time":)" + std::to_string(time) + "}");
    EXPECT_EQ(agent->questions(), 1u);
  }
  EXPECT_TRUE(eventually([&] {
    const json_spirit::Object told = last_selection();
    const json_spirit::Array& announcements = json_spirit::find_value(told, "announcements").get_array();
    size_t delivered = 0;
    for (const json_spirit::Value& entry : announcements)
      delivered += kestrel::required<bool>(entry.get_obj(), "delivered");
    return delivered == 3;
  }));
  const json_spirit::Object told = last_selection();
  EXPECT_EQ(member_text(told, "state"), "success");
  EXPECT_EQ(member_text(told, "host"), "db1");
  EXPECT_EQ(member_text(told, "name"), "nightly");
  EXPECT_NE(member_text(told, "reason").find("lowest node id"), std::string::npos);
  for (const std::unique_ptr<Simulated_Agent>& agent : agents_)
    EXPECT_EQ(agent->announcements().size(), 1u) << "once for each request";
}

TEST_F(Served_Cluster, the_work_goes_round_among_equal_nodes)
{
  add_connected_agents(3);
  std::multiset<int64_t> chosen;
  for (int run = 1; run <= 3; ++run) {
    all_request(define());
    for (const std::unique_ptr<Simulated_Agent>& agent : agents_)
      ASSERT_TRUE(agent->await_announcements(static_cast<size_t>(run)));
    chosen.insert(member_number(agent(0).announcements().back(), "node_id"));
  }
  EXPECT_EQ(chosen, (std::multiset<int64_t>{1, 2, 3}));
}

TEST_F(Served_Cluster, a_busy_node_is_spared)
{
  add_connected_agents(2);
  const std::string job = define();
  ASSERT_TRUE(agent(0).tell_state("another job", "run", "running"));
  EXPECT_TRUE(eventually(
      [&] { return member_number(ask("GET", "/k2/r/hosts/db1").get_obj(), "running_jobs") == 1; }));
  all_request(job);
  ASSERT_TRUE(agent(1).await_announcements(1));
  EXPECT_EQ(state_of(agent(1).announcements()[0]), "success 2");
  EXPECT_NE(reason().find("fewest jobs"), std::string::npos);
}

TEST_F(Served_Cluster, the_master_is_taken_and_when_it_is_dead_another_one)
{
  add_connected_agents(3);
  agent(0).set_node(1, false, true);
  agent(2).set_node(3, true, true);
  all_request(define(), true);
  ASSERT_TRUE(agent(0).await_announcements(1));
  EXPECT_EQ(state_of(agent(0).announcements()[0]), "success 3");

  agent(2).disconnect();
  EXPECT_TRUE(eventually([&] { return server_->port() != 0 && !is_online("db3"); }));
  const std::string job = define();
  request(agent(0), job, true);
  request(agent(1), job, true);
  ASSERT_TRUE(agent(0).await_announcements(2));
  EXPECT_EQ(member_text(agent(0).announcements()[1], "state"), "success");
  EXPECT_NE(member_number(agent(0).announcements()[1], "node_id"), 3);
  EXPECT_NE(reason().find("the master is wanted"), std::string::npos);
}

TEST_F(Served_Cluster, a_restore_waits_for_no_other_than_the_master)
{
  shorten_window();
  add_connected_agents(2);
  agent(0).set_node(1, true, false);
  all_request(define(R"(,"rsrc_form":"cluster")", "restore"), true, false);
  for (size_t i = 0; i < 2; ++i) {
    ASSERT_TRUE(agent(i).await_announcements(1));
    EXPECT_EQ(state_of(agent(i).announcements()[0]), "failed -1");
  }
  EXPECT_NE(reason().find("no online node says that it is the master"), std::string::npos);
}

TEST_F(Served_Cluster, when_no_node_is_online_nobody_works_and_the_reason_is_shown)
{
  shorten_window();
  add_connected_agents(2);
  agent(0).set_node(1, true, false);
  agent(1).set_node(2, false, false);
  all_request(define(), false, false);
  for (size_t i = 0; i < 2; ++i) {
    ASSERT_TRUE(agent(i).await_announcements(1));
    EXPECT_EQ(state_of(agent(i).announcements()[0]), "failed -1");
  }
  EXPECT_EQ(reason(), "none of 2 nodes is online");
}

TEST_F(Served_Cluster, nodes_that_answer_with_errors_or_garbage_are_left_out)
{
  for (const char* name : {"db1", "db2", "db3", "db4"})
    add_agent(name);
  agent(0).on("oscar.node.check_state", [](const json_spirit::Value&, json_spirit::Value&, auto& error) {
    error.code = -32603;
    error.message = "Failed to check node state\n";
    return false;
  });
  agent(1).on("oscar.node.check_state", [](const json_spirit::Value&, json_spirit::Value& result, auto&) {
    result = json("[7,true,true]");
    return true;
  });
  agent(2).on("oscar.node.check_state", [](const json_spirit::Value&, json_spirit::Value& result, auto&) {
    result = json(R"({"node_id":"3","is_master":true,"online":true})");
    return true;
  });
  for (const std::unique_ptr<Simulated_Agent>& agent : agents_)
    connect(*agent);
  all_request(define());
  ASSERT_TRUE(agent(0).await_announcements(1));
  EXPECT_EQ(state_of(agent(0).announcements()[0]), "success 4");
  const std::string text = kestrel::write_json(last_selection());
  EXPECT_NE(text.find("its agent answered: Failed to check node state (-32603)"), std::string::npos) << text;
  EXPECT_NE(text.find("its agent's answer is not usable"), std::string::npos) << text;
}

TEST_F(Served_Cluster, a_request_of_a_host_that_is_not_among_the_jobs_hosts_is_refused)
{
  add_connected_agents(2);
  const std::string job = define(R"(,"rsrc_form":"cluster")", "backup", 1);
  int64_t time = 0;
  kestrel::REST_Problem problem;
  EXPECT_FALSE(agent(0).request_selection(job, false, time, problem));
  EXPECT_EQ(problem.status, 403);
  EXPECT_NE(request(agent(1), job), 0);
  EXPECT_TRUE(agent(1).await_announcements(1));
}

TEST_F(Served_Cluster, wrong_requests_are_refused_and_begin_nothing)
{
  add_connected_agents(1);
  for (const char* body :
       {"{}", "[]", "7", R"({"definition_uuid":"","uid":"","instance_uuid":"","select_master":true})",
        R"({"definition_uuid":1,"uid":"","instance_uuid":"","select_master":true})",
        R"({"definition_uuid":"d","uid":"","instance_uuid":"","select_master":1})",
        R"({"definition_uuid":"d","uid":"no id","instance_uuid":"","select_master":true})",
        R"({"definition_uuid":"d","instance_uuid":"","select_master":true})"})
    EXPECT_EQ(status_of(ask(agent(0).rest(), "POST", "/k2/r/oscar/cluster", body)), 400) << body;
  const std::string long_id(65, 'x');
  EXPECT_EQ(status_of(ask(agent(0).rest(), "POST", "/k2/r/oscar/cluster",
                          R"({"definition_uuid":"d","uid":"","instance_uuid":")" + long_id +
                              R"(","select_master":true})")),
            400);
  EXPECT_TRUE(last_selection().empty());
  EXPECT_EQ(status_of(ask("POST", "/k2/r/oscar/cluster", "{}")), 403) << "users do not ask for nodes";
  EXPECT_EQ(status_of(ask(agent(0).rest(), "GET", "/k2/r/oscar/cluster")), 403);
}

TEST_F(Served_Cluster, agents_of_a_job_that_is_not_defined_here_share_a_choice_too)
{
  shorten_window();
  add_connected_agents(2);
  for (size_t i = 0; i < 2; ++i)
    agent(i).set_instances(json(R"([{"name":"DB1","uuid":""}])").get_array());
  for (size_t i = 0; i < 2; ++i)
    connect(agent(i));
  all_request("a job of a local file");
  ASSERT_TRUE(agent(0).await_announcements(1));
  EXPECT_EQ(state_of(agent(0).announcements()[0]), "success 1");
  EXPECT_EQ(member_text(last_selection(), "kind"), "unknown");
  ASSERT_TRUE(agent(1).await_announcements(1));
}

TEST_F(Served_Cluster, an_agent_that_is_back_soon_gets_its_announcement)
{
  add_connected_agents(2);
  const std::string job = define();
  agent(0).disconnect();
  EXPECT_TRUE(eventually([&] { return !is_online("db1"); }));
  all_request(job);
  ASSERT_TRUE(agent(1).await_announcements(1));
  EXPECT_EQ(state_of(agent(1).announcements()[0]), "success 2");
  connect(agent(0));
  ASSERT_TRUE(agent(0).await_announcements(1));
  EXPECT_EQ(state_of(agent(0).announcements()[0]), "success 2");
}

TEST_F(Served_Cluster, an_agent_that_goes_away_while_it_is_asked_is_replaced)
{
  add_agent("db1");
  std::atomic<bool> asked{false};
  agent(0).on("oscar.node.check_state", [&](const json_spirit::Value&, json_spirit::Value&, auto&) {
    asked = true;
    agent(0).disconnect();
    return false;
  });
  connect(agent(0));
  add_connected_agents(1);
  all_request(define());
  ASSERT_TRUE(agent(1).await_announcements(1));
  EXPECT_TRUE(asked);
  EXPECT_EQ(state_of(agent(1).announcements()[0]), "success 2");
}

TEST_F(Served_Cluster, an_agent_that_goes_away_while_it_is_told_is_told_once_and_stays_chosen)
{
  log_.allow(LM_WARNING, "may not have been told");
  add_agent("db1");
  std::atomic<int> told{0};
  agent(0).on("oscar.node.notify_selected", [&](const json_spirit::Value&, json_spirit::Value&, auto&) {
    ++told;
    agent(0).disconnect();
    return false;
  });
  connect(agent(0));
  add_connected_agents(1);
  all_request(define());
  ASSERT_TRUE(agent(1).await_announcements(1));
  EXPECT_EQ(state_of(agent(1).announcements()[0]), "success 1");
  connect(agent(0));
  EXPECT_TRUE(eventually([&] {
    return kestrel::write_json(last_selection()).find("the connection to its agent ended") !=
           std::string::npos;
  }));
  EXPECT_EQ(told, 1);
}

TEST_F(Served_Cluster, a_server_that_was_restarted_meanwhile_goes_on_with_the_choice)
{
  Scaled_Clock clock(1);
  clock.stand_still(); // agents wait for as long as a busy machine takes
  add_connected_agents(2);
  const std::string job = define();
  const int64_t time = request(agent(0), job);
  stop();
  start();
  console_.reset();
  EXPECT_EQ(member_text(last_selection(), "state"), "open");
  for (size_t i = 0; i < 2; ++i)
    connect(agent(i));
  EXPECT_EQ(request(agent(1), job), time) << "the same job, the same time";
  for (size_t i = 0; i < 2; ++i) {
    ASSERT_TRUE(agent(i).await_announcements(1));
    EXPECT_EQ(agent(i).announcements().size(), 1u);
    EXPECT_EQ(state_of(agent(i).announcements()[0]), "success 1");
    EXPECT_EQ(member_number(agent(i).announcements()[0], "selection_time"), time);
  }
  EXPECT_EQ(reason().find("after a restart of the server: "), 0u) << reason();
}

TEST_F(Served_Cluster, twenty_requests_at_once_get_twenty_announcements)
{
  add_connected_agents(4);
  const std::string job = define();
  std::vector<std::thread> threads;
  std::vector<int64_t> times(20);
  for (size_t i = 0; i < times.size(); ++i)
    threads.emplace_back([&, i] { times[i] = request(agent(i % 4), job); });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(std::set<int64_t>(times.begin(), times.end()).size(), 1u);
  std::set<int64_t> nodes;
  for (size_t i = 0; i < 4; ++i) {
    ASSERT_TRUE(agent(i).await_announcements(5));
    for (const json_spirit::Object& told : agent(i).announcements())
      nodes.insert(member_number(told, "node_id"));
    EXPECT_EQ(agent(i).announcements().size(), 5u);
  }
  EXPECT_EQ(nodes.size(), 1u);
}

TEST_F(Served_Cluster, a_request_that_comes_again_is_the_same_one)
{
  add_connected_agents(2);
  const std::string job = define();
  const std::string body =
      R"({"definition_uuid":")" + job + R"(","uid":"","instance_uuid":"","select_master":false})";
  const auto ask = [&](const std::string& id) {
    kestrel::REST_Call call;
    call.method = "POST";
    call.path = "/k2/r/oscar/cluster";
    call.body = body.data();
    call.body_bytes = body.size();
    call.has_body = true;
    call.headers.emplace_back("X-Request-Id", id);
    json_spirit::Value reply;
    kestrel::REST_Problem problem;
    if (!agent(0).rest().call(call, nullptr, reply, problem))
      return int64_t(-problem.status);
    return kestrel::required<int64_t>(reply.get_obj(), "selection_time");
  };
  const std::string id = "7d3a1c52-0000-4000-8000-000000000001";
  const int64_t time = ask(id);
  EXPECT_GT(time, 0);
  EXPECT_EQ(ask(id), time);
  EXPECT_EQ(request(agent(1), job), time);
  ASSERT_TRUE(agent(0).await_announcements(1));
  ASSERT_TRUE(agent(1).await_announcements(1));
  EXPECT_EQ(ask(id), time) << "after the announcement, too";
  const json_spirit::Object selection = last_selection();
  EXPECT_EQ(json_spirit::find_value(selection, "announcements").get_array().size(), 2u);
  EXPECT_EQ(agent(0).announcements().size(), 1u);
  EXPECT_EQ(ask("the second"), -400);
  EXPECT_GT(ask("7d3a1c52-0000-4000-8000-000000000002"), 0);
  EXPECT_TRUE(agent(0).await_announcements(2)) << "another request is another one";
}
