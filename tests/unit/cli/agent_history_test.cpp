#include "agent/job_database.h"
#include "agent/run_history.h"
#include "cli/command_line.h"
#include "cli/exit_code.h"
#include "console_fixture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"
#include "json/json_util.h"

#include <gtest/gtest.h>
#include <soci/soci.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
const char job_1[] = "dddddddd-0000-4000-8000-000000000001";
const char job_2[] = "dddddddd-0000-4000-8000-000000000002";

/// The command, and a database as an agent leaves it or works on it.
class Agent_History : public testing::Test
{
protected:
  Agent_History() { root_.make_dir("var/opt/tarnvik/kestrel3/agent"); }

  std::string path() const { return root_ / "var/opt/tarnvik/kestrel3/agent/agent.db"; }

  void open_database()
  {
    std::string error;
    ASSERT_TRUE(database_.open(path(), error)) << error;
  }

  void put(const std::string& run_id, const std::string& definition_id, const std::string& name,
           Job_State state, const std::string& reason = "")
  {
    Run_Record record;
    record.run_id = run_id;
    record.definition_id = definition_id;
    record.name = name;
    record.trigger = "schedule";
    record.state = state;
    record.queued_at = 1700000000;
    record.started_at = 1700000001;
    record.ended_at = job_run_in_progress(state) ? 0 : 1700000061;
    record.reason = reason;
    record.log_path = "/var/log/kestrel3/jobs/" + run_id + ".log";
    record.instance = "DB1";
    std::string error;
    ASSERT_TRUE(history_.put(record, error)) << error;
  }

  /// Three runs of two jobs; the newest is under way.
  void fill()
  {
    open_database();
    put("eeeeeee1-0000-4000-8000-000000000001", job_1, "nightly", JOB_STATE_COMPLETED);
    put("eeeeeee2-0000-4000-8000-000000000002", job_2, "a weekly backup of everything",
        JOB_STATE_COMPLETED_WITH_ERRORS,
        "Two tablespaces are offline: their files were not read, and the backup set does not have them");
    put("eeeeeee3-0000-4000-8000-000000000003", job_1, "nightly", JOB_STATE_RUNNING);
  }

  Command_Outcome run(std::vector<std::string> words)
  {
    words.insert(words.begin(), {"kestrel", "--root", root_.path()});
    std::vector<char*> argv;
    for (std::string& word : words)
      argv.push_back(word.data());
    Command_Line line;
    Command_Outcome outcome;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    if (parse_command_line(static_cast<int>(argv.size()), argv.data(), line, outcome.code))
      outcome.code = run_command(line);
    outcome.out = testing::internal::GetCapturedStdout();
    outcome.err = testing::internal::GetCapturedStderr();
    return outcome;
  }

  json_spirit::Array runs_of(const Command_Outcome& outcome)
  {
    json_spirit::Value value;
    std::string error;
    EXPECT_TRUE(read_json(outcome.out, value, error)) << outcome.out;
    return value.type() == json_spirit::obj_type ? required<json_spirit::Array>(value.get_obj(), "runs")
                                                 : json_spirit::Array();
  }

  Temp_Dir root_;
  Scoped_Env no_root_{"KESTREL_ROOT", ""};
  Scoped_Env no_server_{"KESTREL_SERVER", ""};
  Job_Database database_;
  Run_History history_{database_, true};
};

bool holds(const std::string& text, const std::string& part)
{
  return text.find(part) != std::string::npos;
}
} // namespace

TEST_F(Agent_History, lists_runs_newest_first_with_reasons_and_logs_while_the_agent_has_the_database_open)
{
  fill();
  Command_Outcome outcome;
  {
    const Scoped_Env zone("TZ", "UTC");
    ::tzset();
    outcome = run({"agent", "history"});
  }
  ::tzset();
  EXPECT_EQ(0, outcome.code) << outcome.err;
  EXPECT_EQ("RUN       JOB                 STATE             BEGUN             TOOK\n"
            "eeeeeee3  nightly             running           2023-11-14 22:13  -\n"
            "          log: /var/log/kestrel3/jobs/eeeeeee3-0000-4000-8000-000000000003.log\n"
            "eeeeeee2  a weekly backup...  completed wit...  2023-11-14 22:13  1 min 00 s\n"
            "          Two tablespaces are offline: their files were not read, and the backup\n"
            "          set does not have them\n"
            "          log: /var/log/kestrel3/jobs/eeeeeee2-0000-4000-8000-000000000002.log\n"
            "eeeeeee1  nightly             completed         2023-11-14 22:13  1 min 00 s\n",
            outcome.out);
  // The agent goes on as if nobody had looked.
  put("eeeeeee4-0000-4000-8000-000000000004", job_1, "nightly", JOB_STATE_ERROR, "full");
  EXPECT_EQ(4u, runs_of(run({"--json", "agent", "history"})).size());
}

TEST_F(Agent_History, is_read_when_no_agent_runs_and_stays_as_it_is)
{
  fill();
  database_.close();
  const std::string before = read_file(path());
  const json_spirit::Array runs = runs_of(run({"--json", "agent", "history"}));
  ASSERT_EQ(3u, runs.size());
  const json_spirit::Object& newest = runs[0].get_obj();
  EXPECT_EQ("eeeeeee3-0000-4000-8000-000000000003", required<std::string>(newest, "run_id"));
  EXPECT_EQ("running", required<std::string>(newest, "state"));
  EXPECT_EQ(job_1, required<std::string>(newest, "definition_id"));
  EXPECT_EQ("schedule", required<std::string>(newest, "trigger"));
  EXPECT_EQ(0, required<int>(newest, "ended_at"));
  EXPECT_EQ(1700000061, required<int>(runs[1].get_obj(), "ended_at"));
  EXPECT_TRUE(json_spirit::find_value(newest, "host_uuid").is_null());
  EXPECT_EQ(before, read_file(path()));
  open_database();
  put("eeeeeee4-0000-4000-8000-000000000004", job_1, "nightly", JOB_STATE_ERROR, "full");
}

