#include "agent_bench.h"
#include "child_program.h"

#include "agent/job_database.h"
#include "agent/job_store.h"
#include "base/clock.h"
#include "base/scope_guard.h"
#include "jobs/job_activity.h"
#include "support/waiting.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <fstream>
#include <soci/soci.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

using namespace kestrel_test;
using kestrel::Jobs_Error;

namespace
{
json_spirit::Object with_schedule(json_spirit::Object document, const std::string& cron,
                                  const std::string& missed)
{
  json_spirit::Object schedule;
  kestrel::set_value(schedule, "type", 1);
  kestrel::set_value(schedule, "cron", cron);
  kestrel::set_value(schedule, "time_zone", "UTC");
  kestrel::set_value(schedule, "missed", missed);
  kestrel::set_value(document, "schedules", json_spirit::Array(1, schedule));
  return document;
}

/// The runs of a job with this trigger that have ended, latest first.
json_spirit::Array ended_runs(const Agent_Bench& agent, unsigned number, const std::string& trigger,
                              const std::string& state)
{
  json_spirit::Array runs;
  for (const json_spirit::Value& run : agent.history(Agent_Bench::id(number)))
    if (text_of(run.get_obj(), "trigger") == trigger && text_of(run.get_obj(), "state") == state)
      runs.push_back(run);
  return runs;
}

const char FIRST_JOB[] = "Agent_Jobs_Child.DISABLED_runs_the_first_job";
} // namespace

// No test of its own: what Child_Program starts as another process, and kills. By itself it would never end.
TEST(Agent_Jobs_Child, DISABLED_runs_the_first_job)
{
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  kestrel::Module_Table modules;
  std::vector<kestrel::Module_Config> configs = kestrel::default_agent_config().modules;
  std::string error, run_id;
  ASSERT_TRUE(modules.open(configs, error)) << error;
  kestrel::Agent_Jobs jobs(modules, kestrel::Agent_Jobs::Settings());
  Jobs_Error problem;
  ASSERT_TRUE(jobs.open(error) && jobs.start(error)) << error;
  ASSERT_TRUE(jobs.control(Agent_Bench::id(1), "run", json_spirit::Object(), run_id, problem))
      << problem.text;
  ASSERT_TRUE(jobs.control(Agent_Bench::id(2), "run", json_spirit::Object(), run_id, problem))
      << problem.text;
  for (;;)
    ::pause();
}

TEST(Agent_Restart, a_run_of_a_killed_agent_is_recorded_as_failed_with_what_it_left)
{
  Agent_Bench agent;
  Physical_Bench& bench = agent.bench;
  const std::string stream = bench.make_good_stream(100000);
  bench.dir.write("first", stream.substr(0, 50000));
  bench.set_brcmd("begin ${option:-f}\nput_file " + (bench.dir / "first") + "\nwrite_file " +
                  (bench.dir / "up") + " x\nwait_file " + (bench.dir / "go") + "\nfinish\n");
  agent.open();
  // The second one waits for the lock of their source.
  agent.sync_documents({agent.document(1), agent.document_of_source(2, 1)});
  agent.stop();
  {
    Child_Program child(FIRST_JOB);
    ASSERT_TRUE(wait_for_file(bench.dir / "up"));
    ASSERT_TRUE(eventually(
        [&] { return !Physical_Bench::list(bench.pool_dir + "/" + Agent_Bench::source(1)).empty(); }));
    child.kill();
  }
  EXPECT_FALSE(bench.fifos().empty());
  bench.dir.write("go", "");

  agent.open();
  json_spirit::Array runs = agent.history(Agent_Bench::id(1));
  ASSERT_EQ(1u, runs.size());
  const json_spirit::Object record = runs[0].get_obj();
  const std::string reason = text_of(record, "reason");
  EXPECT_EQ("error", text_of(record, "state"));
  EXPECT_EQ(0u, reason.find("the agent ended while the job was running (its record says running, "))
      << reason;
  EXPECT_NE(std::string::npos, reason.find("; unfinished in the pool: " + bench.pool_dir)) << reason;
  EXPECT_NE(std::string::npos, reason.find(".partial")) << reason;
  EXPECT_NE(std::string::npos, reason.find("; cleared away: ")) << reason;
  EXPECT_NE(std::string::npos, reason.find("_fifo")) << reason;
  EXPECT_TRUE(bench.fifos().empty());
  EXPECT_NE("", agent.log_text(text_of(record, "run_id")));
  runs = agent.history(Agent_Bench::id(2));
  ASSERT_EQ(1u, runs.size());
  EXPECT_EQ("canceled", text_of(runs[0].get_obj(), "state"));
  EXPECT_EQ(2u, agent.jobs->unsent_runs(10).size());
  EXPECT_EQ("error", agent.state(1));

  agent.set_good_brcmd();
  agent.start();
  EXPECT_EQ("completed", text_of(agent.wait_ended(agent.control(1, "run")), "state"));
}

