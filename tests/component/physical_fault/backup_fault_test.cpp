#include "support/physical_bench.h"

#include "catalog/catalog_operator.h"
#include "support/fault_file_system.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <unistd.h>

using namespace kestrel_test;

namespace
{
typedef std::vector<int> Codes;

const char* const CALLS[] = {"open",  "write", "pwrite", "fsync",           "close", "rename", "unlink",
                             "mkdir", "fstat", "stat",   "fsync_directory", "read",  "pread"};
const unsigned FAST = 100;
const unsigned MOST_CALLS = 200;

} // namespace

TEST(Physical_Backup_Fault, of_each_file_operation_leaves_no_half_backup)
{
  for (const char* const call : CALLS) {
    bool met = true;
    for (unsigned k = 1; met && k < MOST_CALLS; ++k) {
      SCOPED_TRACE(std::string(call) + " " + std::to_string(k));
      Physical_Bench bench(FAST);
      bench.set_stream(bench.make_good_stream(3000000));
      bench.log.allow(LM_ERROR, "");
      bench.log.allow(LM_WARNING, "");
      const Job_Ptr job = bench.make_job(bench.backup_fields());
      {
        Fault_File_System faults;
        faults.fail(call, k, EIO);
        const Job_State state = bench.run(job);
        met = faults.met();
        EXPECT_TRUE(state == JOB_STATE_COMPLETED || state == JOB_STATE_ERROR) << state;
      }
      EXPECT_EQ(job->state() == JOB_STATE_COMPLETED ? 1u : 0u, bench.rows().size());
      if (job->state() == JOB_STATE_COMPLETED) {
        EXPECT_EQ(1u, bench.whole_files().size());
        EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields("full-1")));
      } else {
        const bool closed = bench.whole_files().size() == 1;
        EXPECT_FALSE(closed && bench.log.contains("Failed to write to storage"))
            << "a refused file has its final name";
        bench.expect_recovery(closed ? 1 : 0);
      }
    }
    EXPECT_FALSE(met) << "calls of " << call << " that no round failed";
  }
}

TEST(Physical_Backup_Fault, of_a_full_disk_is_an_alert_with_the_reason)
{
  for (unsigned k = 1; k <= 2; ++k) {
    Physical_Bench bench(FAST);
    bench.set_stream(bench.make_good_stream(20000000));
    Codes alerts;
    {
      Fault_File_System faults;
      faults.fail("write", k, ENOSPC, true);
      EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(), &alerts));
    }
    EXPECT_EQ(Codes{17}, alerts);
    bench.log.expect(LM_ERROR, "Failed to write to storage: ");
    bench.log.allow(LM_ERROR, "fake_tool: ");
    EXPECT_EQ(1u, bench.log.count(LM_ERROR, "No space left on device"));
    bench.expect_recovery();
  }
}

TEST(Physical_Backup_Fault, of_the_close_is_an_alert_and_nothing_is_recorded)
{
  for (const char* const call : {"fsync", "rename"}) {
    Physical_Bench bench(FAST);
    Codes alerts;
    {
      Fault_File_System faults;
      faults.fail(call, 1, EIO, true);
      EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(), &alerts));
    }
    EXPECT_EQ(Codes{17}, alerts);
    bench.log.expect(LM_ERROR, "Failed to write to storage: ");
    bench.expect_recovery();
  }
}

TEST(Physical_Backup_Fault, of_a_pool_that_is_gone)
{
  Physical_Bench bench(FAST);
  ASSERT_EQ(0, ::rename(bench.pool_dir.c_str(), (bench.pool_dir + ".away").c_str()));
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(), &alerts));
  EXPECT_EQ(Codes{13}, alerts);
  bench.log.expect(LM_ERROR, "Failed to connect to storage: ");
  ASSERT_EQ(0, ::rename((bench.pool_dir + ".away").c_str(), bench.pool_dir.c_str()));
  bench.expect_recovery();
}

TEST(Physical_Backup_Fault, of_a_pool_that_is_read_only)
{
  Physical_Bench bench(FAST);
  Codes alerts;
  {
    Fault_File_System faults;
    faults.fail("mkdir", 1, EROFS, true);
    EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(), &alerts));
  }
  EXPECT_EQ(Codes{14}, alerts);
  bench.log.expect(LM_ERROR, "Read-only file system; ");
  bench.log.allow(LM_WARNING, "");
  bench.expect_recovery();
}

TEST(Physical_Backup_Fault, of_the_commit_fails_the_job)
{
  Physical_Bench bench(FAST);
  bench.back_up();
  // The tool names the same backup again: the catalog takes every uuid once only.
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(), &alerts));
  EXPECT_TRUE(alerts.empty());
  bench.log.expect(LM_ERROR, "full-1");
  EXPECT_EQ(1u, bench.rows().size());
  bench.set_next_state("full-2", "full-2", 20);
  bench.back_up();
  EXPECT_EQ(2u, bench.rows().size());
}

TEST(Physical_Backup_Fault, of_a_catalog_that_cannot_be_read_runs_full_and_then_fails_to_record)
{
  Physical_Bench bench(FAST);
  bench.log.allow(LM_ERROR, "atalog");
  kestrel::set_catalog_retry_seconds(0);
  bench.dir.write("home/agent/lastlsn.dat", bench.state_text("full-1", "full-1", 10));
  bench.dir.make_dir("root/var/opt/tarnvik/kestrel3/agent/catalog.db");
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(JOB_DEFINITION_SUBTYPE_INCREMENTAL)));
  kestrel::set_catalog_retry_seconds(300);
  bench.log.expect_exactly(LM_INFO, "Lack of backup info, run full backup instead.\n");
  ASSERT_EQ(0, ::rmdir((bench.dir / "root/var/opt/tarnvik/kestrel3/agent/catalog.db").c_str()));
  EXPECT_TRUE(bench.rows().empty());
}
