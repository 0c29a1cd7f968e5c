#include "agent_bench.h"

#include "agent/run_lock.h"
#include "base/file_lock.h"
#include "base/path_conf.h"
#include "support/waiting.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

#include <chrono>
#include <sys/stat.h>
#include <unistd.h>

using namespace kestrel_test;
using kestrel::Jobs_Error;

namespace
{
/// Waits until the job is in the state and no run of it is listed.
bool wait_rest(const Agent_Bench& agent, unsigned number)
{
  return eventually([&] { return text_of(agent.entry(number), "run_id").empty(); });
}
} // namespace

TEST(Agent_Jobs, records_a_backup_in_the_name_of_its_own_host)
{
  for (const char* host_of_document : {"host-2", ""}) {
    Agent_Bench agent;
    agent.start();
    json_spirit::Object document = agent.document(1);
    kestrel::set_value(document, "host_id", host_of_document);
    agent.sync_documents({document});
    EXPECT_EQ("completed", text_of(agent.wait_ended(agent.control(1, "run")), "state"));
    const auto rows = agent.bench.rows();
    ASSERT_EQ(1u, rows.size());
    EXPECT_EQ("host-1", text_of(rows[0].get_obj(), "host_uuid"));
  }
}

TEST(Agent_Jobs, runs_a_backup_on_request_and_keeps_its_record)
{
  Agent_Bench agent;
  agent.start();
  agent.sync_documents({agent.document(1)});
  EXPECT_EQ("idle", agent.state(1));
  const std::string run = agent.control(1, "run");
  const json_spirit::Object record = agent.wait_ended(run);
  EXPECT_EQ("completed", text_of(record, "state")) << text_of(record, "reason");
  EXPECT_EQ("console", text_of(record, "trigger"));
  EXPECT_EQ("job 1", text_of(record, "name"));
  EXPECT_EQ("host-1", text_of(record, "host_uuid"));
  EXPECT_EQ("PHYS7", text_of(record, "instance"));
  EXPECT_EQ("", text_of(record, "reason"));
  EXPECT_EQ(1, number_of(record, "revision"));
  EXPECT_GE(number_of(record, "done_bytes"), 100000);
  EXPECT_GE(number_of(record, "started_at"), number_of(record, "queued_at"));
  EXPECT_EQ(1u, agent.bench.rows().size());
  EXPECT_NE("", agent.log_text(run));
  ASSERT_TRUE(wait_rest(agent, 1));
  EXPECT_EQ("completed", agent.state(1));
  EXPECT_EQ(run, text_of(find_value(agent.entry(1), "last_run").get_obj(), "run_id"));

  const json_spirit::Array unsent = agent.jobs->unsent_runs(10);
  ASSERT_EQ(1u, unsent.size());
  EXPECT_EQ(kestrel::write_json(record), kestrel::write_json(unsent[0]));
  Jobs_Error error;
  ASSERT_TRUE(agent.jobs->mark_refused({{run, "never heard of it"}}, error)) << error.text;
  EXPECT_TRUE(agent.jobs->unsent_runs(10).empty());
  EXPECT_EQ("never heard of it", text_of(find_value(agent.entry(1), "last_run").get_obj(), "refusal"));
  json_spirit::Array kept;
  ASSERT_TRUE(agent.jobs->history("", 10, kept, error)) << error.text;
  ASSERT_EQ(1u, kept.size());
  EXPECT_EQ("never heard of it", text_of(kept[0].get_obj(), "refusal"));

  ASSERT_TRUE(
      eventually([&] { return !agent.heard(run).empty() && agent.heard(run).back() == "completed"; }));
  const std::vector<std::string> heard = agent.heard(run);
  EXPECT_EQ("dispatching", heard.front());
  EXPECT_NE(heard.end(), std::find(heard.begin(), heard.end(), "running"));
}