TEST(Agent_Restart, notes_missed_runs_or_makes_up_for_them_once)
{
  Agent_Bench agent;
  // Half an hour away from the present minute, so that nothing is due by itself meanwhile.
  const unsigned minute = static_cast<unsigned>((kestrel::clock().now() / 60 + 30) % 60);
  const std::string cron = std::to_string(minute) + " * * * *";
  agent.open();
  agent.sync_documents(
      {with_schedule(agent.document(1), cron, "skip"), with_schedule(agent.document(2), cron, "once")});
  agent.stop();
  {
    // As if the agent had been down for five hours.
    kestrel::Job_Database database;
    kestrel::Job_Store store(database);
    std::vector<kestrel::Stored_Definition> definitions;
    std::string error;
    const time_t before = kestrel::clock().now() - 5 * 3600;
    ASSERT_TRUE(database.open(agent.database(), error)) << error;
    ASSERT_TRUE(store.load(definitions, error)) << error;
    for (kestrel::Stored_Definition& each : definitions)
      each.since = before;
    ASSERT_TRUE(store.change(definitions, {}, error)) << error;
    ASSERT_TRUE(store.set_scheduled_until(before, error)) << error;
  }
  agent.start();
  ASSERT_TRUE(eventually([&] { return ended_runs(agent, 2, "restart", "completed").size() == 1; }));
  ASSERT_TRUE(eventually([&] { return ended_runs(agent, 1, "schedule", "skipped").size() == 1; }));
  const std::string made_up = text_of(ended_runs(agent, 2, "restart", "completed")[0].get_obj(), "reason");
  const std::string skipped = text_of(ended_runs(agent, 1, "schedule", "skipped")[0].get_obj(), "reason");
  EXPECT_EQ(0u, made_up.find("makes up for a run missed 5 times since ")) << made_up;
  EXPECT_EQ(0u, skipped.find("missed 5 times since ")) << skipped;
  agent.stop();
  agent.start();
  EXPECT_EQ(1u, agent.history(Agent_Bench::id(1)).size()) << "noted once";
  EXPECT_EQ(1u, agent.history(Agent_Bench::id(2)).size()) << "made up for once";
}

TEST(Agent_Restart, runs_jobs_by_their_schedules_and_skips_a_time_that_finds_the_job_running)
{
  Agent_Bench agent;
  agent.start();
  agent.sync_documents({with_schedule(agent.document(1, true), "* * * * *", "skip")});
  EXPECT_GT(number_of(agent.entry(1), "next_run"), 0);
  ASSERT_TRUE(agent.wait_up(1));
  ASSERT_TRUE(eventually([&] { return ended_runs(agent, 1, "schedule", "skipped").size() >= 1; }));
  EXPECT_EQ("a run of this job is under way",
            text_of(ended_runs(agent, 1, "schedule", "skipped")[0].get_obj(), "reason"));
  agent.let_go(1);
  ASSERT_TRUE(eventually([&] { return ended_runs(agent, 1, "schedule", "completed").size() >= 1; }));
  ASSERT_TRUE(eventually([&] { return text_of(agent.entry(1), "run_id").empty(); }));
  // The job may begin again at any moment; it is switched off between two of its runs.
  ASSERT_TRUE(eventually([&] {
    std::string run_id;
    Jobs_Error error;
    return agent.jobs->control(Agent_Bench::id(1), "disable", json_spirit::Object(), run_id, error);
  }));
  EXPECT_EQ("null", text_of(agent.entry(1), "next_run"));
  agent.stop();
  agent.start();
  EXPECT_EQ("disabled", agent.state(1)) << "after a restart";
}

TEST(Agent_Restart, a_stop_waits_for_runs_and_cancels_what_waits_to_begin)
{
  Agent_Bench agent(1);
  agent.start();
  agent.sync_documents({agent.document(1, true), agent.document(2)});
  const std::string running = agent.control(1, "run");
  const std::string waiting = agent.control(2, "run");
  ASSERT_TRUE(agent.wait_up(1));
  std::atomic<bool> stopped(false);
  std::thread stopping([&] {
    EXPECT_TRUE(agent.jobs->stop(100000, false));
    stopped = true;
  });
  EXPECT_EQ("the agent stopped before the run began", text_of(agent.wait_ended(waiting), "reason"));
  EXPECT_FALSE(stopped);
  agent.refusal(2, "run", Jobs_Error::busy);
  agent.let_go(1);
  stopping.join();
  agent.open();
  EXPECT_EQ("completed", text_of(agent.wait_ended(running), "state"));
  EXPECT_EQ("canceled", text_of(agent.wait_ended(waiting), "state"));
}

