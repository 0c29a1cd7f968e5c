#include "console_fixture.h"

#include "cli/console_credentials.h"
#include "cli/served_commands.h"
#include "json/json_util.h"

using namespace kestrel;
using namespace kestrel_test;

namespace
{
bool holds(const std::string& text, const std::string& part)
{
  return text.find(part) != std::string::npos;
}

size_t widest_line(const std::string& text)
{
  size_t widest = 0;
  for (size_t begin = 0; begin < text.size();) {
    const size_t end = std::min(text.find('\n', begin), text.size());
    widest = std::max(widest, end - begin);
    begin = end + 1;
  }
  return widest;
}
} // namespace

TEST_F(Console_Test, refuses_to_work_without_a_sign_in)
{
  std::string error;
  ASSERT_TRUE(remove_credentials("https://backup:7480", error));
  const Command_Outcome outcome = run({"hosts"});
  EXPECT_EQ(1, outcome.code);
  EXPECT_EQ("kestrel: you are not signed in at https://backup:7480; sign in with: kestrel --server "
            "https://backup:7480 sign-in --user NAME\n",
            outcome.err);
  EXPECT_TRUE(server_->requests().empty());
}

TEST_F(Console_Test, says_what_to_do_when_the_session_has_ended)
{
  server_->answer("GET /k2/r/hosts", 401, R"({"error":{"code":"unauthorized","message":"no such session"}})");
  const Command_Outcome outcome = run({"hosts"});
  EXPECT_EQ(1, outcome.code);
  EXPECT_TRUE(holds(outcome.err, "has ended; sign in with: kestrel --server https://backup:7480"))
      << outcome.err;
}

TEST_F(Console_Test, passes_the_servers_refusal_on)
{
  server_->answer("GET /k2/r/audit", 403,
                  R"({"error":{"code":"forbidden","message":"needs the role admin"}})");
  const Command_Outcome outcome = run({"audit"});
  EXPECT_EQ(1, outcome.code);
  EXPECT_TRUE(holds(outcome.err, "needs the role admin")) << outcome.err;
  EXPECT_FALSE(holds(outcome.err, "a-token-nobody-must-see"));
}

TEST_F(Console_Test, puts_a_failure_into_json_too)
{
  server_->answer("GET /k2/r/audit", 403,
                  R"({"error":{"code":"forbidden","message":"needs the role admin"}})");
  const Command_Outcome outcome = run({"--json", "audit"});
  json_spirit::Value value;
  std::string error;
  ASSERT_TRUE(read_json(outcome.out, value, error)) << outcome.out;
  const auto object = required<json_spirit::Object>(value.get_obj(), "error");
  EXPECT_EQ(1, required<int>(object, "exit_code"));
}

TEST_F(Console_Test, lists_hosts_and_instances_within_80_columns)
{
  const Command_Outcome hosts = run({"hosts"});
  EXPECT_EQ(0, hosts.code);
  EXPECT_TRUE(holds(hosts.out, "alpha  online")) << hosts.out;
  EXPECT_TRUE(holds(hosts.out, "beta   offline")) << hosts.out;
  EXPECT_LE(widest_line(hosts.out), 80u) << hosts.out;
  const Command_Outcome instances = run({"instances"});
  EXPECT_TRUE(holds(instances.out, "alpha  DB2")) << instances.out;
  EXPECT_TRUE(holds(instances.out, "host offline")) << instances.out;
  EXPECT_LE(widest_line(instances.out), 80u) << instances.out;
}

TEST_F(Console_Test, asks_the_host_itself_when_it_is_named)
{
  server_->answer(std::string("POST /k2/r/hosts/") + host_1 + "/rpc", 200,
                  R"({"result":{"instances":[{"name":"NEW","uuid":"u","port":1,"state":"open"}]}})");
  const Command_Outcome outcome = run({"instances", "--host", "alpha"});
  EXPECT_EQ(0, outcome.code) << outcome.err;
  EXPECT_TRUE(holds(outcome.out, "NEW")) << outcome.out;
  EXPECT_FALSE(holds(outcome.out, "DB2")) << outcome.out;
}

