#include "console_fixture.h"

#include "cli/text_format.h"
#include "json/json_util.h"

#include <algorithm>
#include <csignal>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
bool holds(const std::string& text, const std::string& part)
{
  return text.find(part) != std::string::npos;
}

size_t longest_line(const std::string& text)
{
  size_t longest = 0;
  for (size_t begin = 0, end = 0; begin < text.size(); begin = end + 1) {
    end = std::min(text.find('\n', begin), text.size());
    longest = std::max(longest, display_width(text.substr(begin, end - begin)));
  }
  return longest;
}

const char run_1[] = "eeeeeee1-0000-4000-8000-000000000001";
const char run_2[] = "eeeeeee2-0000-4000-8000-000000000002";

class Served_Jobs : public Console_Test
{
protected:
  Served_Jobs()
  {
    server_->answer("GET /k2/r/jobs", 200, "{\"jobs\":[" + entry(host_1, "") + "]}");
    server_->answer(one(), 200, entry(host_1, ""));
    server_->answer(control(), 200, results(host_1, run_1));
  }

  static std::string one() { return std::string("GET /k2/r/jobs/") + job; }
  static std::string control() { return std::string("POST /k2/r/jobs/") + job + "/control"; }
  static std::string record_of(const std::string& run) { return "GET /k2/r/runs/" + run; }

  static std::string entry(const std::string& host, const std::string& states)
  {
    return std::string(R"({"id":")") + job + R"(","revision":3,"enabled":true,"hosts":[")" + host +
           R"("],"document":{"id":")" + job +
           R"(","name":"nightly","type":"backup","subtype":"full","schedules":[{"type":1,"cron":"0 2 * * *"}]},"states":{)" +
           states + "}}";
  }

  static std::string under_way(const std::string& host, const std::string& run, int done)
  {
    return "\"" + host + R"(":{"running":true,"run_id":")" + run +
           R"(","state":"running","now":{"run_id":")" + run + R"(","state":"running","done_bytes":)" +
           std::to_string(done) + R"(,"total_bytes":100}})";
  }

  static std::string results(const std::string& host, const std::string& run)
  {
    return R"({"results":[{"host":")" + host + R"(","run_id":")" + run + "\"}]}";
  }

  static std::string record(const std::string& run, const std::string& host, const std::string& state,
                            const std::string& reason = "")
  {
    return R"({"run_id":")" + run + R"(","definition_id":")" + job + R"(","host_uuid":")" + host +
           R"(","name":"nightly","state":")" + state +
           R"(","started_at":1700000000,"ended_at":1700000060,"reason":")" + reason +
           R"(","log_path":"/var/log/x.log","alerts":[],"done_bytes":100})";
  }

  json_spirit::Object sent(const std::string& line)
  {
    const json_spirit::Value body = server_->last_body(line);
    return body.type() == json_spirit::obj_type ? body.get_obj() : json_spirit::Object();
  }
};
} // namespace

TEST_F(Served_Jobs, are_listed_with_their_state)
{
  server_->answer("GET /k2/r/jobs", 200, "{\"jobs\":[" + entry(host_1, under_way(host_1, run_1, 7)) + "]}");
  const Command_Outcome outcome = run({"jobs"});
  EXPECT_EQ(0, outcome.code) << outcome.err;
  EXPECT_TRUE(holds(outcome.out, "nightly  backup full  alpha  running")) << outcome.out;
}

TEST_F(Served_Jobs, are_found_by_name_and_by_the_beginning_of_their_id)
{
  EXPECT_EQ(0, run({"job", "show", "nightly"}).code);
  EXPECT_EQ(0, run({"job", "show", "dddd"}).code);
  const Command_Outcome unknown = run({"job", "show", "weekly"});
  EXPECT_EQ(1, unknown.code);
  EXPECT_EQ("kestrel: there is no job weekly; 'kestrel jobs' lists them\n", unknown.err);
}

TEST_F(Served_Jobs, show_why_nobody_did_the_work_of_a_cluster)
{
  const std::string plain = entry(host_1, "");
  server_->answer(one(), 200,
                  plain.substr(0, plain.size() - 1) +
                      R"(,"nobody_worked":"no node did the work of nightly: host alpha: error, it is off"})");
  const Command_Outcome outcome = run({"job", "show", "nightly"});
  EXPECT_EQ(0, outcome.code) << outcome.err;
  EXPECT_TRUE(holds(outcome.out, "no node did the work of nightly: host alpha: error, it is off"))
      << outcome.out;
}

