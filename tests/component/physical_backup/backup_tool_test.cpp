#include "support/physical_bench.h"

#include "support/fake_tool.h"
#include "support/fault_process_api.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>

using namespace kestrel_test;

namespace
{
typedef std::vector<int> Codes;

/// Slow enough for a tool that ends at once to have ended within the pause after its start.
const unsigned SLOW = 2;
const unsigned FAST = 100;
const char NO_DATA[] = "brcmd ended before it gave any data";

std::string stream_with_info_length(Physical_Bench& bench, uint32_t length)
{
  std::string stream = bench.make_good_stream(1000);
  for (int i = 0; i < 4; ++i)
    stream[static_cast<size_t>(i)] = static_cast<char>(length >> (24 - 8 * i));
  return stream;
}
} // namespace

TEST(Physical_Backup_Tool, fails_without_touching_storage_when_brcmd_is_missing)
{
  Physical_Bench bench(SLOW);
  ASSERT_EQ(0, ::remove((bench.home + "/bin/brcmd").c_str()));
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(), &alerts));
  EXPECT_TRUE(alerts.empty());
  bench.log.expect_exactly(LM_ERROR, "Failed to spawn oscar process.\n");
  bench.log.expect(LM_ERROR, NO_DATA);
  EXPECT_TRUE(bench.stored_files().empty());
  EXPECT_EQ(0u, bench.log.count("Process brcmd terminate"));
  bench.expect_recovery();
}

TEST(Physical_Backup_Tool, fails_without_touching_storage_when_brcmd_cannot_be_executed)
{
  Physical_Bench bench(SLOW);
  ASSERT_EQ(0, ::remove((bench.home + "/bin/brcmd").c_str()));
  bench.dir.write("home/bin/brcmd", "no program", 0644);
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields()));
  bench.log.expect_exactly(LM_ERROR, "Failed to spawn oscar process.\n");
  bench.log.expect(LM_ERROR, NO_DATA);
  EXPECT_TRUE(bench.stored_files().empty());
  bench.expect_recovery();
}

TEST(Physical_Backup_Tool, fails_without_touching_storage_when_brcmd_ends_at_once)
{
  for (const char* const end : {"exit 0", "err \"no such database\"\nexit 3", "die KILL"}) {
    Physical_Bench bench(SLOW);
    bench.set_brcmd(end);
    Codes alerts;
    EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(), &alerts)) << end;
    EXPECT_TRUE(alerts.empty());
    bench.log.expect(LM_ERROR, NO_DATA);
    bench.log.allow(LM_ERROR, "no such database");
    EXPECT_TRUE(bench.stored_files().empty());
    EXPECT_EQ(0u, bench.log.count("Process brcmd terminate"));
    EXPECT_TRUE(bench.fifos().empty());
  }
}

TEST(Physical_Backup_Tool, copies_the_output_of_brcmd_to_the_log)
{
  Physical_Bench bench;
  bench.set_brcmd("out \"going on\"\nerr \"a complaint\"\n" + bench.good_backup());
  bench.back_up();
  bench.log.expect(LM_INFO, "going on");
  bench.log.expect(LM_ERROR, "a complaint");
}

TEST(Physical_Backup_Tool, fails_when_brcmd_ends_later_without_opening_the_fifo)
{
  for (const char* const end : {"exit 0", "exit 5", "die TERM"}) {
    Physical_Bench bench(FAST);
    bench.set_brcmd("wait_file " + (bench.dir / "go") + "\n" + end);
    const Job_Ptr job = bench.make_job(bench.backup_fields());
    ASSERT_EQ(0, job->start());
    // The file is opened once brcmd has outlived the pause after its start.
    EXPECT_TRUE(eventually([&bench] { return !bench.stored_files().empty(); }));
    bench.dir.write("go", "");
    EXPECT_EQ(JOB_STATE_ERROR, bench.wait_end(job)) << end;
    EXPECT_EQ(Codes{16}, bench.alerts(job));
    bench.log.expect_exactly(LM_ERROR, "Failed to get backup info head, errno=0, Success\n");
    bench.log.expect_exactly(LM_INFO, "Process brcmd terminate.\n");
    bench.expect_recovery();
  }
}

