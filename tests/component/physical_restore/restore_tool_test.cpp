#include "support/fault_process_api.h"
#include "support/physical_bench.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <unistd.h>

using namespace kestrel_test;

namespace
{
typedef std::vector<int> Codes;

const unsigned FAST = 100;
} // namespace

TEST(Physical_Restore_Tool, fails_when_brcmd_cannot_be_started)
{
  Physical_Bench bench(FAST);
  bench.back_up();
  ASSERT_EQ(0, ::remove((bench.home + "/bin/brcmd").c_str()));
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("full-1"), &alerts));
  EXPECT_EQ(Codes{17}, alerts);
  bench.log.expect_exactly(LM_ERROR, "Failed to write backup info to fifo, errno=32, Broken pipe\n");
  EXPECT_EQ(1u, bench.starts());
}

TEST(Physical_Restore_Tool, fails_when_the_spawn_fails)
{
  Physical_Bench bench(FAST);
  bench.back_up();
  Codes alerts;
  {
    Fault_Process_Api faults;
    faults.fail_spawn(1, EAGAIN);
    EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("full-1"), &alerts));
  }
  EXPECT_EQ(Codes{17}, alerts);
  bench.log.expect_exactly(LM_ERROR, "Failed to write backup info to fifo, errno=32, Broken pipe\n");
  EXPECT_EQ(1u, bench.starts());
}

TEST(Physical_Restore_Tool, fails_when_brcmd_ends_without_opening_the_fifo)
{
  for (const char* const end : {"exit 0", "exit 3", "die KILL", "sleep 100\nexit 0"}) {
    Physical_Bench bench(FAST);
    bench.back_up();
    bench.set_brcmd("exit 99", end);
    Codes alerts;
    EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("full-1"), &alerts)) << end;
    EXPECT_EQ(Codes{17}, alerts);
    bench.log.expect_exactly(LM_ERROR, "Failed to write backup info to fifo, errno=32, Broken pipe\n");
    EXPECT_EQ(1u, bench.starts());
  }
}

TEST(Physical_Restore_Tool, fails_when_brcmd_stops_reading)
{
  for (const char* const end : {"exit 0", "exit 3", "die KILL"}) {
    Physical_Bench bench(FAST);
    bench.set_stream(bench.make_good_stream(5000000));
    bench.back_up();
    bench.set_brcmd("exit 99", "read_some ${option:-f} 100000\n" + std::string(end));
    Codes alerts;
    EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("full-1"), &alerts)) << end;
    EXPECT_EQ(Codes{17}, alerts);
    bench.log.expect_exactly(LM_ERROR, "Failed to write backup data to fifo, errno=32, Broken pipe\n");
    EXPECT_EQ(1u, bench.starts());
  }
}

TEST(Physical_Restore_Tool, fails_when_brcmd_reports_a_failure_at_the_end)
{
  Physical_Bench bench(FAST);
  bench.back_up();
  bench.set_brcmd("exit 99", bench.good_restore() + "exit 1");
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("full-1"), &alerts));
  EXPECT_TRUE(alerts.empty());
  bench.log.expect(LM_ERROR, "brcmd read all of file ");
  EXPECT_EQ(1u, bench.starts());
}

TEST(Physical_Restore_Tool, kills_a_stubborn_brcmd_before_it_sees_the_end_of_a_damaged_stream)
{
  Physical_Bench bench(400);
  bench.set_stream(bench.make_good_stream(50000000));
  bench.back_up();
  const std::string path = "pool/" + bench.source_id + "/" + bench.whole_files().at(0);
  std::string content = read_file(bench.dir / path);
  content[content.size() - 1] = static_cast<char>(content[content.size() - 1] + 1);
  bench.dir.write(path, content);
  bench.set_brcmd("exit 99", "ignore TERM\n" + bench.marking_restore());
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("full-1"), &alerts));
  EXPECT_EQ(Codes{16}, alerts);
  bench.log.expect(LM_ERROR, "Failed to read backup data: ");
  EXPECT_FALSE(exists(bench.dir / "restored"));
}

TEST(Physical_Restore_Tool, reaches_the_child_that_reads_for_a_wrapper)
{
  // brcmd is a shell script whose child reads. The stream is damaged, or the script dies and leaves the
  // child.
  for (const bool dies : {false, true}) {
    Physical_Bench bench(FAST);
    bench.set_stream(bench.make_good_stream(5000000));
    bench.back_up();
    const std::string path = "pool/" + bench.source_id + "/" + bench.whole_files().at(0);
    std::string content = read_file(bench.dir / path);
    content[content.size() - 1] = static_cast<char>(content[content.size() - 1] + 1);
    bench.dir.write(path, content);
    ASSERT_EQ(0, ::unlink((bench.home + "/bin/brcmd").c_str())); // a link to the fake tool
    bench.dir.write("home/bin/brcmd",
                    "#!/bin/sh\nwhile [ \"$1\" != -f ]; do shift; done\n(cat \"$2\" >/dev/null; echo x >" +
                        (bench.dir / "restored") + ") &\n" + (dies ? "kill -9 $$" : "wait") + "\n",
                    0755);
    Codes alerts;
    EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("full-1"), &alerts));
    // The reader works ahead: it may meet the damage before it has given out the info block.
    bench.log.allow(LM_ERROR, "Failed to read backup ");
    bench.log.allow(LM_ERROR, "Failed to write backup ");
    ::usleep(300 * 1000);
    EXPECT_FALSE(exists(bench.dir / "restored")) << "the child took the stream for a whole backup";
    EXPECT_EQ(1u, bench.starts());
  }
}