TEST_F(Served_Jobs, whose_work_no_node_did_are_listed_so_on_a_screen_of_80_columns)
{
  std::string undone = entry(host_1, "");
  undone.replace(undone.find("nightly"), 7, "backup of the whole cluster");
  undone.insert(undone.size() - 1,
                R"(,"nobody_worked":"no node did the work: host alpha: error, it is off")");
  server_->answer("GET /k2/r/jobs", 200, "{\"jobs\":[" + undone + "," + entry(host_1, "") + "]}");
  const Command_Outcome outcome = run({"jobs"});
  EXPECT_EQ(0, outcome.code) << outcome.err;
  EXPECT_TRUE(holds(outcome.out, "\nbackup of the who...  backup full  alpha  no node  -")) << outcome.out;
  EXPECT_TRUE(holds(outcome.out, "  backup full  alpha  -        -")) << outcome.out;
  EXPECT_TRUE(holds(outcome.out,
                    "No node did the work of backup of the whole cluster when it was started last;\n"
                    "why: kestrel nodes --definition dddddddd\n"))
      << outcome.out;
  EXPECT_LE(longest_line(outcome.out), 80u) << outcome.out;
  const Command_Outcome json = run({"--json", "jobs"});
  EXPECT_TRUE(holds(json.out, "\"nobody_worked\": \"no node did the work: host alpha: error, it is off\""))
      << json.out;
}

TEST_F(Served_Jobs, with_long_names_fit_a_screen)
{
  std::string wide = entry(host_1, "\"" + std::string(host_1) +
                                       R"(":{"state":"completed with errors","next_run":1800000000})");
  wide.replace(wide.find("nightly"), 7, "the backup of everything that there is");
  wide.replace(wide.find(R"("hosts":[)"), 9, R"("hosts":[")" + std::string(host_2) + R"(",)");
  server_->answer("GET /k2/r/jobs", 200, "{\"jobs\":[" + wide + "]}");
  const Command_Outcome outcome = run({"jobs"});
  EXPECT_EQ(0, outcome.code) << outcome.err;
  EXPECT_TRUE(holds(outcome.out, "\nthe backup o...  backup full  beta,alpha  complet...  2027-01-15 "))
      << outcome.out;
  EXPECT_EQ(80u, longest_line(outcome.out)) << outcome.out;
}

TEST_F(Served_Jobs, are_controlled_on_the_hosts_that_are_named)
{
  EXPECT_EQ(0, run({"job", "pause", "nightly", "--host", "alpha"}).code);
  EXPECT_EQ("pause", required<std::string>(sent(control()), "action"));
  EXPECT_EQ(host_1, required<json_spirit::Array>(sent(control()), "hosts").front().get_str());
  EXPECT_EQ(0, run({"job", "cancel", "nightly"}).code);
  EXPECT_TRUE(find_value(sent(control()), "hosts").is_null());
}

TEST_F(Served_Jobs, are_aborted_and_switched)
{
  for (const std::string action : {"abort", "switch"}) {
    const Command_Outcome outcome = run({"job", action, "nightly", "--host", "alpha"});
    EXPECT_EQ(0, outcome.code) << outcome.err;
    EXPECT_EQ(action, required<std::string>(sent(control()), "action"));
    EXPECT_EQ(host_1, required<json_spirit::Array>(sent(control()), "hosts").front().get_str());
    EXPECT_EQ("Job nightly on alpha: " + action + " accepted, run " + run_1 + ".\n", outcome.out);
  }
}

TEST_F(Served_Jobs, that_cannot_switch_say_so)
{
  server_->answer(
      control(), 200,
      std::string(R"({"results":[{"host":")") + host_1 +
          R"(","run_id":"","error":{"code":-32002,"message":"jobs of this kind do not accept switch"}}]})");
  const Command_Outcome outcome = run({"job", "switch", "nightly"});
  EXPECT_EQ(1, outcome.code);
  EXPECT_EQ("kestrel: job nightly: switch was refused: host alpha: jobs of this kind do not accept switch\n",
            outcome.err);
}

