#include "physical_bench.h"

#include "support/fake_tool.h"

#include <gtest/gtest.h>

#include <unistd.h>

using namespace kestrel_test;

// What a request to stop does, by the stage in which it comes. It is seen only while data flows; what comes
// earlier waits for the first data, and what comes after the last byte is too late.
namespace
{
const unsigned FAST = 100;

/// Tells that the stage is reached and holds the tool there until the test has asked for the stop.
std::string hold(const Physical_Bench& bench)
{
  return "write_file " + (bench.dir / "up") + " x\nwait_file " + (bench.dir / "go") + "\n";
}

struct Stage {
  const char* name;
  Job_State after_stop;
  Job_State after_abort;
};

/// Runs the job, asks it to stop or to abort once the stage is reached, and checks its end.
void expect_end(Physical_Bench& bench, const Job_Ptr& job, const Stage& stage, bool abort)
{
  ASSERT_EQ(0, job->start());
  ASSERT_TRUE(bench.wait_for(bench.dir / "up"));
  EXPECT_EQ(0, abort ? job->abort() : job->stop());
  bench.dir.write("go", "");
  const Job_State expected = abort ? stage.after_abort : stage.after_stop;
  EXPECT_EQ(expected, bench.wait_end(job));
  EXPECT_TRUE(bench.alerts(job).empty());
  EXPECT_EQ(expected == JOB_STATE_COMPLETED ? 0u : 1u,
            bench.log.count(LM_INFO, "Job(" + job->definition().id() + ") has been canceled.\n"));
}
/// A brcmd that reads a part, keeps the pipe open, and reads the rest once the stop was asked for.
void set_partial_reader(const Physical_Bench& bench)
{
  EXPECT_EQ(0, ::unlink((bench.home + "/bin/brcmd").c_str())); // a link to the fake tool
  bench.dir.write("home/bin/brcmd",
                  "#!/bin/sh\nwhile [ \"$1\" != -f ]; do shift; done\nexec 3<\"$2\"\nhead -c 100000 <&3 "
                  ">/dev/null\necho x >" +
                      (bench.dir / "up") + "\nwhile [ ! -e " + (bench.dir / "go") +
                      " ]; do sleep 0.01; done\ncat <&3 >/dev/null && echo x >" + (bench.dir / "restored") +
                      "\n",
                  0755);
}
} // namespace

TEST(Physical_Stop_Request, ends_a_backup_by_its_stage)
{
  const Stage stages[] = {
      {"log mode", JOB_STATE_CANCELED, JOB_STATE_ERROR},
      {"shutdown", JOB_STATE_CANCELED, JOB_STATE_ERROR},
      {"brcmd started", JOB_STATE_CANCELED, JOB_STATE_ERROR},
      {"pipe opened", JOB_STATE_CANCELED, JOB_STATE_ERROR},
      {"within the stream", JOB_STATE_CANCELED, JOB_STATE_ERROR},
      {"after the last byte", JOB_STATE_COMPLETED, JOB_STATE_COMPLETED},
      {"chain state written", JOB_STATE_COMPLETED, JOB_STATE_COMPLETED},
      {"start", JOB_STATE_COMPLETED, JOB_STATE_COMPLETED},
  };
  for (const Stage& stage : stages)
    for (const bool abort : {false, true}) {
      SCOPED_TRACE(std::string(stage.name) + (abort ? ", abort" : ", stop"));
      const std::string name = stage.name;
      Physical_Bench bench(FAST);
      // The hold comes before or behind the step that belongs to the stage.
      const auto held = [&](const char* at) { return name == at ? hold(bench) : std::string(); };
      make_fake_tool(bench.dir, "home/bin/isql",
                     "if args_contain archivemode\n" + held("log mode") +
                         "out a\nout -\nout NOARCHIVELOG\nout \"(1 row)\"\nelse\n" + held("shutdown") +
                         "write_file " + (bench.dir / "shutdown") + " x\nend\n");
      const std::string state = bench.home + "/agent/lastlsn.dat";
      bench.set_brcmd(held("brcmd started") + "begin ${option:-f}\n" + held("pipe opened") + "put_file " +
                      (bench.dir / "stream") + "\n" + held("within the stream") +
                      (name == "within the stream" ? "put_slow 100000000 8192 1\n" : "") + "finish\n" +
                      held("after the last byte") + "copy " + (bench.dir / "next_state") + " " + state +
                      "\n" + held("chain state written"));
      if (name == "start")
        bench.dir.write("sys/systemctl",
                        "#!/bin/sh\necho x >" + (bench.dir / "up") + "\nwhile [ ! -e " + (bench.dir / "go") +
                            " ]; do sleep 0.01; done\necho \"$*\" >>" + (bench.dir / "starts") + "\n",
                        0755);
      const Fake_Server server(bench.dir, "wait_file " + (bench.dir / "shutdown"));
      const Job_Ptr job = bench.make_job(bench.backup_fields());
      // The last byte counts as moved when all of the stream was read here.
      if (name == "after the last byte" || name == "chain state written") {
        ASSERT_EQ(0, job->start());
        ASSERT_TRUE(bench.wait_streamed(job));
        ASSERT_TRUE(bench.wait_for(bench.dir / "up"));
        EXPECT_EQ(0, abort ? job->abort() : job->stop());
        bench.dir.write("go", "");
        EXPECT_EQ(JOB_STATE_COMPLETED, bench.wait_end(job));
      } else
        expect_end(bench, job, stage, abort);
      const bool done = job->state() == JOB_STATE_COMPLETED;
      EXPECT_EQ(done ? 1u : 0u, bench.rows().size());
      EXPECT_EQ(done ? 1u : 0u, bench.whole_files().size());
      EXPECT_FALSE(server.running());
      EXPECT_EQ(1u, bench.starts());
    }
}

