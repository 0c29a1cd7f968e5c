// An agent that is killed in a restore of several sets: what its successor says of it, and a restore that
// follows.

#include "agent_bench.h"
#include "child_program.h"

#include "jobs/job_definition_loader.h"
#include "support/waiting.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/prctl.h>
#include <unistd.h>

using namespace kestrel_test;
using kestrel::Jobs_Error;

namespace
{
/// A chain of two sets on the bench's instance, and the definition of its restore. The restoring tool marks
/// each set that it has read, and stands still at the run that the file "halt" names.
class Chain_Agent
{
public:
  Chain_Agent()
  {
    bench.set_brcmd(bench.good_backup(), "write_file " + (bench.dir / "begun_${run}") + " x\nif exists " +
                                             (bench.dir / "halt_${run}") + "\nwait_file " +
                                             (bench.dir / "go") + "\nexit 1\nend\nread_to ${option:-f} " +
                                             (bench.dir / "fed_${run}") + "\n");
    bench.back_up();
    bench.set_next_state("full-1", "incr-1", 20);
    bench.back_up(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
    EXPECT_EQ(2u, bench.whole_files().size());
    agent.open();
    agent.sync_documents({restore_document()});
    agent.stop();
  }

  json_spirit::Object restore_document() const
  {
    kestrel::Job_Definition_Fields fields = bench.restore_fields("incr-1");
    fields.id = Agent_Bench::id(1);
    fields.name = "restore";
    std::string text, error;
    EXPECT_TRUE(kestrel::Job_Definition_Loader::generate(Job_Definition(fields), text, error)) << error;
    json_spirit::Value value;
    EXPECT_TRUE(kestrel::read_json(text, value, error)) << error;
    return value.get_obj();
  }
  /// What the restoring brcmd leaves in its run of this number.
  std::string place(const char* what, unsigned run) const
  {
    return bench.dir / (std::string(what) + "_" + std::to_string(run));
  }

  Agent_Bench agent;
  Physical_Bench& bench = agent.bench;
};

const char RESTORING_CHILD[] = "Agent_Restore_Child.DISABLED_runs_the_restore";
} // namespace

// No test of its own: what Child_Program starts as another process, and kills. By itself it would never end.
TEST(Agent_Restore_Child, DISABLED_runs_the_restore)
{
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  Scaled_Clock clock(20);
  kestrel::Module_Table modules;
  std::string error, run_id;
  ASSERT_TRUE(modules.open(kestrel::default_agent_config().modules, error)) << error;
  kestrel::Agent_Jobs jobs(modules, kestrel::Agent_Jobs::Settings());
  Jobs_Error problem;
  ASSERT_TRUE(jobs.open(error) && jobs.start(error)) << error;
  ASSERT_TRUE(jobs.control(Agent_Bench::id(1), "run", json_spirit::Object(), run_id, problem))
      << problem.text;
  for (;;)
    ::pause();
}

TEST(Agent_Restore_Kill, between_two_sets_is_told_with_what_it_leaves_and_a_restore_works)
{
  Chain_Agent chain;
  Agent_Bench& agent = chain.agent;
  const std::string first_file = chain.bench.whole_files().at(0),
                    second_file = chain.bench.whole_files().at(1);
  const bool full_first = first_file.find("full") != std::string::npos;
  const std::string& full = full_first ? first_file : second_file;
  const std::string& incremental = full_first ? second_file : first_file;
  chain.bench.dir.write("halt_2", "");
  {
    Child_Program child(RESTORING_CHILD);
    ASSERT_TRUE(wait_for_file(chain.place("begun", 2)));
    child.kill();
  }
  chain.bench.dir.write("go", ""); // the tool that the agent left
  EXPECT_TRUE(exists(chain.place("fed", 1)));
  EXPECT_EQ(0u, chain.bench.starts()) << "nobody starts an instance that is half restored";

  // What the history has, and with the next connection the server.
  agent.open();
  const json_spirit::Array runs = agent.jobs->unsent_runs(10);
  ASSERT_EQ(1u, runs.size());
  const json_spirit::Object& record = runs[0].get_obj();
  const std::string reason = text_of(record, "reason");
  EXPECT_EQ("error", text_of(record, "state"));
  EXPECT_EQ(0u, reason.find("the agent ended while the job was running (its record says running, "))
      << reason;
  EXPECT_NE(std::string::npos, reason.find("; the instance may not be usable until it is restored again"))
      << reason;
  EXPECT_NE(std::string::npos, reason.find("_fifo")) << reason;
  EXPECT_TRUE(chain.bench.fifos().empty());
  const std::string log = agent.log_text(text_of(record, "run_id"));
  EXPECT_NE(std::string::npos, log.find("file " + full + " is restored (1 of 2)")) << log;
  EXPECT_EQ(std::string::npos, log.find(incremental + " is restored")) << log;
  EXPECT_EQ(kestrel::write_json(runs), kestrel::write_json(agent.history()));
  EXPECT_EQ(2u, chain.bench.rows().size()) << "the backups stay as they were";

  agent.start();
  const json_spirit::Object again = agent.wait_ended(agent.control(1, "run"));
  EXPECT_EQ("completed", text_of(again, "state")) << text_of(again, "reason");
  const std::string full_log = agent.log_text(text_of(again, "run_id"));
  EXPECT_NE(std::string::npos, full_log.find("file " + full + " is restored (1 of 2)")) << full_log;
  EXPECT_NE(std::string::npos, full_log.find("file " + incremental + " is restored (2 of 2)")) << full_log;
  EXPECT_TRUE(exists(chain.place("fed", 3)) && exists(chain.place("fed", 4)));
  EXPECT_EQ(1u, chain.bench.starts());
}
