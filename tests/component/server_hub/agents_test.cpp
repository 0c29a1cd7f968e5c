#include "server_fixture.h"

#include "server/audit.h"

#include <atomic>
#include <thread>

using namespace kestrel_test;

namespace
{
class Served_Hosts : public Server_Fixture
{
protected:
  json_spirit::Object host(const std::string& name) { return ask("GET", "/k2/r/hosts/" + name).get_obj(); }
  json_spirit::Value call(const std::string& name, const std::string& body)
  {
    return ask("POST", "/k2/r/hosts/" + name + "/rpc", body);
  }
  std::string audit() { return kestrel::write_json(ask("GET", "/k2/r/audit?limit=100")); }
};
} // namespace

TEST_F(Served_Hosts, a_host_is_online_from_its_greeting_to_the_end_of_its_connection)
{
  Simulated_Agent& one = add_agent("db1");
  one.set_instances(json(R"([{"name":"DB1","uuid":"u1","port":2003},"no instance",{"port":1}])").get_array());
  std::string error;
  ASSERT_TRUE(one.dial(error)) << error;
  EXPECT_FALSE(is_online("db1")) << "it has not greeted";
  ASSERT_TRUE(one.greet(error)) << error;
  const json_spirit::Object online = host("db1");
  EXPECT_EQ(kestrel::write_json(json_spirit::find_value(online, "instances")),
            R"([{"name":"DB1","uuid":"u1","port":2003}])");
  EXPECT_EQ(member_text(online, "version"), "simulated");
  EXPECT_EQ(member_text(online, "uuid"), one.uuid());
  EXPECT_GT(member_number(online, "last_seen"), 0);
  EXPECT_TRUE(is_online(one.uuid())) << "by its uuid too";
  one.disconnect();
  EXPECT_TRUE(eventually([&] { return !is_online("db1"); }));
  stop();
  start();
  console_.reset();
  EXPECT_EQ(kestrel::write_json(json_spirit::find_value(host("db1"), "instances")),
            R"([{"name":"DB1","uuid":"u1","port":2003}])")
      << "known while the host is away";
  add_agent("db2");
  EXPECT_EQ(list_of(ask("GET", "/k2/r/hosts"), "hosts").size(), 2u);
  EXPECT_EQ(status_of(ask("GET", "/k2/r/hosts/nobody")), 404);
}

TEST_F(Served_Hosts, a_second_connection_of_a_host_replaces_the_first)
{
  const Enrollment enrollment = enroll("db1");
  Simulated_Agent first(network_, enrollment), second(network_, enrollment);
  first.set_instances(json(R"([{"name":"OLD"}])").get_array());
  second.set_instances(json(R"([{"name":"NEW"}])").get_array());
  connect(first);
  connect(second);
  EXPECT_TRUE(eventually([&] { return !first.connected(); }));
  EXPECT_TRUE(second.connected());
  EXPECT_TRUE(is_online("db1"));
  EXPECT_EQ(kestrel::write_json(json_spirit::find_value(host("db1"), "instances")), R"([{"name":"NEW"}])");
  std::string error;
  EXPECT_FALSE(first.greet(error)) << "it is closed";
}

TEST_F(Served_Hosts, many_connections_of_one_host_leave_one)
{
  const Enrollment enrollment = enroll("db1");
  std::vector<std::unique_ptr<Simulated_Agent>> agents;
  for (int i = 0; i < 8; ++i)
    agents.push_back(std::make_unique<Simulated_Agent>(network_, enrollment));
  std::vector<std::thread> threads;
  for (const std::unique_ptr<Simulated_Agent>& agent : agents)
    threads.emplace_back([&agent] {
      std::string error;
      (void)agent->connect(error); // those that are replaced meanwhile fail
    });
  for (std::thread& thread : threads)
    thread.join();
  const auto open = [&] {
    size_t count = 0;
    for (const std::unique_ptr<Simulated_Agent>& agent : agents)
      count += agent->connected();
    return count;
  };
  EXPECT_TRUE(eventually([&] { return open() == 1; })) << open();
  EXPECT_TRUE(eventually([&] { return is_online("db1"); }));
}

TEST_F(Served_Hosts, garbage_from_an_agent_changes_nothing)
{
  add_connected_agents(1);
  const std::shared_ptr<kestrel::JSON_RPC_Peer> peer = agent(0).peer();
  json_spirit::Value result;
  kestrel::JSON_RPC_Error error;
  const auto refused = [&](const char* method, const std::string& params) {
    return !peer->call(method, json(params), 20000, result, error);
  };
  for (const char* params : {"{}", "[]", R"({"host_uuid":1})", R"({"host_uuid":"another","version":"1"})"})
    EXPECT_TRUE(refused("agent.hello", params)) << params;
  EXPECT_TRUE(refused("agent.hello",
                      R"({"version":"1","instances":{},"jobs":[],"host_uuid":")" + agent_uuid(0) + "\"}"));
  for (const char* params : {"{}", "[]", R"({"id":1,"run_id":2,"state":3})"})
    EXPECT_TRUE(refused("job.state", params)) << params;
  for (const char* params : {"{}", "[]", R"({"instances":1})"})
    EXPECT_TRUE(refused("instance.changed", params)) << params;
  EXPECT_TRUE(refused("job.sync", "{}")) << "a method of agents";
  EXPECT_EQ(error.code, -32601);
  EXPECT_TRUE(peer->notify("no such method", json("{}")));
  EXPECT_TRUE(is_online("db1"));
  EXPECT_FALSE(refused("instance.changed", R"({"instances":[1,{"name":"DB2"}]})"));
  EXPECT_EQ(kestrel::write_json(json_spirit::find_value(host("db1"), "instances")), R"([{"name":"DB2"}])");
}