TEST_F(Console_Test, browses_as_deep_as_the_place_says)
{
  const std::string rpc = std::string("POST /k2/r/hosts/") + host_1 + "/rpc";
  const char databases[] = R"({"result":[{"database":"DB1","status":"open"}]})";
  server_->answer(rpc, 200, R"({"result":["SALES","STOCK"]})");
  server_->answer_once(rpc, 200, databases);
  const Command_Outcome outcome = run({"browse", "alpha/DB1/DB1"});
  EXPECT_EQ(0, outcome.code) << outcome.err;
  EXPECT_EQ("SALES\nSTOCK\n", outcome.out);
  const json_spirit::Object body = server_->last_body(rpc).get_obj();
  EXPECT_EQ("oscar.list", required<std::string>(body, "method"));
  const auto params = required<json_spirit::Object>(body, "params");
  EXPECT_EQ("DB1", required<std::string>(params, "instance"));
  EXPECT_EQ("DB1", required<std::string>(params, "database"));
  EXPECT_TRUE(find_value(params, "schema").is_null());

  server_->answer_once(rpc, 200, databases);
  ASSERT_EQ(0, run({"browse", "alpha/DB1/db1/A%2FB"}).code);
  EXPECT_EQ("A/B", required<std::string>(
                       required<json_spirit::Object>(server_->last_body(rpc).get_obj(), "params"), "schema"));
  ASSERT_EQ(0, run({"browse", "alpha"}).code);
  EXPECT_TRUE(find_value(server_->last_body(rpc).get_obj(), "params").is_null());
  EXPECT_EQ(2, run({"browse", "alpha/DB1/DB1/S/T"}).code);
  EXPECT_EQ(2, run({"browse", "alpha//DB1"}).code);
  EXPECT_EQ(1, run({"browse", "gamma/DB1"}).code);
}

TEST_F(Console_Test, browses_no_database_that_does_not_exist)
{
  const std::string rpc = std::string("POST /k2/r/hosts/") + host_1 + "/rpc";
  for (const char* place : {"alpha/DB1/NODB", "alpha/DB1/NODB/SALES"}) {
    // As a host answers: under every name the schemas or tables of the only database.
    server_->answer(rpc, 200, R"({"result":["SALES"]})");
    server_->answer_once(rpc, 200, R"({"result":[{"database":"DB1","status":"open"}]})");
    const Command_Outcome outcome = run({"browse", place});
    EXPECT_EQ(1, outcome.code);
    EXPECT_EQ("", outcome.out);
    EXPECT_EQ("kestrel: there is no database NODB in DB1 on alpha, only DB1\n", outcome.err);
  }
  EXPECT_EQ(2u, server_->count(rpc));
}

TEST_F(Console_Test, shows_databases_that_tell_of_different_things)
{
  server_->answer(
      std::string("POST /k2/r/hosts/") + host_1 + "/rpc", 200,
      R"({"result":[{"database":"DB1","status":"unopened"},{"database":"DB2","status":"open","archivelog":true}]})");
  const Command_Outcome outcome = run({"browse", "alpha/DB1"});
  EXPECT_EQ("DATABASE  STATUS    ARCHIVELOG\nDB1       unopened  -\nDB2       open      true\n", outcome.out);
}

TEST_F(Console_Test, reports_what_the_hosts_agent_refuses)
{
  server_->answer(std::string("POST /k2/r/hosts/") + host_1 + "/rpc", 200,
                  R"({"error":{"code":-32603,"message":"Failed to get account"}})");
  const Command_Outcome outcome = run({"browse", "alpha/DB1"});
  EXPECT_EQ(1, outcome.code);
  EXPECT_EQ("kestrel: host alpha refused: Failed to get account\n", outcome.err);
}