TEST_F(Served_Jobs, fail_with_the_reason_of_the_host_that_refused)
{
  server_->answer(control(), 200,
                  std::string(R"({"results":[{"host":")") + host_1 +
                      R"(","run_id":"","error":{"code":-32002,"message":"it is running already"}}]})");
  const Command_Outcome outcome = run({"job", "run", "nightly"});
  EXPECT_EQ(1, outcome.code);
  EXPECT_EQ("kestrel: job nightly: run was refused: host alpha: it is running already\n", outcome.err);
}

TEST_F(Served_Jobs, are_asked_for_again_on_a_host_that_has_not_heard_of_them_yet)
{
  server_->answer_once(control(), 200,
                       std::string(R"({"results":[{"host":")") + host_1 +
                           R"(","run_id":"","error":{"code":-32001,"message":"unknown"}}]})");
  EXPECT_EQ(0, run({"job", "run", "nightly"}).code);
  EXPECT_EQ(2u, server_->count(control()));
}

TEST_F(Served_Jobs, are_given_up_on_a_host_that_never_hears_of_them)
{
  server_->answer(control(), 200,
                  std::string(R"({"results":[{"host":")") + host_1 +
                      R"(","run_id":"","error":{"code":-32001,"message":"unknown"}}]})");
  EXPECT_EQ(1, run({"job", "run", "nightly"}).code);
  EXPECT_LT(clock_.slept_msec(), 60000);
}

TEST_F(Served_Jobs, end_a_command_that_waits_as_their_run_ends)
{
  const std::vector<std::pair<const char*, int>> ends = {{"completed", 0}, {"completed with errors", 0},
                                                         {"error", 1},     {"canceled", 3},
                                                         {"skipped", 4},   {"what is this", 1}};
  for (const auto& end : ends) {
    server_->answer_once(one(), 200, entry(host_1, under_way(host_1, run_1, 10)));
    server_->answer_once(one(), 200, entry(host_1, under_way(host_1, run_1, 60)));
    server_->answer(record_of(run_1), 200, record(run_1, host_1, end.first, "because"));
    const Command_Outcome outcome = run({"job", "run", "nightly", "--wait"});
    EXPECT_EQ(end.second, outcome.code) << end.first << ": " << outcome.err;
    if (end.second != 0) {
      EXPECT_TRUE(holds(outcome.err, "(log: alpha:/var/log/x.log)")) << outcome.err;
    }
  }
}

TEST_F(Served_Jobs, are_not_ended_by_a_record_that_is_not_complete)
{
  server_->answer(record_of(run_1), 200, record(run_1, host_1, "completed"));
  server_->answer_once(record_of(run_1), 404, "{}");
  server_->answer_once(record_of(run_1), 200, R"({"run_id":"x","state":"running","ended_at":0})");
  EXPECT_EQ(0, run({"job", "run", "nightly", "--wait"}).code);
  EXPECT_EQ(3u, server_->count(record_of(run_1)));
}

TEST_F(Served_Jobs, are_followed_through_a_restart_of_the_server)
{
  bool away = false;
  server_->answer(one(), [&](const Fake_Server::Request&) {
    if (!away)
      server_->be_away(5);
    away = true;
    return std::make_pair(200, entry(host_1, under_way(host_1, run_1, 10)));
  });
  server_->answer(record_of(run_1), 200, record(run_1, host_1, "completed"));
  EXPECT_EQ(0, run({"job", "run", "nightly", "--wait"}).code);
}

TEST_F(Served_Jobs, count_as_done_when_one_of_several_nodes_did_the_work)
{
  const std::string both = R"({"results":[{"host":")" + std::string(host_1) + R"(","run_id":")" + run_1 +
                           R"("},{"host":")" + host_2 + R"(","run_id":")" + run_2 + "\"}]}";
  server_->answer(control(), 200, both);
  server_->answer(record_of(run_1), 200, record(run_1, host_1, "skipped", "another node was chosen"));
  server_->answer(record_of(run_2), 200, record(run_2, host_2, "completed"));
  const Command_Outcome outcome = run({"--json", "job", "run", "nightly", "--wait"});
  EXPECT_EQ(0, outcome.code) << outcome.err;
  json_spirit::Value value;
  std::string error;
  ASSERT_TRUE(read_json(outcome.out, value, error)) << outcome.out;
  EXPECT_EQ(2u, required<json_spirit::Array>(value.get_obj(), "runs").size());

  server_->answer(record_of(run_2), 200, record(run_2, host_2, "error", "broken"));
  EXPECT_EQ(1, run({"job", "run", "nightly", "--wait"}).code);
}