TEST(Physical_Backup_Tool, fails_when_the_stream_ends_before_the_info_block_does)
{
  const size_t lengths[] = {0, 1, 3, 4, 5, 511, 512, 513, 530};
  for (const size_t length : lengths) {
    Physical_Bench bench(100);
    bench.set_stream(bench.make_good_stream(1000).substr(0, length));
    Codes alerts;
    EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(), &alerts)) << length;
    EXPECT_EQ(Codes{16}, alerts);
    bench.log.expect(LM_ERROR, length < 512 ? "Failed to get backup info head, errno=0"
                                            : "Failed to get backup info data, errno=0");
    bench.expect_recovery();
  }
}

TEST(Physical_Backup_Tool, fails_on_a_hostile_info_length)
{
  for (const uint32_t length : {0u, 1u, 511u, 0x00010000u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
    Physical_Bench bench(100);
    bench.set_stream(stream_with_info_length(bench, length));
    Codes alerts;
    EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(), &alerts)) << length;
    EXPECT_EQ(Codes{16}, alerts);
    bench.log.expect(LM_ERROR, length < 512 ? "Failed to get backup info data, errno=22, Invalid argument\n"
                                            : "Failed to get backup info data, errno=");
    EXPECT_TRUE(bench.rows().empty());
  }
}

TEST(Physical_Backup_Tool, fails_when_no_database_file_exists_here)
{
  for (const uint32_t length : {512u, 520u}) {
    Physical_Bench bench(100);
    bench.set_stream(stream_with_info_length(bench, length));
    Codes alerts;
    EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(), &alerts));
    EXPECT_EQ(Codes{16}, alerts);
    bench.log.expect_exactly(LM_ERROR, "Invalid backup set size\n");
    bench.expect_recovery();
  }
}

TEST(Physical_Backup_Tool, stores_a_stream_without_an_image)
{
  Physical_Bench bench;
  bench.set_stream(bench.make_good_stream(0));
  bench.back_up();
}

TEST(Physical_Backup_Tool, records_as_unusable_what_has_an_info_block_that_no_restore_takes)
{
  Physical_Bench bench;
  const std::string info = bench.data_file + "=5000\n" + std::string(8000, '#') + "\n";
  std::string stream = bench.make_good_stream(0).substr(0, 512) + info + "image";
  const uint32_t length = static_cast<uint32_t>(512 + info.size());
  for (int i = 0; i < 4; ++i)
    stream[static_cast<size_t>(i)] = static_cast<char>(length >> (24 - 8 * i));
  bench.set_stream(stream);
  bench.back_up();
  bench.log.expect(LM_WARNING, "can be stored but not restored");
  const json_spirit::Object row = bench.rows().at(0).get_obj();
  EXPECT_TRUE(json_spirit::find_value(row, "state").get_array().empty());
  EXPECT_EQ("its info block has " + std::to_string(length) + " bytes, and a restore takes at most 8192",
            json_spirit::find_value(row, "state_reason").get_str());

  // Nothing is to build on it.
  bench.set_next_state("full-2", "full-2", 20);
  bench.set_stream(bench.make_good_stream(1000));
  bench.back_up(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
  bench.log.expect_exactly(LM_INFO, "Lack of backup info, run full backup instead.\n");
  const json_spirit::Object next = bench.rows().at(1).get_obj();
  EXPECT_EQ("full", json_spirit::find_value(next, "type").get_str());
  EXPECT_FALSE(json_spirit::find_value(next, "state").get_array().empty());
  EXPECT_EQ("", json_spirit::find_value(next, "state_reason").get_str());
}

TEST(Physical_Backup_Tool, records_nothing_when_brcmd_is_killed_within_the_stream)
{
  for (const char* const end : {"die KILL", "die SEGV", "exit 1"}) {
    Physical_Bench bench;
    bench.set_brcmd("begin ${option:-f}\nput_file " + (bench.dir / "stream") + "\n" + end);
    Codes alerts;
    EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(), &alerts)) << end;
    EXPECT_TRUE(alerts.empty());
    bench.log.expect(LM_ERROR, "brcmd reported a failure after ");
    bench.log.expect_exactly(LM_INFO, "Process brcmd terminate.\n");
    bench.expect_recovery();
  }
}