TEST(Agent_Restart, a_stop_cancels_runs_at_once_or_after_the_grace_time)
{
  for (const bool cancel : {true, false}) {
    Agent_Bench agent;
    agent.start();
    agent.sync_documents({agent.document(1, true)});
    const std::string run = agent.control(1, "run");
    ASSERT_TRUE(agent.wait_up(1));
    std::thread stopping([&] { EXPECT_TRUE(agent.jobs->stop(cancel ? 100000 : 1, cancel)); });
    EXPECT_TRUE(eventually([&] { return agent.state(1) == "canceling"; }));
    agent.bench.clock.stand_still(); // the stop has all the time it needs
    agent.let_go(1);
    stopping.join();
    agent.open();
    EXPECT_EQ("canceled", text_of(agent.wait_ended(run), "state"));
  }
}

TEST(Agent_Restart, a_stop_that_waits_for_runs_can_be_told_to_cancel_them)
{
  Agent_Bench agent;
  agent.start();
  agent.sync_documents({agent.document(1, true)});
  const std::string run = agent.control(1, "run");
  ASSERT_TRUE(agent.wait_up(1));
  agent.bench.clock.stand_still(); // no grace time ends by itself
  std::thread stopping([&] { EXPECT_TRUE(agent.jobs->stop(100000, false)); });
  agent.jobs->end_grace();
  EXPECT_TRUE(eventually([&] { return agent.state(1) == "canceling"; }));
  agent.let_go(1);
  stopping.join();
  agent.open();
  EXPECT_EQ("canceled", text_of(agent.wait_ended(run), "state"));
}

TEST(Agent_Restart, a_stop_does_not_pass_over_what_becomes_due_meanwhile)
{
  Agent_Bench agent;
  agent.start();
  agent.sync_documents({agent.document(1, true)});
  agent.control(1, "run");
  ASSERT_TRUE(agent.wait_up(1));
  const time_t grace = 40;
  std::thread stopping([&] { EXPECT_TRUE(agent.jobs->stop(grace, false)); });
  EXPECT_TRUE(eventually([&] { return agent.state(1) == "canceling"; }));
  agent.bench.clock.stand_still();
  agent.let_go(1);
  stopping.join();
  kestrel::Job_Database database;
  kestrel::Job_Store store(database);
  std::string error;
  time_t until = 0;
  ASSERT_TRUE(database.open(agent.database(), error)) << error;
  ASSERT_TRUE(store.scheduled_until(until, error)) << error;
  EXPECT_NE(0, until);
  EXPECT_LT(until, kestrel::clock().now() - grace + 2) << "the schedules were not looked at while it waited";
}

TEST(Agent_Restart, a_stop_ends_a_run_whose_script_hangs)
{
  Agent_Bench agent;
  agent.start();
  agent.sync_documents({agent.document(1, true)});
  const std::string run = agent.control(1, "run");
  ASSERT_TRUE(agent.wait_up(1));
  std::thread stopping([&] { EXPECT_TRUE(agent.jobs->stop(0, true)); });
  EXPECT_TRUE(eventually([&] { return agent.bench.log.contains("script has been terminated"); }));
  agent.bench.clock.stand_still(); // the stop has all the time it needs
  stopping.join();
  EXPECT_TRUE(agent.bench.log.expect(LM_WARNING, "script has been silent for"));
  EXPECT_TRUE(agent.bench.log.expect(LM_WARNING, "script has been terminated"));
  agent.open();
  EXPECT_EQ("canceled", text_of(agent.wait_ended(run), "state"));
}

TEST(Agent_Restart, a_stop_gives_up_on_a_run_that_does_not_end)
{
  Agent_Bench agent;
  agent.start();
  json_spirit::Object document = agent.document(1);
  // It is never silent, so nobody ends it.
  kestrel::set_value(document, "pre_action",
                     "echo x >" + (agent.bench.dir / "up_1") + "; while [ ! -e " +
                         (agent.bench.dir / "go_1") + " ]; do echo working; sleep 0.05; done");
  agent.sync_documents({document});
  const std::string run = agent.control(1, "run");
  ASSERT_TRUE(agent.wait_up(1));
  EXPECT_FALSE(agent.jobs->stop(0, true));
  agent.let_go(1);
  ASSERT_TRUE(Job::wait_all_runs(60000));
  agent.open();
  EXPECT_EQ("error", text_of(agent.wait_ended(run), "state"));
}