TEST_F(Served_Jobs, are_canceled_through_the_server_by_one_signal)
{
  bool signaled = false;
  server_->answer(one(), [&](const Fake_Server::Request&) {
    if (!signaled)
      ::raise(SIGINT);
    signaled = true;
    return std::make_pair(200,
                          entry(host_1, server_->count(control()) < 2 ? under_way(host_1, run_1, 10) : ""));
  });
  server_->answer(record_of(run_1), 200, record(run_1, host_1, "canceled"));
  const Command_Outcome outcome = run({"job", "run", "nightly", "--wait"});
  EXPECT_EQ(3, outcome.code) << outcome.err;
  EXPECT_EQ(2u, server_->count(control()));
  EXPECT_EQ("cancel", required<std::string>(sent(control()), "action"));
}

TEST_F(Served_Jobs, go_on_when_the_cancel_cannot_be_sent)
{
  server_->answer_once(control(), 200, results(host_1, run_1));
  server_->answer(one(), [&](const Fake_Server::Request&) {
    ::raise(SIGINT);
    server_->answer(control(), 503, R"({"error":{"code":"host_offline","message":"away"}})");
    return std::make_pair(200, entry(host_1, under_way(host_1, run_1, 10)));
  });
  const Command_Outcome outcome = run({"job", "run", "nightly", "--wait"});
  EXPECT_EQ(1, outcome.code);
  EXPECT_TRUE(holds(outcome.err, "the job goes on")) << outcome.err;
}

TEST_F(Served_Jobs, do_not_hold_who_asked_for_a_cancel_that_no_host_took)
{
  server_->answer_once(control(), 200, results(host_1, run_1));
  server_->answer(one(), [&](const Fake_Server::Request&) {
    ::raise(SIGINT);
    server_->answer(control(), 200,
                    std::string(R"({"results":[{"host":")") + host_1 +
                        R"(","run_id":"","error":{"code":-32003,"message":"its agent is not connected"}}]})");
    return std::make_pair(200, entry(host_1, under_way(host_1, run_1, 10)));
  });
  const Command_Outcome outcome = run({"job", "run", "nightly", "--wait"});
  EXPECT_EQ(1, outcome.code);
  EXPECT_TRUE(holds(outcome.err,
                    "the host alpha did not take the cancel: its agent is not connected; the job goes on"))
      << outcome.err;
  EXPECT_EQ(2u, server_->count(control()));
  EXPECT_LT(clock_.slept_msec(), 60000);
}

TEST_F(Served_Jobs, show_their_end_when_the_cancel_came_too_late)
{
  server_->answer_once(control(), 200, results(host_1, run_1));
  server_->answer(one(), [&](const Fake_Server::Request&) {
    ::raise(SIGINT);
    server_->answer(control(), 200,
                    std::string(R"({"results":[{"host":")") + host_1 +
                        R"(","run_id":"","error":{"code":-32002,"message":"it does not run"}}]})");
    return std::make_pair(200, entry(host_1, ""));
  });
  server_->answer(record_of(run_1), 200, record(run_1, host_1, "completed"));
  server_->answer_once(record_of(run_1), 404, "{}");
  EXPECT_EQ(0, run({"job", "run", "nightly", "--wait"}).code);
}