TEST(Agent_Jobs, follows_the_log_of_a_run_under_way)
{
  Agent_Bench agent;
  agent.start();
  agent.sync_documents({agent.document(1, true)});
  const std::string run = agent.control(1, "run");
  ASSERT_TRUE(agent.wait_up(1));
  json_spirit::Object part;
  Jobs_Error error;
  ASSERT_TRUE(agent.jobs->log(run, 0, 0, part, error)) << error.text;
  EXPECT_EQ("false", text_of(part, "ended"));
  agent.let_go(1);
  agent.wait_ended(run);
  ASSERT_TRUE(agent.jobs->log(run, static_cast<uint64_t>(number_of(part, "next_offset")), 0, part, error))
      << error.text;
  EXPECT_EQ("true", text_of(part, "ended"));
  EXPECT_FALSE(agent.jobs->log("unknown", 0, 0, part, error));
  EXPECT_EQ(Jobs_Error::unknown_id, error.code);
}

TEST(Agent_Jobs, refuses_requests_that_do_not_fit_the_state)
{
  Agent_Bench agent(1);
  agent.start();
  agent.sync_documents({agent.document(1, true), agent.document(2)});
  agent.refusal(9, "run", Jobs_Error::unknown_id);
  agent.refusal(1, "explode", Jobs_Error::bad_params);
  for (const char* action : {"pause", "resume", "cancel", "abort", "switch"})
    EXPECT_EQ("the job is not running", agent.refusal(1, action));

  const std::string run = agent.control(1, "run");
  ASSERT_TRUE(agent.wait_up(1));
  EXPECT_EQ("a run of this job is under way", agent.refusal(1, "run"));
  EXPECT_EQ("a run of this job is under way", agent.refusal(1, "disable"));
  EXPECT_NE(std::string::npos, agent.refusal(1, "resume").find("not paused"));
  const std::string waiting = agent.control(2, "run");
  EXPECT_EQ("dispatching", agent.state(2));
  EXPECT_EQ(1u, agent.jobs->counts().queued);
  EXPECT_EQ("a run of this job waits already", agent.refusal(2, "run"));
  EXPECT_NE(std::string::npos, agent.refusal(2, "pause").find("can only be canceled"));
  EXPECT_EQ(waiting, agent.control(2, "cancel"));
  EXPECT_EQ("canceled", text_of(agent.wait_ended(waiting), "state"));
  EXPECT_EQ("canceled before it began", text_of(agent.wait_ended(waiting), "reason"));
  agent.let_go(1);
  EXPECT_EQ("completed", text_of(agent.wait_ended(run), "state"));

  ASSERT_TRUE(wait_rest(agent, 1));
  agent.control(1, "disable");
  EXPECT_EQ("disabled", agent.state(1));
  EXPECT_EQ("the job is disabled", agent.refusal(1, "run"));
  agent.control(1, "enable");
  EXPECT_EQ("completed", text_of(agent.wait_ended(agent.control(1, "run")), "state"));
}

TEST(Agent_Jobs, cancels_and_aborts_runs)
{
  Agent_Bench agent;
  agent.start();
  agent.sync_documents({agent.document(1, true), agent.document(2, true)});
  const std::string canceled = agent.control(1, "run");
  const std::string aborted = agent.control(2, "run");
  ASSERT_TRUE(agent.wait_up(1));
  ASSERT_TRUE(agent.wait_up(2));
  agent.bench.clock.stand_still(); // a script that waits here is not silent
  EXPECT_EQ(canceled, agent.control(1, "cancel"));
  EXPECT_EQ(aborted, agent.control(2, "abort"));
  EXPECT_EQ("canceling", agent.state(1));
  EXPECT_NE(std::string::npos, agent.refusal(1, "pause").find("canceling"));
  agent.let_go(1);
  agent.let_go(2);
  EXPECT_EQ("canceled", text_of(agent.wait_ended(canceled), "state"));
  EXPECT_EQ("error", text_of(agent.wait_ended(aborted), "state"));
  EXPECT_TRUE(agent.bench.rows().empty());
}

