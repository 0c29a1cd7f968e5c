#include "logical_bench.h"

#include <gtest/gtest.h>

#include <unistd.h>

using namespace kestrel_test;

namespace
{
const std::vector<std::string> LEVELS = {"oscar/LOGI1/LOGI1", "oscar/LOGI1/LOGI1/S"};

enum class Request { STOP, ABORT };

struct Stage {
  const char* name;
  /// Makes the run stand still at this stage, with the file "up" to show it.
  std::function<void(Logical_Bench&, kestrel::Job_Definition_Fields&)> prepare;
};

std::string hang(const Logical_Bench& bench)
{
  return "write_file " + (bench.dir / "up") + " x\nhang\n";
}

const Stage backup_stages[] = {
    {"pre-action",
     [](Logical_Bench& bench, kestrel::Job_Definition_Fields& fields) {
       fields.pre_action = "touch " + (bench.dir / "up") + "; sleep 600"; // until the watch ends it
     }},
    {"export",
     [](Logical_Bench& bench, kestrel::Job_Definition_Fields&) {
       bench.set_tool("osrexp", "write_file ${prefix:file=} half\n" + hang(bench));
     }},
    {"export of the second object",
     [](Logical_Bench& bench, kestrel::Job_Definition_Fields&) {
       bench.set_tool("osrexp", "write_file ${prefix:file=} dump\nif run 2\n" + hang(bench) + "end\n");
     }},
    {"export by a tool that does not listen",
     [](Logical_Bench& bench, kestrel::Job_Definition_Fields&) {
       bench.set_tool("osrexp", "ignore TERM\n" + hang(bench));
     }},
    {"export by a tool that prints without end",
     [](Logical_Bench& bench, kestrel::Job_Definition_Fields&) {
       bench.set_tool("osrexp", "write_file " + (bench.dir / "up") + " x\nout_lines 100000000 row\n");
     }},
    {"transfer",
     [](Logical_Bench& bench, kestrel::Job_Definition_Fields& fields) {
       bench.set_tool("osrexp",
                      "write_pattern ${prefix:file=} 4000000\nwrite_file " + (bench.dir / "up") + " x\n");
       fields.rate_limits.write_limit(5000);
     }},
    {"list of tablespaces",
     [](Logical_Bench& bench, kestrel::Job_Definition_Fields&) { bench.set_tool("isql", hang(bench)); }},
};

const Stage restore_stages[] = {
    {"pre-action",
     [](Logical_Bench& bench, kestrel::Job_Definition_Fields& fields) {
       fields.pre_action = "touch " + (bench.dir / "up") + "; sleep 600"; // until the watch ends it
     }},
    {"list of tablespaces",
     [](Logical_Bench& bench, kestrel::Job_Definition_Fields&) { bench.set_tool("isql", hang(bench)); }},
    {"creation of a tablespace",
     [](Logical_Bench& bench, kestrel::Job_Definition_Fields&) { bench.set_tablespaces({}, hang(bench)); }},
    {"transfer",
     [](Logical_Bench& bench, kestrel::Job_Definition_Fields& fields) {
       fields.pre_action = "touch " + (bench.dir / "up");
       fields.rate_limits.read_limit(5000);
     }},
    {"import",
     [](Logical_Bench& bench, kestrel::Job_Definition_Fields&) { bench.set_osrimp("2.6.0", hang(bench)); }},
    {"import by a tool that does not listen",
     [](Logical_Bench& bench, kestrel::Job_Definition_Fields&) {
       bench.set_osrimp("2.6.0", "ignore TERM\n" + hang(bench));
     }},
};

void request(const Job_Ptr& job, Request what)
{
  EXPECT_EQ(0, what == Request::STOP ? job->stop() : job->abort());
}

void run_and_cancel(Logical_Bench& bench, const kestrel::Job_Definition_Fields& fields, Request what)
{
  // What the tools say when they are ended is their affair.
  bench.log.allow(LM_ERROR, "");
  bench.log.allow(LM_WARNING, "Tool_Watch");
  ::unlink((bench.dir / "up").c_str());
  const Job_Ptr job = bench.make_job(fields);
  ASSERT_EQ(0, job->start());
  ASSERT_TRUE(bench.wait_for(bench.dir / "up"));
  request(job, what);
  EXPECT_EQ(what == Request::STOP ? JOB_STATE_CANCELED : JOB_STATE_ERROR, bench.wait_end(job));
  EXPECT_TRUE(bench.alerts(job).empty());
  bench.expect_no_dump_left();
}
} // namespace

TEST(Logical_Cancel, at_every_stage_of_a_backup_keeps_nothing_and_the_next_one_works)
{
  for (const Request what : {Request::STOP, Request::ABORT})
    for (const Stage& stage : backup_stages) {
      SCOPED_TRACE(stage.name);
      Logical_Bench bench(100);
      kestrel::Job_Definition_Fields fields = bench.backup_fields(LEVELS);
      stage.prepare(bench, fields);
      run_and_cancel(bench, fields, what);
      EXPECT_TRUE(bench.rows().empty());
      bench.expect_no_archive_left();
      bench.set_osrexp(1000);
      bench.set_tablespaces({});
      bench.back_up(LEVELS);
      EXPECT_EQ(1u, bench.rows().size());
    }
}

TEST(Logical_Cancel, at_every_stage_of_a_restore_leaves_no_dump_and_the_next_one_works)
{
  for (const Request what : {Request::STOP, Request::ABORT})
    for (const Stage& stage : restore_stages) {
      SCOPED_TRACE(stage.name);
      Logical_Bench bench(100);
      bench.set_osrexp(4000000);
      bench.set_tablespaces({"TS1"});
      bench.back_up(LEVELS);
      kestrel::Job_Definition_Fields fields = bench.restore_fields("S");
      stage.prepare(bench, fields);
      run_and_cancel(bench, fields, what);
      bench.set_tablespaces({});
      bench.set_osrimp("2.6.0", "");
      EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields("S")));
    }
}

TEST(Logical_Cancel, raises_no_alert)
{
  Logical_Bench bench(100);
  bench.set_tool("osrexp", hang(bench));
  bench.log.allow(LM_ERROR, "");
  const Job_Ptr job = bench.make_job(bench.backup_fields(LEVELS));
  ASSERT_EQ(0, job->start());
  ASSERT_TRUE(bench.wait_for(bench.dir / "up"));
  EXPECT_EQ(0, job->stop());
  EXPECT_EQ(JOB_STATE_CANCELED, bench.wait_end(job));
  EXPECT_TRUE(bench.alerts(job).empty());
}

TEST(Logical_Pause, holds_the_transfer_until_it_is_resumed)
{
  Logical_Bench bench;
  bench.set_osrexp(5000000);
  kestrel::Job_Definition_Fields fields = bench.backup_fields({LEVELS[0]});
  fields.rate_limits.write_limit(100000);
  const Job_Ptr job = bench.make_job(fields);
  ASSERT_EQ(0, job->start());
  for (int i = 0; i < 60000 && job->activity()->progress < 10; ++i)
    ::usleep(1000);
  EXPECT_EQ(0, job->pause());
  EXPECT_FALSE(job->wait_end(300)) << "the transfer went on";
  EXPECT_EQ(0, job->resume());
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.wait_end(job));
}