TEST_F(Served_Jobs, are_waited_for_while_their_host_is_away)
{
  server_->answer(one(), 200, entry(host_1, ""));
  for (int i = 0; i < 1000; ++i)
    server_->answer_once(one(), 200,
                         entry(host_1, std::string("\"") + host_1 + R"(":{"online":false,"now":{"run_id":")" +
                                           run_1 + R"(","state":"running"}})"));
  server_->answer(record_of(run_1), 200, record(run_1, host_1, "completed"));
  EXPECT_EQ(0, run({"job", "run", "nightly", "--wait"}).code);
  EXPECT_GT(clock_.slept_msec(), 300 * 1000);
}

TEST_F(Served_Jobs, are_given_up_when_their_host_stays_away)
{
  server_->answer(one(), 200,
                  entry(host_1, std::string("\"") + host_1 + R"(":{"online":false,"now":{"run_id":")" +
                                    run_1 + R"(","state":"running"}})"));
  const Command_Outcome outcome = run({"job", "run", "nightly", "--wait"});
  EXPECT_EQ(1, outcome.code);
  EXPECT_TRUE(holds(outcome.err, "the host alpha has not been connected for an hour")) << outcome.err;
  EXPECT_GE(clock_.slept_msec(), 3600 * 1000);
}

TEST_F(Served_Jobs, are_given_up_when_the_server_stays_away)
{
  server_->answer(one(), 503, R"({"error":{"code":"busy","message":"not now"}})");
  server_->answer_once(one(), 200, entry(host_1, under_way(host_1, run_1, 10)));
  server_->answer(record_of(run_1), 503, R"({"error":{"code":"busy","message":"not now"}})");
  const Command_Outcome outcome = run({"job", "run", "nightly", "--wait"});
  EXPECT_EQ(1, outcome.code);
  EXPECT_TRUE(holds(outcome.err, "the server has not answered for an hour")) << outcome.err;
  EXPECT_GE(clock_.slept_msec(), 3600 * 1000);
}

TEST_F(Served_Jobs, are_given_up_when_a_connected_host_never_tells_the_end)
{
  server_->answer(std::string("GET /k2/r/hosts/") + host_1, 200, R"({"name":"alpha","online":true})");
  const Command_Outcome outcome = run({"job", "run", "nightly", "--wait"});
  EXPECT_EQ(1, outcome.code);
  EXPECT_TRUE(holds(outcome.err, "does not tell how the run")) << outcome.err;
  EXPECT_LT(clock_.slept_msec(), 10 * 60 * 1000);
}

TEST_F(Served_Jobs, stop_being_followed_when_the_session_ends)
{
  server_->answer(one(), 401, R"({"error":{"code":"unauthorized","message":"ended"}})");
  const Command_Outcome outcome = run({"job", "run", "nightly", "--wait"});
  EXPECT_EQ(1, outcome.code);
  EXPECT_TRUE(holds(outcome.err, "the sign-in has ended; the job goes on")) << outcome.err;
}

TEST_F(Served_Jobs, are_made_from_a_file_that_leaves_off_what_the_server_knows)
{
  server_->answer("GET /k2/r/jobs", 200, R"({"jobs":[]})");
  server_->answer("POST /k2/r/jobs", 201, "{}");
  const std::string file = directory_.write(
      "job.json", R"({"name":"db2","type":"backup","subtype":"full","source":{"entries":["oscar/DB2"]},
"schedules":[{"type":1,"cron":"0 2 * * *"}]})");
  const Command_Outcome outcome = run({"job", "define", file, "--disabled"});
  ASSERT_EQ(0, outcome.code) << outcome.err;
  const json_spirit::Object body = sent("POST /k2/r/jobs");
  EXPECT_FALSE(required<bool>(body, "enabled"));
  EXPECT_EQ(host_1, required<json_spirit::Array>(body, "hosts").front().get_str());
  const auto document = required<json_spirit::Object>(body, "document");
  EXPECT_EQ(required<std::string>(body, "id"), required<std::string>(document, "id"));
  EXPECT_EQ(36u, required<std::string>(document, "uid").size());
  EXPECT_EQ(pool, required<std::string>(required<json_spirit::Object>(document, "target"), "id"));
  EXPECT_EQ(db2_on_1, required<std::string>(required<json_spirit::Object>(document, "source"), "id"));
  EXPECT_TRUE(holds(outcome.out, required<std::string>(document, "id"))) << outcome.out;
}

TEST_F(Served_Jobs, are_changed_by_a_file_with_the_same_name)
{
  server_->answer(std::string("PUT /k2/r/jobs/") + job, 200, "{}");
  const std::string file = directory_.write(
      "job.json", R"({"name":"nightly","type":1,"subtype":2,"source":{"id":"x","entries":["oscar/DB1"]},
"target":{"id":"main"}})");
  const Command_Outcome outcome = run({"job", "define", file});
  ASSERT_EQ(0, outcome.code) << outcome.err;
  EXPECT_TRUE(holds(outcome.out, "Changed job dddddddd")) << outcome.out;
  const json_spirit::Object body = sent(std::string("PUT /k2/r/jobs/") + job);
  EXPECT_EQ(host_1, required<json_spirit::Array>(body, "hosts").front().get_str());
}