TEST(Physical_Backup_Tool, does_not_wait_for_a_child_that_a_killed_brcmd_left_with_the_pipe)
{
  Physical_Bench bench;
  bench.set_brcmd("begin ${option:-f}\nput_file " + (bench.dir / "stream") + "\ngrandchild 60000 " +
                  (bench.dir / "left") + "\ndie KILL");
  const int64_t before = bench.clock.monotonic_msec();
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields()));
  EXPECT_LT(bench.clock.monotonic_msec() - before, 600 * 1000);
  bench.log.expect(LM_ERROR, "brcmd reported a failure after ");
  bench.expect_recovery();
}

TEST(Physical_Backup_Tool, records_nothing_when_brcmd_fails_after_the_whole_stream)
{
  Physical_Bench bench;
  bench.set_brcmd(bench.good_backup() + "sleep 100\nexit 7");
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(), &alerts));
  EXPECT_TRUE(alerts.empty());
  bench.log.expect(LM_ERROR, "brcmd reported a failure after ");
  ASSERT_EQ(1u, bench.stored_files().size());
  EXPECT_NE(std::string::npos, bench.stored_files()[0].find(".partial"));
  bench.expect_recovery();
}

TEST(Physical_Backup_Tool, waits_for_brcmd_after_the_end_of_the_stream)
{
  Physical_Bench bench;
  bench.set_brcmd("begin ${option:-f}\nput_file " + (bench.dir / "stream") + "\nfinish\nsleep 300\ncopy " +
                  (bench.dir / "next_state") + " " + bench.home + "/agent/lastlsn.dat");
  bench.back_up();
}

TEST(Physical_Backup_Tool, fails_when_the_new_chain_state_cannot_be_read)
{
  Physical_Bench bench;
  bench.set_brcmd("begin ${option:-f}\nput_file " + (bench.dir / "stream") + "\nfinish\n");
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(), &alerts));
  EXPECT_EQ(Codes{18}, alerts);
  bench.log.expect(LM_ERROR, "Failed to open file " + bench.home + "/agent/lastlsn.dat: No such file");
  bench.log.expect_exactly(LM_ERROR, "Failed to get backup info.\n");
  EXPECT_TRUE(bench.rows().empty());
}

TEST(Physical_Backup_Tool, kills_a_brcmd_that_ignores_every_request_to_end)
{
  Physical_Bench bench(400);
  bench.set_brcmd("ignore TERM\nignore PIPE\nbegin ${option:-f}\nput_zeros 600\nhang");
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(), &alerts));
  EXPECT_EQ(Codes{16}, alerts); // zeros are an info length of 0
  bench.log.expect(LM_ERROR, "Failed to get backup info data, errno=22");
  bench.log.expect_exactly(LM_INFO, "Process brcmd terminate.\n");
  bench.expect_recovery();
}

TEST(Physical_Backup_Tool, fails_at_each_tool_that_cannot_be_started)
{
  // isql for the log mode, then brcmd.
  for (unsigned k = 1; k <= 2; ++k) {
    Physical_Bench bench(SLOW * 10);
    Codes alerts;
    {
      Fault_Process_Api faults;
      if (k == 1)
        faults.fail_all(EAGAIN);
      else
        faults.fail_spawn(2, EAGAIN);
      EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(), &alerts));
    }
    if (k == 1) {
      EXPECT_EQ(Codes{24}, alerts);
      bench.log.allow(LM_ERROR, "Failed to get log");
    } else {
      EXPECT_TRUE(alerts.empty());
      bench.log.expect_exactly(LM_ERROR, "Failed to spawn oscar process.\n");
      bench.log.expect(LM_ERROR, NO_DATA);
    }
    bench.expect_recovery();
  }
}

