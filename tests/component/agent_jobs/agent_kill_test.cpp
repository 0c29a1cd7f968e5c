// An agent that is killed at every point of a run's life: the next one tells of every run once, and goes on.

#include "agent_bench.h"
#include "child_program.h"

#include "support/clocks.h"
#include "support/scoped_env.h"
#include "support/waiting.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <set>
#include <sys/prctl.h>
#include <unistd.h>

using namespace kestrel_test;
using kestrel::Jobs_Error;

namespace
{
/// Another process that runs the agent and its first two jobs until both have ended or it is killed.
class Agent_Process
{
public:
  /// It kills itself at the notice of this number; 0: never.
  explicit Agent_Process(unsigned kill_at)
      : kill_at_("KESTREL_TEST_KILL_AT", std::to_string(kill_at)),
        child_("Agent_Kill_Child.DISABLED_runs_two_jobs")
  {
  }
  void kill() { child_.kill(); }
  bool killed() { return child_.killed(); }

private:
  const Scoped_Env kill_at_;
  Child_Program child_;
};

std::set<std::string> run_ids(const Agent_Bench& agent)
{
  std::set<std::string> ids;
  for (const json_spirit::Value& run : agent.history())
    EXPECT_TRUE(ids.insert(text_of(run.get_obj(), "run_id")).second) << "one record for each run";
  return ids;
}

/// The records that were not there before; all of them have ended and wait for the server.
json_spirit::Array new_records(const Agent_Bench& agent, const std::set<std::string>& before)
{
  json_spirit::Array records;
  std::multiset<std::string> unsent;
  for (const json_spirit::Value& run : agent.jobs->unsent_runs(1000))
    unsent.insert(text_of(run.get_obj(), "run_id"));
  for (const json_spirit::Value& run : agent.history()) {
    const std::string id = text_of(run.get_obj(), "run_id");
    if (before.count(id))
      continue;
    EXPECT_GT(number_of(run.get_obj(), "ended_at"), 0) << kestrel::write_json(run);
    EXPECT_EQ(1u, unsent.count(id)) << "it is reported once";
    records.push_back(run);
  }
  return records;
}

void expect_settled(const json_spirit::Object& record)
{
  const std::string state = text_of(record, "state");
  const std::string reason = text_of(record, "reason");
  if (state == "canceled")
    EXPECT_EQ("the agent ended before the run began", reason);
  else if (state == "error")
    EXPECT_EQ(0u, reason.find("the agent ended while the job was ")) << reason;
  else
    EXPECT_EQ("completed", state) << reason;
}
} // namespace

// No test of its own: what Agent_Process starts. Only the kill, or the end of both runs, ends it.
TEST(Agent_Kill_Child, DISABLED_runs_two_jobs)
{
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  Scaled_Clock clock(20);
  const unsigned kill_at = static_cast<unsigned>(std::atoi(::getenv("KESTREL_TEST_KILL_AT")));
  std::atomic<unsigned> notices(0);
  const auto noticed = [&] {
    if (++notices == kill_at)
      ::kill(::getpid(), SIGKILL);
  };
  kestrel::Module_Table modules;
  std::string error, run_id;
  ASSERT_TRUE(modules.open(kestrel::default_agent_config().modules, error)) << error;
  kestrel::Agent_Jobs jobs(modules, kestrel::Agent_Jobs::Settings());
  jobs.set_listener([&](const kestrel::Job_Notice&) { noticed(); });
  jobs.set_history_listener(noticed);
  Jobs_Error problem;
  ASSERT_TRUE(jobs.open(error) && jobs.start(error)) << error;
  for (const unsigned number : {1u, 2u})
    ASSERT_TRUE(jobs.control(Agent_Bench::id(number), "run", json_spirit::Object(), run_id, problem))
        << problem.text;
  EXPECT_TRUE(eventually([&] {
    const auto counts = jobs.counts();
    return counts.running + counts.queued == 0;
  }));
  EXPECT_TRUE(jobs.stop(100, false));
}

TEST(Agent_Kill, at_any_notice_loses_no_run_and_tells_of_each_once)
{
  Agent_Bench agent;
  agent.open();
  agent.sync_documents({agent.document(1), agent.document(2)});
  agent.stop();
  unsigned kill_at = 1;
  bool killed = true;
  std::set<std::string> states;
  for (; killed && kill_at < 200; kill_at += 1 + kill_at / 4) {
    SCOPED_TRACE(kill_at);
    agent.open();
    const std::set<std::string> before = run_ids(agent);
    agent.stop();
    {
      Agent_Process child(kill_at);
      killed = child.killed();
    }
    agent.open();
    const json_spirit::Array records = new_records(agent, before);
    // The second request may not have been made.
    EXPECT_TRUE(records.size() == 2 || (records.size() == 1 && killed)) << records.size();
    for (const json_spirit::Value& record : records) {
      expect_settled(record.get_obj());
      states.insert(text_of(record.get_obj(), "state"));
    }
    EXPECT_TRUE(agent.bench.fifos().empty());
    EXPECT_EQ(0u, agent.jobs->counts().running + agent.jobs->counts().queued);
    agent.stop();
  }
  EXPECT_FALSE(killed) << "the last one ran to its end";
  EXPECT_EQ(1u, states.count("error"));
  EXPECT_EQ(1u, states.count("completed"));
  agent.start();
  EXPECT_EQ("completed", text_of(agent.wait_ended(agent.control(1, "run")), "state"));
}

TEST(Agent_Kill, in_every_state_of_a_run_is_told_with_how_far_it_was)
{
  const struct {
    const char* script;
    const char* reason;
  } cases[] = {{"precondition", "the agent ended while the job was starting"},
               {"pre_action", "the agent ended while the job was running (its record says running, "},
               {"post_action", "the agent ended while the job was running (its record says completing, "}};
  for (const auto& each : cases) {
    SCOPED_TRACE(each.script);
    Agent_Bench agent;
    json_spirit::Object document = agent.document(1);
    kestrel::set_value(document, each.script,
                       "echo x >" + (agent.bench.dir / "up_1") + "; while [ ! -e " + (agent.bench.dir / "go_1") +
                           " ]; do sleep 0.01; done");
    agent.open();
    // The second one waits for the lock of their source.
    agent.sync_documents({document, agent.document_of_source(2, 1)});
    agent.stop();
    {
      Agent_Process child(0);
      ASSERT_TRUE(agent.wait_up(1));
      child.kill();
    }
    agent.let_go(1);
    agent.open();
    const json_spirit::Array first = agent.history(Agent_Bench::id(1));
    ASSERT_EQ(1u, first.size());
    EXPECT_EQ("error", text_of(first[0].get_obj(), "state"));
    EXPECT_EQ(0u, text_of(first[0].get_obj(), "reason").find(each.reason))
        << text_of(first[0].get_obj(), "reason");
    const json_spirit::Array second = agent.history(Agent_Bench::id(2));
    ASSERT_LE(second.size(), 1u);
    if (!second.empty()) {
      EXPECT_EQ("canceled", text_of(second[0].get_obj(), "state"));
    }
    agent.start();
    EXPECT_EQ("completed", text_of(agent.wait_ended(agent.control(1, "run")), "state"));
  }
}