TEST_F(Console_Test, sends_a_login_to_the_only_host_with_the_instance)
{
  const std::string rpc = std::string("POST /k2/r/hosts/") + host_1 + "/rpc";
  server_->answer(rpc, 200, R"({"result":{"warning":""}})");
  const std::string file = directory_.write("password", "tiger\n", 0600);
  const Command_Outcome outcome = run({"login", "db2", "--user", "sysdba", "--password-file", file});
  EXPECT_EQ(0, outcome.code) << outcome.err;
  const auto params = required<json_spirit::Object>(server_->last_body(rpc).get_obj(), "params");
  EXPECT_EQ("DB2", required<std::string>(params, "instance"));
  EXPECT_EQ("tiger", required<std::string>(params, "password"));
  EXPECT_FALSE(holds(outcome.out + outcome.err, "tiger"));
}

TEST_F(Console_Test, asks_for_the_host_when_several_have_the_instance)
{
  const Command_Outcome outcome = run({"login", "DB1", "--user", "sysdba", "--password-file", "/dev/null"});
  EXPECT_EQ(2, outcome.code);
  EXPECT_EQ("kestrel: several hosts have an instance DB1 (alpha, beta); say which one with --host\n",
            outcome.err);
  const Command_Outcome unknown = run({"login", "DB9", "--user", "sysdba", "--password-file", "/dev/null"});
  EXPECT_EQ(1, unknown.code);
  EXPECT_TRUE(holds(unknown.err, "no host of https://backup:7480 has an instance DB9")) << unknown.err;
}

TEST_F(Console_Test, shows_selections_with_each_nodes_answer)
{
  server_->answer("GET /k2/r/oscar/cluster", 200,
                  R"({"selections":[{"number":1,"asked_at":1700000000,"definition_uuid":"d","name":"nightly",
"state":"success","host":"alpha","node_id":1,"reason":"fewest jobs","candidates":[
{"host":"alpha","connected":true,"asked":true,"answered":true,"node_id":1,"online":true,"is_master":true,"running_jobs":0,"problem":""},
{"host":"beta","connected":false,"asked":false,"answered":false,"problem":"its agent is not connected"}]}]})");
  const Command_Outcome outcome = run({"nodes"});
  EXPECT_EQ(0, outcome.code);
  EXPECT_TRUE(holds(outcome.out, "nightly  node 1 on alpha\n  fewest jobs\n")) << outcome.out;
  EXPECT_TRUE(holds(outcome.out, "online, master")) << outcome.out;
  EXPECT_TRUE(holds(outcome.out, "its agent is not connected")) << outcome.out;
}

TEST_F(Console_Test, shows_jobs_that_no_node_worked_for_before_the_selections)
{
  const std::string reason = "no node did the work of nightly when it was started last: host alpha: error, "
                             "Failed to get node info of instance DB1; host beta: error, no answer";
  server_->answer("GET /k2/r/oscar/cluster", 200, R"({"selections":[]})");
  server_->answer("GET /k2/r/jobs", 200,
                  std::string(R"({"jobs":[{"id":")") + job +
                      R"(","document":{"name":"nightly"},"nobody_worked":")" + reason +
                      R"("},{"id":"other","document":{"name":"weekly"},"nobody_worked":""}]})");
  const std::string shown = "nightly: no node did the work of nightly when it was started last: host alpha:\n"
                            "error, Failed to get node info of instance DB1; host beta: error, no answer\n";
  const Command_Outcome outcome = run({"nodes"});
  EXPECT_EQ(0, outcome.code) << outcome.err;
  EXPECT_EQ(shown, outcome.out);
  EXPECT_EQ(shown, run({"nodes", "--definition", "nightly"}).out);
  EXPECT_EQ("No node has been chosen yet.\n", run({"nodes", "--definition", "weekly"}).out);
  const Command_Outcome json = run({"--json", "nodes"});
  json_spirit::Value value;
  std::string error;
  ASSERT_TRUE(read_json(json.out, value, error)) << json.out;
  const json_spirit::Array undone = required<json_spirit::Array>(value.get_obj(), "nobody_worked");
  ASSERT_EQ(1u, undone.size());
  EXPECT_EQ(job, required<std::string>(undone[0].get_obj(), "id"));
  EXPECT_EQ("nightly", required<std::string>(undone[0].get_obj(), "name"));
  EXPECT_EQ(reason, required<std::string>(undone[0].get_obj(), "reason"));
}