TEST(Agent_Jobs, resumes_a_paused_job_with_a_new_run)
{
  Agent_Bench agent;
  agent.start();
  agent.sync_documents({agent.document(1, true)});
  const std::string first = agent.control(1, "run");
  ASSERT_TRUE(agent.wait_up(1));
  agent.control(1, "pause");
  EXPECT_EQ("pausing", agent.state(1));
  EXPECT_EQ(first, agent.control(1, "resume")) << "it has not ended yet";
  EXPECT_EQ("running", agent.state(1));
  agent.control(1, "pause");
  agent.let_go(1);
  EXPECT_EQ("paused", text_of(agent.wait_ended(first), "state"));
  ASSERT_TRUE(wait_rest(agent, 1));
  EXPECT_EQ("paused", agent.state(1));
  const std::string second = agent.control(1, "resume");
  EXPECT_NE(first, second);
  EXPECT_EQ("completed", text_of(agent.wait_ended(second), "state"));
  ASSERT_TRUE(wait_rest(agent, 1));
  agent.refusal(1, "resume");
}

TEST(Agent_Jobs, runs_no_more_jobs_at_once_than_allowed_and_in_the_order_of_the_requests)
{
  Agent_Bench agent(1);
  agent.start();
  agent.sync_documents({agent.document(1, true), agent.document(2, true), agent.document(3, true)});
  std::vector<std::string> runs;
  for (unsigned number : {3u, 1u, 2u})
    runs.push_back(agent.control(number, "run"));
  for (unsigned number : {3u, 1u, 2u}) {
    ASSERT_TRUE(agent.wait_up(number));
    EXPECT_EQ(1u, agent.jobs->counts().running);
    agent.let_go(number);
  }
  int64_t before = 0;
  for (const std::string& run : runs) {
    const json_spirit::Object record = agent.wait_ended(run);
    EXPECT_EQ("completed", text_of(record, "state")) << text_of(record, "reason");
    EXPECT_GE(number_of(record, "started_at"), before);
    before = number_of(record, "ended_at");
  }
}

TEST(Agent_Jobs, runs_of_one_source_follow_each_other_and_others_pass_them)
{
  Agent_Bench agent(2);
  agent.start();
  agent.sync_documents(
      {agent.document_of_source(1, 7, true), agent.document_of_source(2, 7, true), agent.document(3, true)});
  const std::string first = agent.control(1, "run");
  ASSERT_TRUE(agent.wait_up(1));
  const std::string second = agent.control(2, "run");
  const std::string other = agent.control(3, "run");
  ASSERT_TRUE(agent.wait_up(3)) << "it waits for nobody";
  EXPECT_EQ("dispatching", agent.state(2));
  agent.let_go(3);
  EXPECT_EQ("completed", text_of(agent.wait_ended(other), "state"));
  EXPECT_EQ("dispatching", agent.state(2));
  agent.let_go(1);
  agent.let_go(2);
  EXPECT_GE(number_of(agent.wait_ended(second), "started_at"),
            number_of(agent.wait_ended(first), "ended_at"));
}

TEST(Agent_Jobs, waits_for_a_run_of_another_process_on_its_source)
{
  Agent_Bench agent;
  agent.start();
  agent.sync_documents({agent.document(1), agent.document(2)});
  kestrel::Job_Definition_Fields fields = agent.bench.backup_fields();
  fields.source->id(Agent_Bench::source(1));
  kestrel::File_Lock lock;
  ASSERT_TRUE(lock.try_lock(kestrel::run_lock_path(Job_Definition(fields))));
  const std::string run = agent.control(1, "run");
  agent.wait_ended(agent.control(2, "run"));
  EXPECT_EQ("dispatching", agent.state(1));
  lock.unlock();
  EXPECT_EQ("completed", text_of(agent.wait_ended(run), "state"));
}