TEST(Physical_Backup_Cancel, before_the_stream_begins_is_seen_once_data_flows)
{
  Physical_Bench bench;
  bench.set_brcmd("write_file " + (bench.dir / "up") + " x\nwait_file " + (bench.dir / "go") + "\n" +
                  bench.good_backup());
  const Job_Ptr job = bench.make_job(bench.backup_fields());
  ASSERT_EQ(0, job->start());
  ASSERT_TRUE(bench.wait_for(bench.dir / "up"));
  bench.clock.stand_still(); // not to be taken for silent
  EXPECT_EQ(0, job->stop());
  bench.dir.write("go", "");
  EXPECT_EQ(JOB_STATE_CANCELED, bench.wait_end(job));
  EXPECT_TRUE(bench.alerts(job).empty());
  bench.log.expect_exactly(LM_INFO, "Job(" + job->definition().id() + ") has been canceled.\n");
  EXPECT_TRUE(bench.stored_files().empty()) << "the partial file of a canceled backup stayed";
  bench.expect_recovery();
}

TEST(Physical_Backup_Cancel, within_the_stream_removes_the_file)
{
  Physical_Bench bench;
  bench.set_brcmd("begin ${option:-f}\nput_file " + (bench.dir / "stream") + "\nwrite_file " +
                  (bench.dir / "up") + " x\nput_slow 100000000 8192 1\n");
  const Job_Ptr job = bench.make_job(bench.backup_fields());
  ASSERT_EQ(0, job->start());
  ASSERT_TRUE(bench.wait_for(bench.dir / "up"));
  bench.clock.stand_still(); // not to be taken for silent
  EXPECT_EQ(0, job->stop());
  EXPECT_EQ(JOB_STATE_CANCELED, bench.wait_end(job));
  bench.log.expect_exactly(LM_INFO, "Job(" + job->definition().id() + ") has been canceled.\n");
  bench.log.expect_exactly(LM_INFO, "Process brcmd terminate.\n");
  EXPECT_TRUE(bench.stored_files().empty());
  bench.expect_recovery();
}

TEST(Physical_Backup_Cancel, by_abort_ends_as_an_error)
{
  Physical_Bench bench;
  bench.set_brcmd("begin ${option:-f}\nput_file " + (bench.dir / "stream") + "\nwrite_file " +
                  (bench.dir / "up") + " x\nput_slow 100000000 8192 1\n");
  const Job_Ptr job = bench.make_job(bench.backup_fields());
  ASSERT_EQ(0, job->start());
  ASSERT_TRUE(bench.wait_for(bench.dir / "up"));
  bench.clock.stand_still(); // not to be taken for silent
  EXPECT_EQ(0, job->abort());
  EXPECT_EQ(JOB_STATE_ERROR, bench.wait_end(job));
  bench.log.expect_exactly(LM_INFO, "Job(" + job->definition().id() + ") has been canceled.\n");
  EXPECT_TRUE(bench.stored_files().empty());
  bench.expect_recovery();
}

TEST(Physical_Backup_Cancel, after_the_last_byte_comes_too_late)
{
  Physical_Bench bench;
  bench.set_brcmd(bench.good_backup() + "wait_file " + (bench.dir / "go") + "\n");
  const Job_Ptr job = bench.make_job(bench.backup_fields());
  ASSERT_EQ(0, job->start());
  ASSERT_TRUE(bench.wait_streamed(job));
  bench.clock.stand_still(); // not to be taken for silent
  EXPECT_EQ(0, job->stop());
  bench.dir.write("go", "");
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.wait_end(job));
  EXPECT_EQ(1u, bench.rows().size());
  EXPECT_EQ(1u, bench.whole_files().size());
}