TEST(Physical_Restore_Cancel, within_the_stream_ends_brcmd)
{
  for (const bool abort : {false, true}) {
    Physical_Bench bench;
    bench.set_stream(bench.make_good_stream(8000000));
    bench.back_up();
    // Reads a part, and the rest only after the cancel.
    bench.set_brcmd("exit 99", "read_some ${option:-f} 10\nexit 0");
    bench.set_brcmd("exit 99", "write_file " + (bench.dir / "up") + " x\nwait_file " + (bench.dir / "go") +
                                   "\n" + bench.marking_restore());
    const Job_Ptr job = bench.make_job(bench.restore_fields("full-1"));
    ASSERT_EQ(0, job->start());
    ASSERT_TRUE(bench.wait_for(bench.dir / "up"));
    bench.clock.stand_still(); // not to be taken for silent
    EXPECT_EQ(0, abort ? job->abort() : job->stop());
    bench.dir.write("go", "");
    EXPECT_EQ(abort ? JOB_STATE_ERROR : JOB_STATE_CANCELED, bench.wait_end(job));
    EXPECT_TRUE(bench.alerts(job).empty());
    bench.log.expect_exactly(LM_INFO, "Job(" + job->definition().id() + ") has been canceled.\n");
    EXPECT_FALSE(exists(bench.dir / "restored"));
    EXPECT_EQ(1u, bench.starts());
  }
}

TEST(Physical_Restore_Cancel, ends_a_silent_brcmd)
{
  for (std::string silence : {"hang", "begin ${option:-f}\nhang", "ignore TERM\nhang",
                              "read_to ${option:-f} /dev/null\nwrite_file END x\nhang"}) {
    Physical_Bench bench(200);
    bench.set_stream(bench.make_good_stream(5000000));
    bench.back_up();
    const size_t at = silence.find("END");
    if (at != std::string::npos)
      silence.replace(at, 3, bench.dir / "end");
    bench.set_brcmd("exit 99", "write_file " + (bench.dir / "up") + " x\n" + silence);
    const Job_Ptr job = bench.make_job(bench.restore_fields("full-1"));
    ASSERT_EQ(0, job->start());
    ASSERT_TRUE(bench.wait_for(bench.dir / "up"));
    if (at != std::string::npos) {
      ASSERT_TRUE(bench.wait_for(bench.dir / "end"));
    }
    EXPECT_EQ(0, job->stop());
    EXPECT_EQ(JOB_STATE_CANCELED, bench.wait_end(job)) << silence;
    bench.log.expect(LM_WARNING, "Tool_Watch: job " + job->definition().id());
    bench.log.allow(LM_WARNING, "Tool_Watch: brcmd has been terminated");
    bench.log.allow(LM_ERROR, "Failed to write backup ");
    bench.log.allow(LM_ERROR, "brcmd read all of file ");
    EXPECT_EQ(1u, bench.starts());
  }
}

TEST(Physical_Restore_Cancel, does_not_wait_ten_minutes_for_a_brcmd_that_will_not_end)
{
  for (const char* busy : {"hang", "out_lines 100000000 row"}) {
    Physical_Bench bench(200);
    bench.set_stream(bench.make_good_stream(8000000));
    bench.back_up();
    bench.set_brcmd("exit 99", "ignore TERM\nhold ${option:-f}\nwrite_file " + (bench.dir / "up") +
                                   " x\nwait_file " + (bench.dir / "go") + "\nread_some ${option:-f} 300000\n" + busy);
    const Job_Ptr job = bench.make_job(bench.restore_fields("full-1"));
    ASSERT_EQ(0, job->start());
    ASSERT_TRUE(bench.wait_for(bench.dir / "up"));
    EXPECT_EQ(0, job->stop());
    bench.dir.write("go", "");
    EXPECT_EQ(JOB_STATE_CANCELED, bench.wait_end(job)) << busy;
    EXPECT_TRUE(bench.log.expect(LM_WARNING, "Tool_Watch: job " + job->definition().id())) << busy;
    EXPECT_TRUE(bench.log.expect(LM_WARNING, "Tool_Watch: brcmd has been terminated")) << busy;
    bench.log.allow(LM_ERROR, "");
    EXPECT_EQ(1u, bench.starts());
  }
}

TEST(Physical_Restore_Cancel, frees_the_job_from_a_process_that_a_brcmd_without_fault_left_with_the_fifo)
{
  for (const char* const session : {"", " own"}) {
    SCOPED_TRACE(session);
    Physical_Bench bench(200);
    bench.set_stream(bench.make_good_stream(5000000));
    bench.back_up();
    bench.set_brcmd("exit 99",
                    "hold ${option:-f}\ngrandchild 600000 " + (bench.dir / "left") + session + "\nexit 0");
    const Job_Ptr job = bench.make_job(bench.restore_fields("full-1"));
    ASSERT_EQ(0, job->start());
    ASSERT_TRUE(bench.wait_for(bench.dir / "left"));
    EXPECT_EQ(0, job->stop());
    EXPECT_EQ(JOB_STATE_CANCELED, bench.wait_end(job));
    bench.log.allow(LM_WARNING, "brcmd has ended, but a process that it left behind holds the FIFO");
    bench.log.allow(LM_ERROR, "Failed to write backup ");
    bench.log.allow(LM_ERROR, "brcmd read all of file ");
    const pid_t left = std::stoi(read_file(bench.dir / "left"));
    if (*session)
      ::kill(left, SIGKILL);
    EXPECT_TRUE(eventually([left] { return has_ended(left); }));
    EXPECT_EQ(1u, bench.starts());
  }
}