TEST_F(Served_Jobs, are_refused_when_the_file_is_no_definition)
{
  for (const char* text :
       {"", "[]", "{", R"({"type":"backup"})", R"({"source":{"entries":["oscar/DB2"]}})",
        R"({"id":"nightly","type":"backup","source":{"entries":["oscar/DB2"]}})",
        R"({"type":"backup","source":[]})",
        R"({"type":"backup","source":{"entries":["oscar/DB2"]},"target":{"id":"lost"}})"}) {
    const std::string file = directory_.write("bad.json", text);
    const Command_Outcome outcome = run({"job", "define", file});
    EXPECT_EQ(1, outcome.code) << text;
    EXPECT_TRUE(holds(outcome.err, "kestrel: the job definition " + file + " is refused: ")) << outcome.err;
  }
  EXPECT_EQ(1, run({"job", "define", directory_ / "missing.json"}).code);
  EXPECT_EQ(0u, server_->count("POST /k2/r/jobs"));
}

TEST_F(Served_Jobs, are_refused_with_a_compression_that_does_not_exist)
{
  for (const char* word : {R"("zst")", R"("ZSTD")", R"("")", R"("zstd\u0000")", "3", "null", "[]"}) {
    for (const char* type : {R"("backup")", R"("backup","subtype":"export")", "1"}) {
      const std::string file = directory_.write(
          "job.json", std::string(R"({"name":"new","type":)") + type +
                          R"(,"source":{"entries":["oscar/DB2"]},"options":{"compression":)" + word + "}}");
      for (const std::vector<std::string>& words :
           {std::vector<std::string>{"job", "define", file}, {"run", file}}) {
        const Command_Outcome outcome = run(words);
        EXPECT_EQ(1, outcome.code) << word;
        EXPECT_EQ("kestrel: the job definition " + file + R"( is refused: "compression" in "options" is )" +
                      word + "; it may be one of none, zlib, lz4, zstd\n",
                  outcome.err);
      }
    }
  }
  EXPECT_EQ(0u, server_->count("POST /k2/r/jobs"));
}

TEST_F(Served_Jobs, may_have_every_compression_that_there_is)
{
  server_->answer("GET /k2/r/jobs", 200, R"({"jobs":[]})");
  server_->answer("POST /k2/r/jobs", 201, "{}");
  for (const char* options :
       {R"({"compression":"none"})", R"({"compression":"zlib"})", R"({"compression":"lz4"})",
        R"({"compression":"zstd","compression_level":9})", "{}"}) {
    const std::string file = directory_.write(
        "job.json",
        std::string(R"({"name":"new","type":"backup","source":{"entries":["oscar/DB2"]},"options":)") +
            options + "}");
    EXPECT_EQ(0, run({"job", "define", file}).code) << options;
  }
  // Of a restore it means nothing.
  const std::string file = directory_.write(
      "job.json",
      R"({"name":"new","type":"restore","source":{"entries":["oscar/DB2"]},"options":{"compression":"x"}})");
  EXPECT_EQ(0, run({"job", "define", file}).code);
}

TEST_F(Served_Jobs, are_left_alone_by_a_file_with_an_instance_that_none_of_their_hosts_has)
{
  const std::string file = directory_.write(
      "job.json",
      R"({"name":"nightly","type":"backup","subtype":"incr","source":{"entries":["oscar/NOPE"]}})");
  const Command_Outcome outcome = run({"job", "define", file});
  EXPECT_EQ(1, outcome.code);
  EXPECT_TRUE(holds(outcome.err, "is refused: none of its hosts has an instance NOPE; ")) << outcome.err;
  EXPECT_EQ(0u, server_->count(std::string("PUT /k2/r/jobs/") + job));
  EXPECT_EQ(0u, server_->count("POST /k2/r/jobs"));
}

TEST_F(Served_Jobs, can_be_removed)
{
  server_->answer(std::string("DELETE /k2/r/jobs/") + job, 200, "{}");
  EXPECT_EQ(0, run({"job", "remove", "nightly"}).code);
  EXPECT_EQ(1u, server_->count(std::string("DELETE /k2/r/jobs/") + job));
}