TEST(Physical_Backup_Cancel, while_the_log_mode_is_asked_lets_no_data_be_kept)
{
  Physical_Bench bench;
  make_fake_tool(bench.dir, "home/bin/isql",
                 "write_file " + (bench.dir / "up") + " x\nwait_file " + (bench.dir / "go") +
                     "\nout a\nout -\nout ARCHIVELOG\nout \"(1 row)\"\n");
  const Job_Ptr job = bench.make_job(bench.backup_fields());
  ASSERT_EQ(0, job->start());
  ASSERT_TRUE(bench.wait_for(bench.dir / "up"));
  bench.clock.stand_still(); // not to be taken for silent
  EXPECT_EQ(0, job->stop());
  bench.dir.write("go", "");
  EXPECT_EQ(JOB_STATE_CANCELED, bench.wait_end(job));
  bench.expect_recovery();
}

TEST(Physical_Backup_Cancel, ends_a_silent_isql)
{
  Physical_Bench bench(200);
  make_fake_tool(bench.dir, "home/bin/isql", "write_file " + (bench.dir / "up") + " x\nhang\n");
  const Job_Ptr job = bench.make_job(bench.backup_fields());
  ASSERT_EQ(0, job->start());
  ASSERT_TRUE(bench.wait_for(bench.dir / "up"));
  EXPECT_EQ(0, job->stop());
  EXPECT_EQ(JOB_STATE_CANCELED, bench.wait_end(job));
  EXPECT_EQ(std::vector<int>{24}, bench.alerts(job));
  bench.log.expect(LM_WARNING, "isql has been silent");
  bench.log.expect(LM_WARNING, "isql has been terminated");
  bench.log.expect_exactly(LM_ERROR, "Failed to get log mode.\n");
  bench.log.expect(LM_ERROR, "Failed to get log archive mode");
  bench.expect_recovery();
}

TEST(Physical_Backup_Cancel, ends_a_silent_shutdown)
{
  Physical_Bench bench(200);
  make_fake_tool(bench.dir, "home/bin/isql",
                 "if args_contain archivemode\nout a\nout -\nout NOARCHIVELOG\nout \"(1 row)\"\nend\n"
                 "if args_contain shutdown\nwrite_file " + // and no other question: who lists the host's
                                                           // instances asks too
                     (bench.dir / "up") +
                     " x\nhang\nend\n");
  const Fake_Server server(bench.dir, "hang");
  const Job_Ptr job = bench.make_job(bench.backup_fields());
  ASSERT_EQ(0, job->start());
  ASSERT_TRUE(bench.wait_for(bench.dir / "up"));
  EXPECT_EQ(0, job->stop());
  EXPECT_EQ(JOB_STATE_CANCELED, bench.wait_end(job));
  EXPECT_EQ(std::vector<int>{19}, bench.alerts(job));
  bench.log.expect(LM_WARNING, "isql has been silent");
  bench.log.expect(LM_WARNING, "isql has been terminated");
  bench.log.expect_exactly(LM_ERROR, "Failed to to shutdown instance.\n");
  bench.log.expect_exactly(LM_INFO, "Job(" + job->definition().id() + ") has been canceled.\n");
  EXPECT_TRUE(bench.stored_files().empty());
}

