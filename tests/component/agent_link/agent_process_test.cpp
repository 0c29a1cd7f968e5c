#include "agent_process.h"
#include "scripted_server.h"
#include "base/descriptor.h"
#include "support/paths.h"
#include "support/waiting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <poll.h>
#include <set>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace kestrel_test;
using namespace kestrel;

namespace
{
const std::string server_key = "var/opt/tarnvik/kestrel3/agent/server_key.json";
const std::string definition_id = "7ffc3e95-0148-4219-9aa9-2d019af01082";

/// The socket of a service manager.
class Manager_Socket
{
public:
  explicit Manager_Socket(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
  {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(0, ::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
  }
  /// Waits for a message that begins so; gives it, and forgets those before it.
  std::string wait_for(const std::string& begin)
  {
    for (int turn = 0; turn < 600; ++turn) {
      pollfd waiting = {fd_.get(), POLLIN, 0};
      if (::poll(&waiting, 1, 100) <= 0)
        continue;
      char text[4096];
      const ssize_t size = ::recv(fd_.get(), text, sizeof text, 0);
      const std::string message(text, size < 0 ? 0 : static_cast<size_t>(size));
      if (message.compare(0, begin.size(), begin) == 0)
        return message;
    }
    ADD_FAILURE() << "the service manager was not told " << begin;
    return "";
  }

private:
  Auto_Fd fd_;
};

class Agent_Process_Test : public ::testing::Test
{
protected:
  /// A backup of an instance that does not exist: its run waits for a file and then fails.
  json_spirit::Object definition()
  {
    json_spirit::Object target, source, options, document, entry;
    set_value(target, "id", "89fc5dc1-a525-4eec-b0c6-720684770971");
    set_value(source, "id", "48bfe436-d3c7-4c92-a702-cfafa43fd264");
    set_value(source, "name", "NONE");
    set_value(source, "entries", json_spirit::Array{"oscar/NONE"});
    set_value(options, "compression", "none");
    set_value(document, "id", definition_id);
    set_value(document, "uid", "2088b35a-0710-4593-a38e-e8ae08e3666c");
    set_value(document, "name", "nightly");
    set_value(document, "type", "backup");
    set_value(document, "subtype", "full");
    set_value(document, "target", target);
    set_value(document, "source", source);
    set_value(document, "options", options);
    set_value(document, "pre_action", "touch " + begun_ + "; while [ ! -e " + go_ + " ]; do sleep 0.05; done");
    set_value(entry, "id", definition_id);
    set_value(entry, "revision", 1);
    set_value(entry, "enabled", true);
    set_value(entry, "document", document);
    return entry;
  }
  void enroll_and_start(const Agent_Process::Environment& environment = {})
  {
    const std::string file = root_.write("enroll.json", server_.enrollment(), 0600);
    const size_t before = server_.greetings();
    agent_.start({"--enrollment", file}, environment);
    ASSERT_TRUE(server_.wait_greeting(before)) << agent_.errors() << agent_.log();
  }
  /// Without a server nothing but the log tells it, and that has to be made first.
  bool is_ready_alone()
  {
    return wait_for_file(root_ / "var/log/kestrel3/agent.log") &&
           eventually([&] { return agent_.log().find("is ready: no server") != std::string::npos; });
  }
  void define()
  {
    json_spirit::Object params;
    set_value(params, "definitions", json_spirit::Array{definition()});
    ASSERT_EQ("{\"refused\":[]}", write_json(json_spirit::find_value(server_.call("job.sync", params), "result")));
  }
  void run()
  {
    json_spirit::Object params;
    set_value(params, "id", definition_id);
    set_value(params, "action", "run");
    const json_spirit::Object answer = server_.call("job.control", params);
    EXPECT_TRUE(json_spirit::find_value(answer, "error").is_null()) << write_json(answer);
  }
  void let_go() { root_.write("go", ""); }
  bool run_begun() { return wait_for_file(begun_); }
  /// The script may be faster than the record of its run.
  bool begin_is_recorded()
  {
    return eventually([&] {
      const json_spirit::Object answer = server_.call("job.list");
      const json_spirit::Object result = json_spirit::find_value(answer, "result").get_obj();
      const json_spirit::Object job = json_spirit::find_value(result, "jobs").get_array().at(0).get_obj();
      const json_spirit::Value& run = json_spirit::find_value(job, "last_run");
      return !run.is_null() && write_json(json_spirit::find_value(run.get_obj(), "started_at")) != "0";
    });
  }
  /// Whether a run was said to be in this state.
  bool wait_for_state(const std::string& state) const
  {
    return eventually([&] {
      const std::vector<json_spirit::Object> told = server_.notices("job.state");
      return std::any_of(told.begin(), told.end(), [&](const json_spirit::Object& params) {
        return json_spirit::find_value(params, "state").get_str() == state;
      });
    });
  }
  /// The states of the records of ended runs that the server was sent.
  std::set<std::string> posted_states() const
  {
    std::set<std::string> states;
    for (const json_spirit::Object& record : server_.posted_records())
      states.insert(json_spirit::find_value(record, "state").get_str());
    return states;
  }

  const Temp_Dir root_;
  const std::string begun_ = root_ / "begun";
  const std::string go_ = root_ / "go";
  Agent_Server server_;
  Agent_Process agent_{root_};
};

TEST_F(Agent_Process_Test, is_taken_over_by_an_enrollment_and_needs_the_file_no_more)
{
  enroll_and_start();
  const json_spirit::Object hello = server_.greeting_at(0);
  EXPECT_EQ(Agent_Server::host_uuid(), json_spirit::find_value(hello, "host_uuid").get_str());
  EXPECT_EQ("db1", json_spirit::find_value(hello, "name").get_str());
  agent_.signal(SIGTERM);
  EXPECT_EQ(0, agent_.wait()) << agent_.errors();
  ASSERT_EQ(0, ::unlink((root_ / "enroll.json").c_str()));
  agent_.start({"--enrollment", root_ / "enroll.json"});
  EXPECT_TRUE(server_.wait_greeting(1)) << agent_.errors();
  const json_spirit::Object answer = server_.call("agent.status");
  const json_spirit::Object status = json_spirit::find_value(answer, "result").get_obj();
  EXPECT_EQ(0, json_spirit::find_value(status, "jobs_running").get_int());
  EXPECT_EQ(std::string::npos, agent_.log().find(Agent_Server::access_key()));
}

TEST_F(Agent_Process_Test, says_what_is_wrong_with_its_enrollment)
{
  agent_.start({"--enrollment", root_ / "none.json"});
  EXPECT_EQ(1, agent_.wait());
  EXPECT_NE(std::string::npos, agent_.errors().find("none.json")) << agent_.errors();
  agent_.start({"--server", server_.url()});
  EXPECT_EQ(1, agent_.wait());
  EXPECT_NE(std::string::npos, agent_.errors().find("not enrolled")) << agent_.errors();
  agent_.start({"--server", "ftp://somewhere"});
  EXPECT_EQ(1, agent_.wait());
  EXPECT_NE(std::string::npos, agent_.errors().find("https://HOST:PORT")) << agent_.errors();
}

TEST_F(Agent_Process_Test, a_second_agent_on_the_same_state_is_refused)
{
  enroll_and_start();
  Agent_Process second(root_);
  second.start();
  EXPECT_EQ(1, second.wait());
  EXPECT_NE(std::string::npos, second.errors().find("another agent runs")) << second.errors();
  EXPECT_TRUE(agent_.runs());
}

TEST_F(Agent_Process_Test, serves_its_own_methods_and_those_of_its_module)
{
  enroll_and_start();
  const auto error_code = [&](const char* method, const json_spirit::Object& params) {
    const json_spirit::Object answer = server_.call(method, params);
    const json_spirit::Value& error = json_spirit::find_value(answer, "error");
    return error.is_null() ? 0 : json_spirit::find_value(error.get_obj(), "code").get_int();
  };
  const json_spirit::Object none;
  EXPECT_EQ(0, error_code("agent.status", none));
  EXPECT_EQ(0, error_code("instance.list", none));
  EXPECT_EQ(0, error_code("job.list", none));
  EXPECT_EQ(-32601, error_code("no.such.method", none));
  EXPECT_EQ(-32602, error_code("job.sync", none));
  EXPECT_EQ(-32602, error_code("job.control", none));
  EXPECT_EQ(-32602, error_code("job.log", none));
  EXPECT_EQ(-32602, error_code("instance.login", none));
  EXPECT_EQ(-32602, error_code("oscar.list", none));
  EXPECT_EQ(-32602, error_code("oscar.node.check_state", none));
  json_spirit::Object announcement;
  set_value(announcement, "definition_uuid", definition_id);
  set_value(announcement, "instance", "NONE");
  set_value(announcement, "host_uuid", Agent_Server::host_uuid());
  set_value(announcement, "state", "success");
  set_value(announcement, "node_id", 1);
  set_value(announcement, "selection_time", 1700000000);
  EXPECT_EQ(0, error_code("oscar.node.notify_selected", announcement));
  json_spirit::Object unknown;
  set_value(unknown, "id", definition_id);
  set_value(unknown, "action", "run");
  EXPECT_EQ(-32001, error_code("job.control", unknown));
  json_spirit::Object login;
  set_value(login, "instance", "NONE");
  set_value(login, "user", "sysdba");
  set_value(login, "password", "never-logged-word");
  EXPECT_EQ(-32603, error_code("instance.login", login));
  EXPECT_EQ(std::string::npos, agent_.log().find("never-logged-word"));
}

TEST_F(Agent_Process_Test, runs_that_ended_are_reported_after_a_kill_until_they_are_acknowledged)
{
  enroll_and_start();
  define();
  let_go();
  server_.runs_status = 503;
  run();
  ASSERT_TRUE(eventually([&] { return posted_states().count("error") != 0; })) << agent_.log();
  const std::string run_id = server_.posted().back();
  EXPECT_EQ(128 + SIGKILL, agent_.kill_and_wait());

  server_.store_nothing = true;
  server_.runs_status = 200;
  size_t before = server_.posted().size();
  enroll_and_start();
  ASSERT_TRUE(eventually([&] { return server_.posted().size() > before; })) << agent_.log();
  EXPECT_EQ(run_id, server_.posted().back());
  EXPECT_EQ(128 + SIGKILL, agent_.kill_and_wait());

  server_.store_nothing = false;
  before = server_.posted().size();
  enroll_and_start();
  ASSERT_TRUE(eventually([&] { return server_.posted().size() > before; })) << agent_.log();
  EXPECT_EQ(run_id, server_.posted().back());
  // An agent that ends in order has reported what it could: nothing is left for the next one.
  agent_.signal(SIGTERM);
  EXPECT_EQ(0, agent_.wait()) << agent_.log();
  before = server_.posted().size();
  enroll_and_start();
  agent_.signal(SIGTERM);
  EXPECT_EQ(0, agent_.wait()) << agent_.log();
  EXPECT_EQ(before, server_.posted().size());
}

TEST_F(Agent_Process_Test, a_killed_agent_reports_the_run_that_was_under_way_as_failed)
{
  enroll_and_start();
  define();
  run();
  ASSERT_TRUE(run_begun() && begin_is_recorded()) << agent_.log();
  EXPECT_EQ(128 + SIGKILL, agent_.kill_and_wait());
  let_go(); // the script of the killed agent ends
  enroll_and_start();
  ASSERT_TRUE(eventually([&] { return posted_states().count("error") != 0; })) << agent_.log();
}

TEST_F(Agent_Process_Test, tells_of_a_run_while_it_goes_on)
{
  enroll_and_start();
  define();
  run();
  ASSERT_TRUE(run_begun()) << agent_.log();
  EXPECT_TRUE(eventually([&] { return !server_.notices("job.state").empty(); }));
  let_go();
  EXPECT_TRUE(eventually([&] {
    const std::vector<json_spirit::Object> told = server_.notices("job.state");
    return json_spirit::find_value(told.back(), "state").get_str() == "error";
  })) << agent_.log();
}

TEST_F(Agent_Process_Test, waits_for_the_run_under_way_when_it_is_asked_to_end)
{
  enroll_and_start();
  define();
  run();
  ASSERT_TRUE(run_begun()) << agent_.log();
  agent_.signal(SIGTERM);
  ASSERT_TRUE(eventually([&] { return agent_.log().find("ending when 1 run has ended") != std::string::npos; }));
  EXPECT_TRUE(agent_.runs());
  // Still serving: what the run waits for may come from the server.
  EXPECT_TRUE(json_spirit::find_value(server_.call("agent.status"), "error").is_null());
  let_go();
  EXPECT_EQ(0, agent_.wait()) << agent_.log();
  EXPECT_NE(std::string::npos, agent_.log().find("The agent has ended"));
  EXPECT_EQ(std::set<std::string>{"error"}, posted_states());
}

TEST_F(Agent_Process_Test, a_second_request_to_end_cancels_the_run)
{
  enroll_and_start();
  define();
  run();
  ASSERT_TRUE(run_begun()) << agent_.log();
  agent_.signal(SIGTERM);
  ASSERT_TRUE(eventually([&] { return agent_.log().find("ending when 1 run has ended") != std::string::npos; }));
  agent_.signal(SIGTERM);
  ASSERT_TRUE(eventually([&] { return agent_.log().find("Asked again to end") != std::string::npos; }));
  EXPECT_TRUE(wait_for_state("canceling")) << agent_.log();
  let_go(); // a script of the user's is never cut off
  EXPECT_EQ(0, agent_.wait()) << agent_.log();
  EXPECT_EQ(std::set<std::string>{"canceled"}, posted_states());
}

TEST_F(Agent_Process_Test, an_agent_that_may_cancel_does_so_at_the_first_request)
{
  root_.write("agent.toml", "[jobs]\nstop = \"cancel\"\n");
  const std::string file = root_.write("enroll.json", server_.enrollment(), 0600);
  agent_.start({"--enrollment", file, "--config", root_ / "agent.toml"});
  ASSERT_TRUE(server_.wait_greeting()) << agent_.errors();
  define();
  run();
  ASSERT_TRUE(run_begun()) << agent_.log();
  agent_.signal(SIGTERM);
  EXPECT_TRUE(wait_for_state("canceling")) << agent_.log();
  let_go();
  EXPECT_EQ(0, agent_.wait()) << agent_.log();
  EXPECT_EQ(std::set<std::string>{"canceled"}, posted_states());
}

TEST_F(Agent_Process_Test, speaks_with_the_service_manager_from_start_to_end)
{
  Manager_Socket manager(root_ / "notify");
  agent_.start({}, {{"NOTIFY_SOCKET", root_ / "notify"}, {"WATCHDOG_USEC", "200000"}});
  EXPECT_EQ(0u, manager.wait_for("READY=1").find("READY=1\nSTATUS=no server; 0 runs under way"));
  manager.wait_for("WATCHDOG=1");
  manager.wait_for("WATCHDOG=1");
  agent_.signal(SIGHUP);
  manager.wait_for("RELOADING=1\nMONOTONIC_USEC=");
  manager.wait_for("READY=1");
  agent_.signal(SIGTERM);
  manager.wait_for("STOPPING=1");
  manager.wait_for("EXTEND_TIMEOUT_USEC=");
  EXPECT_EQ(0, agent_.wait()) << agent_.errors();
}

TEST_F(Agent_Process_Test, reads_its_settings_again_and_keeps_the_old_ones_when_they_are_wrong)
{
  root_.write("agent.toml", "");
  const std::string file = root_.write("enroll.json", server_.enrollment(), 0600);
  agent_.start({"--enrollment", file, "--config", root_ / "agent.toml"});
  ASSERT_TRUE(server_.wait_greeting()) << agent_.errors();
  root_.write("agent.toml", "nonsense = [");
  agent_.signal(SIGHUP);
  ASSERT_TRUE(eventually([&] { return agent_.log().find("The settings stay as they were") != std::string::npos; }));
  EXPECT_TRUE(json_spirit::find_value(server_.call("agent.status"), "error").is_null());

  // Another server from now on.
  Agent_Server other;
  root_.write("agent.toml", "");
  root_.write("enroll.json", other.enrollment(), 0600);
  agent_.signal(SIGHUP);
  EXPECT_TRUE(other.wait_greeting()) << agent_.log();
}

TEST_F(Agent_Process_Test, a_first_enrollment_counts_with_the_next_start_and_not_in_part_before)
{
  agent_.start({"--config", root_.write("agent.toml", "")});
  ASSERT_TRUE(is_ready_alone()) << agent_.errors();
  root_.write(server_key, server_.enrollment(), 0600);
  root_.write("agent.toml", "[jobs]\nmax_concurrent = 1\n");
  agent_.signal(SIGHUP);
  ASSERT_TRUE(eventually([&] { return agent_.log().find("The settings stay as they were: this host was enrolled at " +
                                                        server_.url() + "; restart the agent") != std::string::npos; }))
      << agent_.log();
  EXPECT_EQ(std::string::npos, agent_.log().find("max_concurrent"));
  agent_.signal(SIGTERM);
  EXPECT_EQ(0, agent_.wait()) << agent_.errors();
  EXPECT_TRUE(server_.keys().empty());
  agent_.start();
  EXPECT_TRUE(server_.wait_greeting()) << agent_.log();
}

TEST_F(Agent_Process_Test, an_enrollment_as_another_host_changes_nothing_before_the_next_start)
{
  root_.write(server_key, server_.enrollment(), 0600);
  agent_.start();
  ASSERT_TRUE(server_.wait_greeting()) << agent_.errors();
  Agent_Server other;
  std::string text = other.enrollment();
  text.replace(text.find(Agent_Server::host_uuid()), Agent_Server::host_uuid().size(), "99999999-2222-4333-8444-555555555555");
  root_.write(server_key, text, 0600);
  agent_.signal(SIGHUP);
  ASSERT_TRUE(eventually([&] { return agent_.log().find("this host is now enrolled as db1 (99999999-") != std::string::npos; }))
      << agent_.log();
  EXPECT_TRUE(json_spirit::find_value(server_.call("agent.status"), "error").is_null());
  // Nor when the enrollment goes.
  ASSERT_EQ(0, ::unlink((root_ / server_key).c_str()));
  agent_.signal(SIGHUP);
  ASSERT_TRUE(eventually([&] { return agent_.log().find("this host is not enrolled any more") != std::string::npos; }));
  EXPECT_TRUE(json_spirit::find_value(server_.call("agent.status"), "error").is_null());
  EXPECT_EQ(1u, server_.greetings());
  EXPECT_TRUE(other.keys().empty());
}

TEST_F(Agent_Process_Test, settings_that_could_make_no_connection_leave_the_one_that_there_is)
{
  root_.write(server_key, server_.enrollment(), 0600);
  const std::string settings = root_.write("agent.toml", "");
  agent_.start({"--config", settings});
  ASSERT_TRUE(server_.wait_greeting()) << agent_.errors();
  root_.write("agent.toml", "[server]\nca_file = \"" + (root_ / "none.pem") + "\"\n");
  agent_.signal(SIGHUP);
  ASSERT_TRUE(eventually([&] { return agent_.log().find("The settings stay as they were: no connection to ") !=
                                      std::string::npos; }))
      << agent_.log();
  EXPECT_NE(std::string::npos, agent_.log().find("none.pem"));
  EXPECT_TRUE(json_spirit::find_value(server_.call("agent.status"), "error").is_null());
  EXPECT_EQ(1u, server_.greetings());
}

TEST_F(Agent_Process_Test, tells_which_changed_settings_need_a_restart_and_takes_over_the_others)
{
  const std::string settings = root_.write("agent.toml", "");
  agent_.start({"--config", settings});
  ASSERT_TRUE(is_ready_alone()) << agent_.errors();
  root_.write("agent.toml", "[agent]\nname = \"x\"\nlog_level = \"error\"\n[jobs]\nmax_concurrent = 1\nhistory_days = 1\n");
  agent_.signal(SIGHUP);
  ASSERT_TRUE(eventually([&] {
    return agent_.log().find("count when the agent is restarted: agent.name, jobs.max_concurrent, jobs.history_days") !=
           std::string::npos;
  })) << agent_.log();
  // The level counts already: the agent's end is not urgent enough to be written.
  agent_.signal(SIGTERM);
  EXPECT_EQ(0, agent_.wait()) << agent_.errors();
  EXPECT_EQ(std::string::npos, agent_.log().find("The agent has ended")) << agent_.log();
}

TEST_F(Agent_Process_Test, a_run_that_the_server_refuses_for_good_stays_in_the_history_and_is_sent_no_more)
{
  enroll_and_start();
  define();
  let_go();
  server_.runs_status = 404;
  run();
  ASSERT_TRUE(eventually([&] { return agent_.log().find("The server will not take the record of run ") != std::string::npos; }))
      << agent_.log();
  EXPECT_NE(std::string::npos, agent_.log().find("the test wants it so"));
  EXPECT_EQ(std::set<std::string>{"error"}, posted_states());
  EXPECT_EQ(128 + SIGKILL, agent_.kill_and_wait());

  server_.runs_status = 200;
  enroll_and_start();
  const json_spirit::Object answer = server_.call("job.list");
  const std::string listed = write_json(json_spirit::find_value(answer, "result"));
  EXPECT_NE(std::string::npos, listed.find("\"refusal\":\"the backup server " + server_.url() + " refused: the test wants it so\""))
      << listed;
  agent_.signal(SIGTERM);
  EXPECT_EQ(0, agent_.wait()) << agent_.log();
  EXPECT_EQ(1u, server_.posted().size());
}

TEST_F(Agent_Process_Test, commands_add_to_a_second_catalog_only_when_told_so)
{
  enroll_and_start();
  const auto output_of = [&](const std::string& command) {
    const std::string all = bin_dir() + "/kestrel --root " + root_.path() + " " + command + " >" + (root_ / "out") + " 2>&1";
    EXPECT_NE(-1, std::system(all.c_str()));
    return read_file(root_ / "out");
  };
  root_.make_dir("pool");
  const std::string add = "pool add main --path " + (root_ / "pool");
  for (const std::string& command : {add, std::string("backup DB1"), std::string("export DB1")})
    EXPECT_NE(std::string::npos, output_of(command).find("enrolled at " + server_.url())) << command;
  EXPECT_EQ(std::string::npos, output_of("instances").find("enrolled"));
  EXPECT_NE(std::string::npos, output_of("--local " + add).find("Pool main keeps its files"));
  const std::string listed = output_of("pool list");
  EXPECT_NE(std::string::npos, listed.find("main")) << listed;
  EXPECT_NE(std::string::npos, listed.find("what it keeps itself")) << listed;
}
} // namespace