TEST(Agent_Restart, refuses_a_run_whose_record_cannot_be_stored)
{
  Agent_Bench agent;
  agent.start();
  agent.sync_documents({agent.document(1)});
  agent.bench.log.allow(LM_ERROR, "the agent's database");
  struct rlimit before;
  ASSERT_EQ(0, ::getrlimit(RLIMIT_FSIZE, &before));
  struct rlimit none = before;
  none.rlim_cur = 0;
  void (*const handler)(int) = ::signal(SIGXFSZ, SIG_IGN);
  {
    ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &none));
    const kestrel::Scope_Guard restore([&] { ::setrlimit(RLIMIT_FSIZE, &before); });
    const std::string reason = agent.refusal(1, "run", Jobs_Error::internal);
    EXPECT_NE(std::string::npos, reason.find("agent.db")) << reason;
    json_spirit::Array refused;
    Jobs_Error error;
    EXPECT_FALSE(agent.jobs->sync({Agent_Bench::definition(agent.document(2))}, refused, error));
    EXPECT_EQ(Jobs_Error::internal, error.code);
  }
  ::signal(SIGXFSZ, handler);
  EXPECT_EQ(1u, agent.jobs->list().size()) << "a change that was refused changed nothing";
  EXPECT_EQ("completed", text_of(agent.wait_ended(agent.control(1, "run")), "state"));
}

TEST(Agent_Restart, stores_the_end_of_a_run_as_soon_as_it_can)
{
  Agent_Bench agent;
  agent.start();
  agent.sync_documents({agent.document(1, true)});
  const std::string run = agent.control(1, "run");
  ASSERT_TRUE(agent.wait_up(1));
  ASSERT_TRUE(eventually([&] { return number_of(agent.record(run).get_obj(), "started_at") > 0; }));
  agent.bench.log.allow(LM_ERROR, "the agent's database");
  std::atomic<bool> locked(false), release(false);
  std::thread locking([&] {
    kestrel::Job_Database other;
    std::string error;
    EXPECT_TRUE(other.open(agent.database(), error)) << error;
    EXPECT_TRUE(other.write(
        [&](soci::session&) {
          locked = true;
          EXPECT_TRUE(eventually([&] { return release.load(); }));
        },
        error))
        << error;
  });
  EXPECT_TRUE(eventually([&] { return locked.load(); }));
  agent.let_go(1);
  EXPECT_TRUE(eventually([&] { return agent.bench.log.contains("a run's record waits"); }));
  EXPECT_EQ(0, number_of(agent.record(run).get_obj(), "ended_at"));
  release = true;
  locking.join();
  EXPECT_EQ("completed", text_of(agent.wait_ended(run), "state"));
}

TEST(Agent_Restart, tells_a_waiting_run_from_the_one_before_it_that_began_in_the_same_second)
{
  Agent_Bench agent(1);
  agent.start();
  agent.sync_documents({agent.document(1, true), agent.document(2)});
  const std::string before = agent.control(2, "run");
  EXPECT_EQ("completed", text_of(agent.wait_ended(before), "state"));
  agent.control(1, "run");
  ASSERT_TRUE(agent.wait_up(1));
  {
    // As if the next request came within the second: what is known of that is the time in the record.
    Job_Activity activity;
    std::string bytes = read_file(agent.activity_path(2));
    std::memcpy(static_cast<void*>(&activity), bytes.data(), sizeof activity);
    activity.start_time = kestrel::clock().now() + 600;
    std::memcpy(&bytes[0], static_cast<const void*>(&activity), sizeof activity);
    std::ofstream(agent.activity_path(2), std::ios::binary) << bytes;
  }
  const std::string waiting = agent.control(2, "run");
  const std::string killed = agent.bench.dir / "killed.db";
  {
    kestrel::Job_Database store;
    std::string error;
    ASSERT_TRUE(store.open(agent.database(), error)) << error;
    ASSERT_TRUE(store.read([&](soci::session& session) { session << "VACUUM INTO '" + killed + "'"; }, error)) << error;
  }
  agent.let_go(1);
  agent.stop();
  agent.settings.database = killed;
  agent.open();
  const json_spirit::Object record = agent.record(waiting).get_obj();
  EXPECT_EQ("canceled", text_of(record, "state"));
  EXPECT_EQ("the agent ended before the run began", text_of(record, "reason"));
}