TEST_F(Served_Hosts, a_revoked_host_and_one_with_a_new_key_lose_their_connection)
{
  add_connected_agents(2);
  EXPECT_TRUE(is_online("db1"));
  server_->accounts().revoke("db1");
  enroll("db2");
  EXPECT_TRUE(eventually([&] { return !agent(0).connected() && !agent(1).connected(); }));
  std::string error;
  EXPECT_FALSE(agent(0).connect(error));
  EXPECT_FALSE(agent(1).connect(error));
  EXPECT_EQ(status_of(ask("GET", "/k2/r/hosts/db1")), 404);
  EXPECT_FALSE(is_online("db2"));
}

TEST_F(Served_Hosts, calls_are_forwarded_with_the_agents_answer_or_error)
{
  add_agent("db1");
  std::string seen;
  agent(0).on("oscar.list", [&](const json_spirit::Value& params, json_spirit::Value& result, auto&) {
    seen = kestrel::write_json(params);
    result = json(R"([{"instance":"DB1"}])");
    return true;
  });
  agent(0).on("job.control", [](const json_spirit::Value&, json_spirit::Value&, auto& error) {
    error.code = -32002;
    error.message = "refused in this state";
    return false;
  });
  connect(agent(0));
  EXPECT_EQ(kestrel::write_json(call("db1", R"({"method":"oscar.list","params":null})")),
            R"({"result":[{"instance":"DB1"}]})");
  EXPECT_EQ(seen, "null");
  EXPECT_EQ(kestrel::write_json(call("db1", R"({"method":"oscar.list","params":{"uid":"u"},"timeout":5})")),
            R"({"result":[{"instance":"DB1"}]})");
  EXPECT_EQ(seen, R"({"uid":"u"})");
  EXPECT_EQ(kestrel::write_json(call("db1", R"({"method":"job.control"})")),
            R"({"error":{"code":-32002,"message":"refused in this state"}})");
  EXPECT_EQ(audit().find("oscar.list"), std::string::npos) << "what only asks is not audited";
  EXPECT_NE(audit().find("job.control"), std::string::npos);
}

TEST_F(Served_Hosts, only_methods_of_the_list_are_forwarded_and_each_to_its_role)
{
  add_connected_agents(1);
  for (const char* method : {"job.sync", "oscar.node.notify_selected", "agent.hello", "system", ""})
    EXPECT_EQ(status_of(call("db1", std::string(R"({"method":")") + method + "\"}")), 400) << method;
  EXPECT_EQ(status_of(call("db1", R"({"method":7})")), 400);
  EXPECT_EQ(status_of(call("db1", R"({"method":"job.list","timeout":0})")), 400);
  EXPECT_EQ(status_of(call("db1", R"({"method":"job.list","timeout":301})")), 400);
  EXPECT_EQ(status_of(call("nobody", R"({"method":"job.list"})")), 404);
  server_->accounts().add_user("vic", "viewer", PASSWORD);
  const std::unique_ptr<kestrel::REST_Client> viewer = sign_in("vic", PASSWORD);
  EXPECT_EQ(status_of(ask(*viewer, "POST", "/k2/r/hosts/db1/rpc", R"({"method":"job.list"})")), 0);
  EXPECT_EQ(status_of(ask(*viewer, "POST", "/k2/r/hosts/db1/rpc", R"({"method":"job.control"})")), 403);
  EXPECT_EQ(status_of(ask(*viewer, "POST", "/k2/r/hosts/db1/rpc",
                          R"({"method":"instance.login","params":{"password":"secret-word"}})")),
            403);
  EXPECT_EQ(audit().find("secret-word"), std::string::npos);
  EXPECT_NE(audit().find("instance.login"), std::string::npos);
}

TEST_F(Served_Hosts, the_password_of_a_login_reaches_the_agent_and_nothing_else)
{
  add_agent("db1");
  std::string seen;
  agent(0).on("instance.login", [&](const json_spirit::Value& params, json_spirit::Value& result, auto&) {
    seen = member_text(params.get_obj(), "password");
    result = json(R"({"warning":""})");
    return true;
  });
  connect(agent(0));
  EXPECT_EQ(
      kestrel::write_json(call("db1", R"({"method":"instance.login","params":{"password":"secret-word"}})")),
      R"({"result":{"warning":""}})");
  EXPECT_EQ(seen, "secret-word");
  EXPECT_EQ(audit().find("secret-word"), std::string::npos);
  EXPECT_NE(audit().find("instance.login"), std::string::npos);
  EXPECT_FALSE(log_.contains("secret-word"));
}