TEST(Physical_Backup_Cancel, ends_a_silent_brcmd)
{
  const char* const silences[] = {
      "hang",                                                   // never opens the FIFO
      "begin ${option:-f}\nhang",                               // opens it and says nothing
      "begin ${option:-f}\nput_file STREAM\nhang",              // stops within the stream
      "begin ${option:-f}\nput_file STREAM\nfinish\nhang",      // does not end after the stream
      "ignore TERM\nbegin ${option:-f}\nput_file STREAM\nhang", // has to be killed
  };
  for (std::string script : silences) {
    Physical_Bench bench(200);
    const size_t at = script.find("STREAM");
    if (at != std::string::npos)
      script.replace(at, 6, bench.dir / "stream");
    bench.set_brcmd("write_file " + (bench.dir / "up") + " x\n" + script);
    const Job_Ptr job = bench.make_job(bench.backup_fields());
    ASSERT_EQ(0, job->start());
    ASSERT_TRUE(bench.wait_for(bench.dir / "up"));
    if (at != std::string::npos) {
      ASSERT_TRUE(bench.wait_streamed(job));
    }
    EXPECT_EQ(0, job->stop());
    EXPECT_EQ(JOB_STATE_CANCELED, bench.wait_end(job)) << script;
    bench.log.expect(LM_WARNING, "Tool_Watch: job " + job->definition().id());
    bench.log.allow(LM_WARNING, "Tool_Watch: brcmd has been terminated");
    bench.log.allow(LM_ERROR, "Failed to get backup info head");
    bench.log.allow(LM_ERROR, "brcmd reported a failure");
    bench.expect_recovery();
  }
}

TEST(Physical_Backup_Cancel, does_not_wait_ten_minutes_for_a_brcmd_that_will_not_end)
{
  for (const char* busy : {"hang", "out_lines 100000000 row"}) {
    Physical_Bench bench(200);
    bench.set_brcmd("ignore TERM\nignore PIPE\nbegin ${option:-f}\nput_file " + (bench.dir / "stream") +
                    "\nwrite_file " + (bench.dir / "up") + " x\nwait_file " + (bench.dir / "go") +
                    "\nput_zeros 600\n" + busy);
    const Job_Ptr job = bench.make_job(bench.backup_fields());
    ASSERT_EQ(0, job->start());
    ASSERT_TRUE(bench.wait_for(bench.dir / "up"));
    // So that the pump waits for more, and sees the end that is wanted only with what comes then.
    ASSERT_TRUE(bench.wait_streamed(job));
    EXPECT_EQ(0, job->stop());
    bench.dir.write("go", "");
    EXPECT_EQ(JOB_STATE_CANCELED, bench.wait_end(job)) << busy;
    // The watch ended it, not the patience of the job.
    EXPECT_TRUE(bench.log.expect(LM_WARNING, "Tool_Watch: job " + job->definition().id())) << busy;
    EXPECT_TRUE(bench.log.expect(LM_WARNING, "Tool_Watch: brcmd has been terminated")) << busy;
    bench.log.allow(LM_ERROR, "");
    bench.expect_recovery();
  }
}

TEST(Physical_Backup_Cancel, frees_the_job_from_a_process_that_a_brcmd_without_fault_left_with_the_fifo)
{
  for (const char* const given : {"", "put_file STREAM\n"}) {
    for (const char* const session : {"", " own"}) {
      SCOPED_TRACE(std::string(given) + session);
      Physical_Bench bench(200);
      std::string script = std::string("begin ${option:-f}\n") + given;
      const size_t at = script.find("STREAM");
      if (at != std::string::npos)
        script.replace(at, 6, bench.dir / "stream");
      bench.set_brcmd(script + "grandchild 600000 " + (bench.dir / "left") + session + "\nexit 0");
      const Job_Ptr job = bench.make_job(bench.backup_fields());
      ASSERT_EQ(0, job->start());
      ASSERT_TRUE(bench.wait_for(bench.dir / "left"));
      if (at != std::string::npos) {
        ASSERT_TRUE(bench.wait_streamed(job));
      }
      EXPECT_EQ(0, job->stop());
      EXPECT_EQ(JOB_STATE_CANCELED, bench.wait_end(job));
      bench.log.expect(LM_WARNING, "brcmd has ended, but a process that it left behind holds the FIFO");
      bench.log.allow(LM_ERROR, "Failed to get backup info ");
      bench.log.allow(LM_ERROR, "brcmd reported a failure");
      const pid_t left = std::stoi(read_file(bench.dir / "left"));
      if (*session)
        ::kill(left, SIGKILL); // out of the product's reach
      EXPECT_TRUE(eventually([left] { return has_ended(left); }));
      bench.expect_recovery();
    }
  }
}