TEST(Agent_Jobs, a_run_whose_source_cannot_be_locked_fails)
{
  Agent_Bench agent;
  agent.start();
  agent.sync_documents({agent.document(1)});
  kestrel::Job_Definition_Fields fields = agent.bench.backup_fields();
  fields.source->id(Agent_Bench::source(1));
  const std::string path = kestrel::run_lock_path(Job_Definition(fields));
  ASSERT_EQ(0, ::mkdir(path.c_str(), 0700));
  const json_spirit::Object record = agent.wait_ended(agent.control(1, "run"));
  EXPECT_EQ("error", text_of(record, "state"));
  EXPECT_EQ("cannot lock " + path + ": Is a directory", text_of(record, "reason"));
  ASSERT_EQ(0, ::rmdir(path.c_str()));
  // The job may be listed for a moment longer than its record says.
  ASSERT_TRUE(eventually([&] { return agent.jobs->counts().running == 0; }));
  EXPECT_EQ("completed", text_of(agent.wait_ended(agent.control(1, "run")), "state"));
}

TEST(Agent_Jobs, gives_the_options_of_a_request_to_the_job)
{
  Agent_Bench agent;
  agent.start();
  json_spirit::Object document = agent.document(1);
  json_spirit::Object schedule;
  kestrel::set_value(schedule, "type", 7);
  kestrel::set_value(document, "schedules", json_spirit::Array(1, schedule));
  agent.sync_documents({document});
  json_spirit::Object options;
  kestrel::set_value(options, "level", "full");
  std::string run;
  Jobs_Error error;
  ASSERT_TRUE(agent.jobs->control(Agent_Bench::id(1), "run", options, run, error)) << error.text;
  const json_spirit::Object record = agent.wait_ended(run);
  EXPECT_EQ("completed", text_of(record, "state"));
  EXPECT_EQ("ondemand", text_of(record, "trigger"));
}

TEST(Agent_Jobs, records_why_a_run_failed)
{
  Agent_Bench agent;
  agent.bench.log.allow(LM_ERROR, "");
  agent.start();
  json_spirit::Object document = agent.document(1);
  json_spirit::Object unknown_pool;
  kestrel::set_value(unknown_pool, "id", Agent_Bench::id(99));
  kestrel::set_value(document, "target", unknown_pool);
  agent.sync_documents({document});
  const std::string run = agent.control(1, "run");
  const json_spirit::Object record = agent.wait_ended(run);
  EXPECT_EQ("error", text_of(record, "state"));
  EXPECT_NE("", text_of(record, "reason"));
  const json_spirit::Array alerts = find_value(record, "alerts").get_array();
  ASSERT_FALSE(alerts.empty());
  EXPECT_EQ(7, number_of(alerts[0].get_obj(), "category"));
  EXPECT_EQ(11, number_of(alerts[0].get_obj(), "code"));
}

TEST(Agent_Jobs, shows_refused_definitions_and_never_runs_them)
{
  Agent_Bench agent;
  agent.start();
  json_spirit::Object no_pool = agent.document(1);
  kestrel::set_value(no_pool, "target", json_spirit::Object());
  json_spirit::Object never = agent.document(2);
  json_spirit::Object schedule;
  kestrel::set_value(schedule, "type", 1);
  kestrel::set_value(schedule, "cron", "30 2 31 2 *");
  kestrel::set_value(never, "schedules", json_spirit::Array(1, schedule));
  json_spirit::Object unknown = agent.document(3);
  kestrel::set_value(unknown, "type", "standby");
  json_spirit::Object bad_source = agent.document(4);
  kestrel::set_value(bad_source, "source", json_spirit::Array());
  json_spirit::Array definitions;
  for (const auto& document : {no_pool, never, unknown, bad_source, agent.document(5)})
    definitions.push_back(Agent_Bench::definition(document));
  definitions.push_back(7);
  json_spirit::Object twice = Agent_Bench::definition(agent.document(5));
  definitions.push_back(twice);
  EXPECT_EQ(6u, agent.sync(definitions).size());
  EXPECT_EQ(5u, agent.jobs->list().size());
  EXPECT_NE(std::string::npos, text_of(agent.entry(1), "refused").find("target"));
  EXPECT_NE(std::string::npos, text_of(agent.entry(2), "refused").find("no day is ever like that"));
  EXPECT_NE(std::string::npos, text_of(agent.entry(3), "refused").find("no module"));
  EXPECT_NE(std::string::npos, text_of(agent.entry(4), "refused").find("source"));
  EXPECT_EQ("error", agent.state(1));
  EXPECT_NE(std::string::npos, agent.refusal(1, "run").find("target"));
  agent.stop();

  agent.start();
  EXPECT_NE(std::string::npos, text_of(agent.entry(1), "refused").find("target")) << "after a restart";
  EXPECT_EQ(4u, agent.sync({definitions.begin(), definitions.begin() + 5}).size())
      << "each time it is offered";
  agent.sync_documents({agent.document(1)});
  EXPECT_EQ("completed", text_of(agent.wait_ended(agent.control(1, "run")), "state"));
}