TEST_F(Served_Hosts, hosts_that_are_away_or_slow_are_told_apart)
{
  add_agent("db1");
  EXPECT_EQ(status_of(call("db1", R"({"method":"job.list"})")), 503);
  std::atomic<bool> done{false};
  agent(0).on("agent.status", [&](const json_spirit::Value&, json_spirit::Value&, auto&) {
    EXPECT_TRUE(eventually([&] { return done.load(); }));
    return false;
  });
  agent(0).on("job.log", [&](const json_spirit::Value&, json_spirit::Value&, auto&) {
    agent(0).disconnect();
    return false;
  });
  connect(agent(0));
  EXPECT_EQ(status_of(call("db1", R"({"method":"agent.status","timeout":1})")), 504);
  done = true;
  EXPECT_EQ(status_of(call("db1", R"({"method":"job.log","timeout":20})")), 503) << "it went away meanwhile";
}

TEST_F(Served_Hosts, requests_that_wait_for_a_hanging_host_leave_room_for_others)
{
  config_.workers = 4;
  stop();
  start();
  add_agent("db1");
  std::atomic<bool> done{false};
  std::atomic<int> waiting{0};
  agent(0).on("job.control", [](const json_spirit::Value&, json_spirit::Value& result, auto&) {
    result = json("{}");
    return true;
  });
  agent(0).on("agent.status", [&](const json_spirit::Value&, json_spirit::Value& result, auto&) {
    ++waiting;
    result = json("{}");
    return eventually([&] { return done.load(); });
  });
  connect(agent(0));
  std::vector<std::thread> threads;
  std::atomic<int> answered{0};
  console();
  threads.emplace_back([&] { answered += status_of(call("db1", R"({"method":"agent.status"})")) == 0; });
  EXPECT_TRUE(eventually([&] { return waiting == 1; }));
  EXPECT_EQ(status_of(call("db1", R"({"method":"agent.status"})")), 503) << "one asks already";
  EXPECT_EQ(status_of(call("db1", R"({"method":"job.control"})")), 0) << "room is left to control";
  EXPECT_TRUE(is_online("db1"));
  done = true;
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(answered, 1);
}

TEST_F(Served_Hosts, people_who_browse_hold_up_neither_control_nor_the_choice_of_a_node)
{
  std::atomic<bool> done{false};
  std::atomic<int> waiting{0};
  for (const char* name : {"db1", "db2"}) {
    Simulated_Agent& one = add_agent(name);
    one.set_threads(8);
    one.on("oscar.list", [&](const json_spirit::Value&, json_spirit::Value& result, auto&) {
      ++waiting;
      result = json("[]");
      return eventually([&] { return done.load(); });
    });
    one.on("job.control", [](const json_spirit::Value&, json_spirit::Value& result, auto&) {
      result = json("{}");
      return true;
    });
    connect(one);
  }
  const std::string job = define();
  server_->accounts().add_user("wanda", "viewer", PASSWORD);
  std::vector<std::thread> threads;
  const auto browse = [&](const char* user, const std::string& host) {
    threads.emplace_back([this, client = std::shared_ptr<kestrel::REST_Client>(sign_in(user, PASSWORD)), host] {
      EXPECT_EQ(status_of(ask(*client, "POST", "/k2/r/hosts/" + host + "/rpc", R"({"method":"oscar.list"})")), 0);
    });
  };
  for (int i = 0; i < 3; ++i)
    browse("wanda", "db1");
  EXPECT_TRUE(eventually([&] { return waiting == 3; }));
  const json_spirit::Value busy = call("db1", R"({"method":"oscar.list"})");
  EXPECT_EQ(status_of(busy), 503);
  EXPECT_NE(kestrel::write_json(busy).find("The host is busy with 3 requests"), std::string::npos)
      << kestrel::write_json(busy);
  browse("wanda", "db2");
  EXPECT_TRUE(eventually([&] { return waiting == 4; }));
  const std::unique_ptr<kestrel::REST_Client> wanda = sign_in("wanda", PASSWORD);
  EXPECT_EQ(status_of(ask(*wanda, "POST", "/k2/r/hosts/db2/rpc", R"({"method":"agent.status"})")), 429);
  EXPECT_EQ(status_of(call("db1", R"({"method":"job.control"})")), 0);
  for (size_t i = 0; i < 2; ++i)
    request(agent(i), job);
  EXPECT_TRUE(agent(0).await_announcements(1)) << "both nodes told their state";
  EXPECT_TRUE(agent(1).await_announcements(1));
  EXPECT_EQ(member_text(agent(0).announcements()[0], "state"), "success");
  done = true;
  for (std::thread& thread : threads)
    thread.join();
}