TEST_F(Console_Test, adds_users_without_showing_their_passwords)
{
  server_->answer("POST /k2/r/users", 201, R"({"name":"vera","role":"viewer"})");
  const std::string file = directory_.write("password", "a long secret\n", 0600);
  const Command_Outcome outcome = run({"user", "add", "vera", "--role", "viewer", "--password-file", file});
  EXPECT_EQ(0, outcome.code) << outcome.err;
  EXPECT_EQ("a long secret",
            required<std::string>(server_->last_body("POST /k2/r/users").get_obj(), "password"));
  EXPECT_FALSE(holds(outcome.out + outcome.err, "secret"));
  EXPECT_EQ(2, run({"user", "add", "vera", "--role", "king"}).code);
}

TEST_F(Console_Test, works_with_a_server_that_lacks_what_it_should_tell)
{
  server_->answer("GET /k2/r/hosts", 200, R"({"hosts":[{"name":7},null,{}]})");
  EXPECT_EQ(0, run({"hosts"}).code);
  server_->answer("GET /k2/r/hosts", 200, "not json");
  EXPECT_EQ(1, run({"hosts"}).code);
  server_->answer("GET /k2/r/oscar/cluster", 200, R"({"selections":[{"candidates":3},{"asked_at":"x"}]})");
  EXPECT_EQ(0, run({"nodes"}).code);
}

TEST_F(Console_Test, signs_in_and_out)
{
  Command_Line line;
  line.server = "backup:1234";
  line.user = "olga";
  line.quiet = true;
  line.password_file = directory_.write("password", "tiger\n", 0600);
  server_->answer("POST /k2/r/sessions", 201,
                  R"({"token":"T","role":"admin","user":"olga","expires_at":1700000000})");
  testing::internal::CaptureStdout();
  ASSERT_EQ(0, served_sign_in(line));
  EXPECT_EQ("Signed in at https://backup:1234 as olga (admin).\n", testing::internal::GetCapturedStdout());
  Console_Credentials kept;
  bool found = false;
  std::string error;
  ASSERT_TRUE(load_credentials("https://backup:1234", kept, found, error));
  ASSERT_TRUE(found);
  EXPECT_EQ("T", kept.token);

  server_->answer("DELETE /k2/r/sessions/current", 204, "");
  testing::internal::CaptureStdout();
  ASSERT_EQ(0, served_sign_out(line));
  EXPECT_EQ("Signed out of https://backup:1234.\n", testing::internal::GetCapturedStdout());
  EXPECT_EQ(1u, server_->count("DELETE /k2/r/sessions/current"));
  ASSERT_TRUE(load_credentials("https://backup:1234", kept, found, error));
  EXPECT_FALSE(found);
}

TEST_F(Console_Test, keeps_nothing_of_a_sign_in_that_failed)
{
  Command_Line line;
  line.server = "backup:1234";
  line.user = "olga";
  line.password_file = directory_.write("password", "wrong\n", 0600);
  server_->answer("POST /k2/r/sessions", 401,
                  R"({"error":{"code":"denied","message":"wrong name or password"}})");
  testing::internal::CaptureStderr();
  EXPECT_EQ(1, served_sign_in(line));
  EXPECT_TRUE(holds(testing::internal::GetCapturedStderr(), "wrong name or password"));
  Console_Credentials kept;
  bool found = true;
  std::string error;
  ASSERT_TRUE(load_credentials("https://backup:1234", kept, found, error));
  EXPECT_FALSE(found);
}