TEST(Agent_Jobs, replaces_and_removes_definitions_when_their_run_has_ended)
{
  Agent_Bench agent;
  agent.start();
  agent.sync_documents({agent.document(1, true), agent.document(2, true)});
  const std::string replaced = agent.control(1, "run");
  const std::string removed = agent.control(2, "run");
  ASSERT_TRUE(agent.wait_up(1));
  ASSERT_TRUE(agent.wait_up(2));
  json_spirit::Object changed = agent.document(1);
  kestrel::set_value(changed, "name", "renamed");
  agent.sync({Agent_Bench::definition(changed, 2)});
  EXPECT_EQ(1, number_of(agent.entry(1), "revision"));
  EXPECT_EQ("the job has been removed", agent.refusal(2, "run"));
  agent.let_go(1);
  EXPECT_EQ("completed", text_of(agent.wait_ended(replaced), "state"));
  agent.let_go(2);
  EXPECT_EQ("completed", text_of(agent.wait_ended(removed), "state"));
  ASSERT_TRUE(eventually([&] { return agent.jobs->list().size() == 1; }));
  EXPECT_EQ(2, number_of(agent.entry(1), "revision"));
  EXPECT_EQ("renamed", text_of(agent.entry(1), "name"));
  EXPECT_TRUE(exists(agent.activity_path(1)));
  EXPECT_TRUE(eventually([&] { return !exists(agent.activity_path(2)); })) << "after the list";
  ASSERT_TRUE(wait_rest(agent, 1));
  agent.sync({});
  EXPECT_TRUE(agent.jobs->list().empty());
  EXPECT_FALSE(exists(agent.activity_path(1)));
  EXPECT_EQ(2u, agent.history().size()) << "the history stays";
}

TEST(Agent_Jobs, a_definition_that_the_server_disables_is_disabled_for_other_processes_too)
{
  Agent_Bench agent;
  agent.start();
  agent.sync({Agent_Bench::definition(agent.document(1), 1, false)});
  EXPECT_EQ("disabled", agent.state(1));
  EXPECT_EQ("the job is disabled", agent.refusal(1, "run"));
  {
    // As a process without an agent makes it.
    kestrel::Job_Definition_Fields fields = agent.bench.backup_fields();
    fields.id = Agent_Bench::id(1);
    const Job_Ptr job = Physical_Bench::make_job(fields);
    EXPECT_EQ(-1, job->start());
    EXPECT_EQ(EPERM, errno);
  }
  agent.sync({Agent_Bench::definition(agent.document(1), 2, true)});
  EXPECT_EQ("completed", text_of(agent.wait_ended(agent.control(1, "run")), "state"));
}

TEST(Agent_Jobs, keeps_no_password)
{
  Agent_Bench agent;
  agent.start();
  json_spirit::Object document = agent.document(1);
  kestrel::set_value(document, "backup_protection_password", "pr0tect-me");
  agent.sync_documents({document});
  agent.stop();
  EXPECT_EQ(std::string::npos, read_file(agent.database()).find("pr0tect-me"));
  EXPECT_FALSE(agent.bench.log.contains("pr0tect-me"));
}