TEST_F(Agent_History, can_be_narrowed_to_a_job_and_to_the_newest)
{
  fill();
  for (const char* job : {"nightly", "dddddddd-0000-4000-8000-000000000001"}) {
    const json_spirit::Array runs = runs_of(run({"--json", "agent", "history", job}));
    ASSERT_EQ(2u, runs.size());
    EXPECT_EQ("nightly", required<std::string>(runs[1].get_obj(), "name"));
  }
  EXPECT_EQ(1u, runs_of(run({"--json", "agent", "history", "--limit", "1"})).size());
  EXPECT_EQ(1u, runs_of(run({"--json", "agent", "history", "nightly", "--limit", "1"})).size());
  EXPECT_EQ(3u, runs_of(run({"--json", "agent", "history", "--limit", "0"})).size());
  const Command_Outcome unknown = run({"agent", "history", "monthly"});
  EXPECT_EQ(1, unknown.code);
  EXPECT_EQ("kestrel: there is no job monthly in the history; 'kestrel agent history' lists those that have "
            "run here\n",
            unknown.err);
  const Command_Outcome several = run({"agent", "history", "dddd"});
  EXPECT_EQ(1, several.code);
  EXPECT_TRUE(holds(several.err, "nightly") && holds(several.err, "weekly")) << several.err;
}

TEST_F(Agent_History, tells_what_the_server_refused)
{
  open_database();
  put("eeeeeee1-0000-4000-8000-000000000001", job_1, "nightly", JOB_STATE_COMPLETED);
  std::string error;
  ASSERT_TRUE(
      history_.mark_refused({{"eeeeeee1-0000-4000-8000-000000000001", "it is another host's"}}, error))
      << error;
  const Command_Outcome outcome = run({"agent", "history"});
  EXPECT_TRUE(holds(outcome.out, "\n          the server does not take this record: it is another host's\n"))
      << outcome.out;
}

TEST_F(Agent_History, is_empty_where_no_agent_has_run_yet_and_makes_nothing)
{
  const std::string words = "o agent has run on this host yet: there is no " + path();
  const Command_Outcome missing = run({"agent", "history"});
  EXPECT_EQ(0, missing.code);
  EXPECT_EQ("", missing.err);
  EXPECT_EQ("N" + words + ".\n", missing.out);
  EXPECT_FALSE(exists(path()));
  const Command_Outcome json = run({"--json", "agent", "history"});
  EXPECT_EQ(0, json.code);
  json_spirit::Value value;
  std::string error;
  ASSERT_TRUE(read_json(json.out, value, error)) << error << json.out;
  EXPECT_EQ("{\"runs\":[]}", write_json(value));
  const Command_Outcome named = run({"agent", "history", "nightly"});
  EXPECT_EQ(1, named.code);
  EXPECT_EQ("kestrel: n" + words + "\n", named.err);
  std::filesystem::remove_all(root_ / "var");
  EXPECT_EQ(0, run({"agent", "history"}).code);
  EXPECT_FALSE(exists(root_ / "var/opt"));
}

TEST_F(Agent_History, is_empty_before_the_first_run)
{
  open_database();
  const Command_Outcome outcome = run({"agent", "history"});
  EXPECT_EQ(0, outcome.code) << outcome.err;
  EXPECT_EQ("No run is kept yet.\n", outcome.out);
  EXPECT_TRUE(runs_of(run({"--json", "agent", "history"})).empty());
}

TEST_F(Agent_History, refuses_a_file_that_is_no_database_or_is_damaged)
{
  fill();
  database_.close();
  const std::string whole = read_file(path());
  // Behind the header and the schema, and all of it.
  for (const size_t from : {size_t(4096), size_t(0)}) {
    std::ofstream file(path(), std::ios::binary | std::ios::trunc);
    file << whole.substr(0, from) << std::string(whole.size() - from, 'x');
    file.close();
    const Command_Outcome outcome = run({"agent", "history"});
    EXPECT_EQ(1, outcome.code) << outcome.out;
    EXPECT_TRUE(holds(outcome.err, "the agent's database " + path() + ": ")) << outcome.err;
    EXPECT_TRUE(holds(outcome.err, "The file is damaged: move it away")) << outcome.err;
    EXPECT_EQ(1, std::count(outcome.err.begin(), outcome.err.end(), '\n')) << outcome.err;
  }
}

TEST_F(Agent_History, refuses_a_database_of_another_release)
{
  const struct {
    int version;
    const char* words;
  } cases[] = {
      {99, "was written by a newer release (schema 99, this program knows up to 3); update this program"},
      {2, "was written by an older release (schema 2); start the agent once"},
      {0, "is empty: the agent's first start has not come so far; start the agent"}};
  for (const auto& one : cases) {
    open_database();
    std::string error;
    ASSERT_TRUE(database_.write(
        [&](soci::session& session) { session << "PRAGMA user_version = " << one.version; }, error))
        << error;
    database_.close();
    const Command_Outcome outcome = run({"agent", "history"});
    EXPECT_EQ(1, outcome.code);
    EXPECT_TRUE(holds(outcome.err, "the agent's database " + path() + ": " + one.words)) << outcome.err;
    std::filesystem::remove(path());
  }
}