TEST(Physical_Stop_Request, ends_a_restore_by_its_stage)
{
  const Stage stages[] = {
      {"brcmd started", JOB_STATE_CANCELED, JOB_STATE_ERROR},
      {"within the stream", JOB_STATE_CANCELED, JOB_STATE_ERROR},
      {"last byte of the first set", JOB_STATE_CANCELED, JOB_STATE_ERROR},
      {"last byte of the last set", JOB_STATE_COMPLETED, JOB_STATE_COMPLETED},
      {"start", JOB_STATE_COMPLETED, JOB_STATE_COMPLETED},
  };
  for (const Stage& stage : stages)
    for (const bool abort : {false, true}) {
      SCOPED_TRACE(std::string(stage.name) + (abort ? ", abort" : ", stop"));
      const std::string name = stage.name;
      Physical_Bench bench(FAST);
      bench.set_stream(bench.make_good_stream(4000000));
      bench.back_up();
      bench.set_next_state("full-1", "incr-1", 20);
      bench.back_up(JOB_DEFINITION_SUBTYPE_INCREMENTAL);

      const auto held = [&](const char* at) { return name == at ? hold(bench) : std::string(); };
      const std::string read = "read_to ${option:-f} " + (bench.dir / "fed") + "\n";
      bench.set_brcmd("exit 99", held("brcmd started") + read + "append_file " + (bench.dir / "restored") +
                                     " x\n" + held("last byte of the first set") + "if exists " +
                                     (bench.dir / "first") + "\n" + held("last byte of the last set") +
                                     "end\nwrite_file " + (bench.dir / "first") + " x\n");
      if (name == "within the stream")
        set_partial_reader(bench);
      if (name == "start")
        bench.dir.write("sys/systemctl",
                        "#!/bin/sh\necho x >" + (bench.dir / "up") + "\nwhile [ ! -e " + (bench.dir / "go") +
                            " ]; do sleep 0.01; done\necho \"$*\" >>" + (bench.dir / "starts") + "\n",
                        0755);
      const Fake_Server server(bench.dir, "hang");
      const Job_Ptr job = bench.make_job(bench.restore_fields("incr-1"));
      expect_end(bench, job, stage, abort);
      const std::string restored = exists(bench.dir / "restored") ? read_file(bench.dir / "restored") : "";
      EXPECT_EQ(job->state() == JOB_STATE_COMPLETED                 ? "xx"
                : name == std::string("last byte of the first set") ? "x"
                                                                    : "",
                restored);
      EXPECT_FALSE(server.running());
      EXPECT_EQ(1u, bench.starts());
    }
}

TEST(Physical_Stop_Request, of_a_job_that_waits_for_another_is_seen_when_its_turn_comes)
{
  Physical_Bench bench(FAST);
  bench.set_brcmd("if run 1\n" + hold(bench) + "end\n" + bench.good_backup());
  kestrel::Job_Definition_Fields fields = bench.backup_fields();
  fields.id = "7d3a1c52-0000-4000-8000-0000000000d2";
  const Job_Ptr first = bench.make_job(bench.backup_fields());
  const Job_Ptr second = bench.make_job(fields);
  ASSERT_EQ(0, first->start());
  ASSERT_TRUE(bench.wait_for(bench.dir / "up"));
  ASSERT_EQ(0, second->start());
  EXPECT_EQ(0, second->stop());
  bench.dir.write("go", "");
  ASSERT_TRUE(first->wait_end(60000));
  ASSERT_TRUE(second->wait_end(60000));
  EXPECT_TRUE(Job::wait_all_runs(60000));
  EXPECT_EQ(JOB_STATE_COMPLETED, first->state());
  EXPECT_EQ(JOB_STATE_CANCELED, second->state());
  EXPECT_EQ(1u, bench.rows().size());
}