TEST_F(Served_Jobs, backup_of_an_instance_is_a_job_on_its_host)
{
  const std::string define = "POST /k2/r/jobs";
  std::string id;
  server_->answer(define, [&](const Fake_Server::Request& request) {
    id = required<std::string>(request.body.get_obj(), "id");
    server_->answer("POST /k2/r/jobs/" + id + "/control", 200, results(host_1, run_1));
    server_->answer("GET /k2/r/jobs/" + id, 200, entry(host_1, ""));
    return std::make_pair(201, std::string("{}"));
  });
  server_->answer(record_of(run_1), 200, record(run_1, host_1, "error", "the disk is full"));
  const Command_Outcome outcome = run({"backup", "DB2", "--level", "incr"});
  EXPECT_EQ(1, outcome.code);
  EXPECT_TRUE(
      holds(outcome.err,
            "the backup of DB2 failed: the disk is full; read the job log (log: alpha:/var/log/x.log)"))
      << outcome.err;
  const auto document = required<json_spirit::Object>(sent(define), "document");
  EXPECT_EQ("backup DB2", required<std::string>(document, "name"));
  EXPECT_EQ("incr", required<std::string>(document, "subtype"));
  EXPECT_EQ(host_1, required<std::string>(document, "host_id"));
  EXPECT_EQ(7, required<int>(required<json_spirit::Array>(document, "schedules").front().get_obj(), "type"));
}

TEST_F(Served_Jobs, show_the_whole_log_of_a_run)
{
  server_->answer(record_of("eeeeeee1"), 404, "{}");
  server_->answer("GET /k2/r/runs", 200, "{\"runs\":[" + record(run_1, host_1, "completed") + "]}");
  const std::string log = record_of(run_1) + "/log";
  server_->answer(log, 200, R"({"text":"","next_offset":10,"ended":true})");
  server_->answer_once(log, 200, R"({"text":"first\n","next_offset":6,"ended":false})");
  server_->answer_once(log, 200, R"({"text":"end\n","next_offset":10,"ended":true})");
  const Command_Outcome outcome = run({"job", "log", "eeeeeee1"});
  EXPECT_EQ(0, outcome.code) << outcome.err;
  EXPECT_EQ("first\nend\n", outcome.out);
}

TEST_F(Served_Jobs, show_a_log_as_it_grows_when_asked_to)
{
  server_->answer(record_of("nightly"), 404, "{}");
  server_->answer("GET /k2/r/runs", 200, "{\"runs\":[]}");
  server_->answer("GET /k2/r/jobs", 200, "{\"jobs\":[" + entry(host_1, under_way(host_1, run_1, 7)) + "]}");
  const std::string log = record_of(run_1) + "/log";
  server_->answer(log, 200, R"({"text":"","next_offset":10,"ended":true})");
  server_->answer_once(log, 200, R"({"text":"one\n","next_offset":4,"ended":false})");
  server_->answer_once(log, 200, R"({"text":"","next_offset":4,"ended":false})");
  server_->answer_once(log, 200, R"({"text":"two\n","next_offset":8,"ended":false})");
  const Command_Outcome outcome = run({"job", "log", "-f", "nightly"});
  EXPECT_EQ(0, outcome.code) << outcome.err;
  EXPECT_EQ("one\ntwo\n", outcome.out);
}

TEST_F(Served_Jobs, do_not_print_a_log_for_ever_that_does_not_move)
{
  server_->answer(record_of(run_1), 200, record(run_1, host_1, "completed"));
  server_->answer(record_of(run_1) + "/log", 200, R"({"text":"again\n","next_offset":0,"ended":false})");
  EXPECT_EQ(1, run({"job", "log", run_1}).code);
}

TEST_F(Served_Jobs, list_all_runs_though_the_server_gives_them_in_pages)
{
  server_->answer_once("GET /k2/r/runs", 200,
                       "{\"runs\":[" + record(run_1, host_1, "completed") + "],\"next\":\"1700000000," +
                           run_1 + "\"}");
  server_->answer_once("GET /k2/r/runs", 200,
                       "{\"runs\":[" + record(run_2, host_1, "error") + "],\"next\":\"\"}");
  const Command_Outcome outcome = run({"job", "runs"});
  EXPECT_EQ(0, outcome.code) << outcome.err;
  EXPECT_TRUE(holds(outcome.out, "eeeeeee1")) << outcome.out;
  EXPECT_TRUE(holds(outcome.out, "error")) << outcome.out;
}

TEST_F(Served_Jobs, list_runs_by_host)
{
  server_->answer("GET /k2/r/runs", 200,
                  "{\"runs\":[" + record(run_1, host_1, "completed with errors") + "]}");
  const Command_Outcome outcome = run({"job", "runs"});
  EXPECT_EQ(0, outcome.code);
  EXPECT_TRUE(holds(outcome.out, "eeeeeee1  nightly  alpha  completed...")) << outcome.out;
  EXPECT_TRUE(holds(outcome.out, "1 min 00 s")) << outcome.out;
}