TEST(Agent_Jobs, reads_definitions_of_local_files_beside_those_of_the_server)
{
  Agent_Bench agent;
  agent.start();
  const std::string file = agent.bench.dir.write("jobs/one.json", kestrel::write_json(agent.document(1)));
  const std::string directory = agent.bench.dir / "jobs";
  json_spirit::Array refused;
  Jobs_Error error;
  ASSERT_TRUE(agent.jobs->sync_directory(directory, refused, error)) << error.text;
  EXPECT_TRUE(refused.empty());
  agent.sync_documents({agent.document(2)});
  EXPECT_EQ(2u, agent.jobs->list().size());
  EXPECT_EQ(1u, agent.sync({Agent_Bench::definition(agent.document(1))}).size()) << "the file's own id";
  EXPECT_EQ(1u, agent.jobs->list().size());
  agent.bench.dir.write("jobs/two.json", "{");
  ASSERT_TRUE(agent.jobs->sync_directory(directory, refused, error)) << error.text;
  EXPECT_EQ(1u, refused.size());
  EXPECT_EQ(0, ::unlink(file.c_str()));
  ASSERT_TRUE(agent.jobs->sync_directory(directory, refused, error)) << error.text;
  EXPECT_EQ(1u, agent.jobs->list().size()) << "the broken file may hold it";
  EXPECT_EQ(0, ::unlink((directory + "/two.json").c_str()));
  ASSERT_TRUE(agent.jobs->sync_directory(directory, refused, error)) << error.text;
  EXPECT_TRUE(agent.jobs->list().empty());
}

TEST(Agent_Jobs, keeps_a_known_definition_while_its_offer_cannot_be_read)
{
  Agent_Bench agent;
  agent.start();
  agent.sync_documents({agent.document(1), agent.document(2)});
  json_spirit::Object unreadable;
  kestrel::set_value(unreadable, "id", Agent_Bench::id(1));
  EXPECT_EQ(1u, agent.sync({unreadable}).size());
  ASSERT_EQ(1u, agent.jobs->list().size()) << "the other one was not offered any more";
  EXPECT_EQ("completed", text_of(agent.wait_ended(agent.control(1, "run")), "state"));
}

TEST(Agent_Jobs, loads_five_hundred_definitions_quickly)
{
  Agent_Bench agent;
  agent.start();
  json_spirit::Array definitions;
  for (unsigned number = 0; number < 500; ++number) {
    json_spirit::Object document = agent.document(number);
    json_spirit::Object schedule;
    kestrel::set_value(schedule, "type", 1);
    kestrel::set_value(schedule, "cron", std::to_string(number % 60) + " 2 1 1 *");
    kestrel::set_value(schedule, "time_zone", "Europe/Berlin");
    kestrel::set_value(document, "schedules", json_spirit::Array(1, schedule));
    definitions.push_back(Agent_Bench::definition(document));
  }
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(agent.sync(definitions).empty());
  const auto stored = std::chrono::steady_clock::now();
  EXPECT_TRUE(agent.sync(definitions).empty());
  const auto again = std::chrono::steady_clock::now();
  agent.stop();
  const auto stopped = std::chrono::steady_clock::now();
  agent.open();
  const auto opened = std::chrono::steady_clock::now();
  const json_spirit::Array listed = agent.jobs->list();
  const auto end = std::chrono::steady_clock::now();
  ASSERT_EQ(500u, listed.size());
  EXPECT_GT(number_of(listed[0].get_obj(), "next_run"), 0);
  const auto msec = [](auto duration) {
    return std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(duration).count());
  };
  testing::Test::RecordProperty("store_msec", msec(stored - begin));
  testing::Test::RecordProperty("unchanged_msec", msec(again - stored));
  testing::Test::RecordProperty("open_msec", msec(opened - stopped));
  testing::Test::RecordProperty("list_msec", msec(end - opened));
  EXPECT_LT(end - begin, std::chrono::seconds(120)) << "even on a loaded machine";
}

TEST(Agent_Jobs, one_agent_uses_a_store)
{
  Agent_Bench agent;
  agent.open();
  kestrel::Agent_Jobs second(agent.modules, agent.settings);
  std::string error;
  EXPECT_FALSE(second.open(error));
  EXPECT_EQ("another agent of this installation is running", error);
}
