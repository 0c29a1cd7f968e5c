#include "support/physical_bench.h"

#include "catalog/catalog_admin.h"
#include "instances/instance_registry.h"
#include "oscar/backup_job_options.h"
#include "oscar/restore_job_source.h"
#include "storage/pool_registry.h"
#include "support/fake_tool.h"
#include "support/unmounted.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

using namespace kestrel_test;
using json_spirit::find_value;

namespace
{
typedef std::vector<int> Codes;

/// What brcmd reads for a stored stream: the info block, and the whole stream again.
std::string fed_stream(const std::string& stream)
{
  uint32_t length = 0;
  for (size_t i = 0; i < 4; ++i)
    length = (length << 8) | static_cast<unsigned char>(stream[i]);
  return stream.substr(0, length) + stream;
}

oscar::Restore_Job_Source& source_of(const kestrel::Job_Definition_Fields& fields)
{
  return dynamic_cast<oscar::Restore_Job_Source&>(*fields.source);
}

/// A restore that reads each stored file into a file of its own: fed_1, fed_2, ...
std::string numbered_restore(const Physical_Bench& bench)
{
  return "read_to ${option:-f} " + (bench.dir / "fed_${run}") + "\n";
}
} // namespace

TEST(Physical_Restore, feeds_the_stored_stream_and_restarts_the_server)
{
  Physical_Bench bench;
  const std::string stream = bench.make_good_stream(3000000);
  bench.set_stream(stream);
  bench.back_up();
  const Fake_Server server(bench.dir, "hang");
  const Job_Ptr job = bench.make_job(bench.restore_fields("full-1"));
  ASSERT_EQ(JOB_STATE_COMPLETED, bench.run(job));
  EXPECT_TRUE(bench.alerts(job).empty());
  EXPECT_TRUE(fed_stream(stream) == read_file(bench.dir / "fed"));
  EXPECT_FALSE(server.running());
  EXPECT_EQ("start oscard@PHYS7\n", read_file(bench.dir / "starts"));
  EXPECT_EQ(1u, bench.log.count("Process brcmd terminate")) << "only the backup writes this line";
}

TEST(Physical_Restore, gives_brcmd_its_command_line)
{
  Physical_Bench bench;
  bench.back_up();
  ASSERT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields("full-1")));
  const std::string arguments = bench.brcmd_arguments();
  const std::string root = bench.dir / "root";
  const std::string begin = bench.home + "/bin/brcmd -O restore -d PHYS7 -t backup_point_last -k pipe -f " +
                            root + "/var/opt/tarnvik/kestrel3/agent/oscar/20";
  EXPECT_EQ(begin, arguments.substr(0, begin.size()));
  EXPECT_NE(std::string::npos, arguments.find("_fifo -e " + root + "/var/log/kestrel3/brcmd/restore_20"));
  EXPECT_EQ(".log", arguments.substr(arguments.size() - 4));
  bench.log.expect(LM_INFO, "Oscar command:\n" + arguments + "\n");
}

TEST(Physical_Restore, feeds_a_compressed_set)
{
  Physical_Bench bench;
  bench.set_stream(bench.make_good_stream(1000000));
  kestrel::Job_Definition_Fields fields = bench.backup_fields();
  oscar::Backup_Job_Options* const options = new oscar::Backup_Job_Options;
  options->compression(COMPRESSION_ZSTD);
  fields.options = ACE_Refcounted_Auto_Ptr<Job_Options, ACE_Thread_Mutex>(options);
  ASSERT_EQ(JOB_STATE_COMPLETED, bench.run(fields));
  ASSERT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields("full-1")));
  EXPECT_TRUE(fed_stream(read_file(bench.dir / "stream")) == read_file(bench.dir / "fed"));
}

TEST(Physical_Restore, restores_a_chain_full_set_first)
{
  Physical_Bench bench;
  bench.back_up();
  const std::string full = read_file(bench.dir / "stream");
  bench.set_next_state("full-1", "incr-1", 20);
  const std::string incremental = bench.make_good_stream(50000);
  bench.set_stream(incremental);
  bench.back_up(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
  bench.set_brcmd("exit 99", numbered_restore(bench));
  ::unlink((bench.home + "/bin/brcmd.script.runs").c_str());
  const Job_Ptr job = bench.make_job(bench.restore_fields("incr-1"));
  ASSERT_EQ(JOB_STATE_COMPLETED, bench.run(job));
  EXPECT_TRUE(fed_stream(full) == read_file(bench.dir / "fed_1"));
  EXPECT_TRUE(fed_stream(incremental) == read_file(bench.dir / "fed_2"));
  EXPECT_EQ(1u, bench.starts());
}

TEST(Physical_Restore, takes_the_newest_backup_when_it_is_periodic)
{
  Physical_Bench bench;
  bench.back_up();
  bench.set_next_state("full-2", "full-2", 20);
  const std::string newest = bench.make_good_stream(70000);
  bench.set_stream(newest);
  bench.back_up();
  kestrel::Job_Definition_Fields fields = bench.restore_fields("full-1");
  fields.periodic = true;
  ASSERT_EQ(JOB_STATE_COMPLETED, bench.run(fields));
  EXPECT_TRUE(fed_stream(newest) == read_file(bench.dir / "fed"));
  EXPECT_EQ("full-1", source_of(fields).catalog_id()) << "the job's document was changed";
}

TEST(Physical_Restore, fails_when_it_is_periodic_and_nothing_was_backed_up)
{
  Physical_Bench bench;
  kestrel::Job_Definition_Fields fields = bench.restore_fields("");
  fields.periodic = true;
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(fields, &alerts));
  EXPECT_EQ(Codes{2}, alerts);
  bench.log.expect_exactly(LM_ERROR, "Failed to get latest info from catalog\n");
  EXPECT_EQ(0u, bench.starts());
}

TEST(Physical_Restore, does_not_stop_the_server_without_a_backup_to_restore)
{
  Physical_Bench bench;
  const Fake_Server server(bench.dir, "hang");
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("unknown"), &alerts));
  EXPECT_EQ(Codes{18}, alerts);
  bench.log.expect_exactly(LM_ERROR, "Invalid backup set size\n");
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("")));
  bench.log.expect(LM_ERROR, "needs a 'backup_id'");
  EXPECT_TRUE(server.running());
  EXPECT_EQ(0u, bench.starts());
}

TEST(Physical_Restore, does_not_stop_the_server_for_a_broken_chain)
{
  Physical_Bench bench;
  bench.back_up();
  bench.set_next_state("full-1", "incr-1", 20);
  bench.back_up(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
  std::string error;
  ASSERT_TRUE(kestrel::Catalog_Admin().set_state("full-1", kestrel::Set_State::unavailable, "gone", error))
      << error;
  const Fake_Server server(bench.dir, "hang");
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("incr-1"), &alerts));
  EXPECT_EQ(Codes{18}, alerts);
  bench.log.expect_exactly(LM_ERROR, "Invalid backup set size\n");
  EXPECT_TRUE(server.running());
}

TEST(Physical_Restore, leaves_the_server_alone_when_the_pool_is_not_mounted)
{
  Physical_Bench bench;
  bench.back_up();
  const Fake_Server server(bench.dir, "hang");
  Codes alerts;
  {
    const Unmounted unmounted(bench.pool_dir);
    EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("full-1"), &alerts));
  }
  EXPECT_EQ(Codes{13}, alerts);
  bench.log.expect(LM_ERROR, "Failed to connect to storage: cannot use the pool directory " + bench.pool_dir);
  EXPECT_TRUE(server.running());
  EXPECT_EQ(0u, bench.starts());
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields("full-1")));
}

TEST(Physical_Restore, takes_the_pool_that_the_job_names)
{
  Physical_Bench bench;
  bench.back_up();
  // A copy of the pool under another id.
  const std::string copy = bench.dir.make_dir("pool2/" + bench.source_id);
  for (const std::string& name : bench.stored_files())
    bench.dir.write("pool2/" + bench.source_id + "/" + name, read_file(bench.stored_path(name)));
  Pool_Info other;
  std::string error;
  ASSERT_TRUE(kestrel::Pool_Registry().add("copy", bench.dir / "pool2", other, error)) << error;
  ASSERT_TRUE(kestrel::Pool_Registry().remove("main", error)) << error;

  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("full-1"), &alerts));
  EXPECT_EQ(Codes{11}, alerts);
  bench.log.expect_exactly(LM_ERROR, "Failed to get pool info.\n");
  bench.log.allow(LM_ERROR, "pool");

  kestrel::Job_Definition_Fields fields = bench.restore_fields("full-1");
  source_of(fields).pool_uuid(other.pool_id);
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(fields));
  EXPECT_TRUE(fed_stream(read_file(bench.dir / "stream")) == read_file(bench.dir / "fed"));
}

TEST(Physical_Restore, finds_its_instance_by_target_name_then_original)
{
  const struct {
    const char *restore_as, *name, *original;
  } cases[] = {{"PHYS7", "WRONG", "WRONG"}, {"", "PHYS7", "WRONG"}, {"", "", "PHYS7"}};
  Physical_Bench bench;
  bench.back_up();
  for (const auto& expected : cases) {
    kestrel::Job_Definition_Fields fields = bench.restore_fields("full-1");
    source_of(fields).restore_as().database = expected.restore_as;
    source_of(fields).name(expected.name);
    source_of(fields).original().database = expected.original;
    EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(fields));
  }
  kestrel::Job_Definition_Fields fields = bench.restore_fields("full-1");
  source_of(fields).name("");
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(fields, &alerts));
  EXPECT_EQ(Codes{20}, alerts);
  bench.log.expect_exactly(LM_ERROR, "Failed to invoke execute_i, can't find instance.\n");
}

namespace
{
/// Two jobs of different sources that work on the same instance.
class Shared_Instance
{
public:
  Shared_Instance()
  {
    bench.back_up();
    bench.set_next_state("full-2", "full-2", 20);
    bench.set_brcmd("begin ${option:-f}\nput_file " + (bench.dir / "stream") + "\nwrite_file " +
                        (bench.dir / "up") + " x\nwait_file " + (bench.dir / "go") + "\nfinish\nreplace " +
                        (bench.dir / "next_state") + " " + bench.home + "/agent/lastlsn.dat\n",
                    bench.marking_restore());
    kestrel::Job_Definition_Fields fields = bench.restore_fields("full-1");
    fields.id = "7d3a1c52-0000-4000-8000-0000000000d9";
    source_of(fields).id("7d3a1c52-0000-4000-8000-000000000009");
    restore = bench.make_job(fields);
    backup = bench.make_job(bench.backup_fields());
  }

  /// The restore waits for the backup, which is within its stream.
  void begin()
  {
    ASSERT_EQ(0, backup->start());
    ASSERT_TRUE(bench.wait_for(bench.dir / "up"));
    ASSERT_EQ(0, restore->start());
    ASSERT_TRUE(
        eventually([this] { return bench.log.contains("waits for another job on the instance PHYS7"); }));
  }

  Physical_Bench bench;
  Job_Ptr backup;
  Job_Ptr restore;
};
} // namespace

TEST(Physical_Restore, waits_for_the_backup_of_another_source_on_its_instance)
{
  Shared_Instance jobs;
  const Fake_Server server(jobs.bench.dir, "hang");
  ASSERT_NO_FATAL_FAILURE(jobs.begin());
  EXPECT_TRUE(server.running());
  jobs.bench.dir.write("go", "");
  EXPECT_EQ(JOB_STATE_COMPLETED, jobs.bench.wait_end(jobs.backup));
  EXPECT_EQ(JOB_STATE_COMPLETED, jobs.bench.wait_end(jobs.restore));
  EXPECT_FALSE(server.running());
  EXPECT_EQ(2u, jobs.bench.rows().size());
}

TEST(Physical_Restore, that_waits_for_its_instance_can_be_canceled)
{
  Shared_Instance jobs;
  const Fake_Server server(jobs.bench.dir, "hang");
  ASSERT_NO_FATAL_FAILURE(jobs.begin());
  EXPECT_EQ(0, jobs.restore->stop());
  EXPECT_TRUE(eventually([&jobs] { return jobs.restore->state() == JOB_STATE_CANCELED; }));
  jobs.bench.dir.write("go", "");
  EXPECT_EQ(JOB_STATE_COMPLETED, jobs.bench.wait_end(jobs.backup));
  EXPECT_TRUE(server.running());
  EXPECT_FALSE(exists(jobs.bench.dir / "restored"));
}

TEST(Physical_Restore, fails_without_account_instance_or_home)
{
  Physical_Bench bench;
  bench.back_up();
  kestrel::Instance_Registry registry("host-1");
  std::string error;
  ASSERT_EQ(0, registry.remove("oscar", "PHYS7", error)) << error;
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("full-1"), &alerts));
  EXPECT_EQ(Codes{3}, alerts);
  bench.log.allow(LM_ERROR, "account");

  ASSERT_EQ(0, registry.set_account("oscar", "PHYS7", "", "sysdba", secret.c_str(), error)) << error;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("full-1"), &alerts));
  EXPECT_EQ(Codes{20}, alerts);
  bench.log.expect_exactly(LM_ERROR, "Failed to invoke execute_i, can't find instance.\n");

  std::shared_ptr<Instance> instance = std::make_shared<Instance>();
  instance->type = "oscar";
  instance->name = "PHYS7";
  ASSERT_EQ(0, registry.merge_probe({{"PHYS7", instance}}, error)) << error;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("full-1"), &alerts));
  EXPECT_EQ(Codes{6}, alerts);
  bench.log.expect_exactly(LM_ERROR, "Failed to get oscar home.\n");
}

TEST(Physical_Restore, skips_a_cluster_job_that_is_not_chosen_for_this_node)
{
  Physical_Bench bench;
  kestrel::Job_Definition_Fields fields = bench.restore_fields("full-1");
  fields.rsrc_form = "oscar_cluster";
  bench.log.allow(LM_ERROR, "Failed to get ");
  EXPECT_EQ(JOB_STATE_SKIPPED, bench.run(fields));
  bench.log.expect_exactly(LM_ERROR, "Failed to get node info of instance PHYS7\n");
  bench.log.expect_exactly(LM_ERROR, "Wrong node selection state: \n");
}

TEST(Physical_Restore, kills_a_server_that_ignores_the_request_to_end)
{
  Physical_Bench bench;
  bench.back_up();
  const Fake_Server server(bench.dir, "ignore TERM\nwrite_file " + (bench.dir / "ignoring") + " x\nhang");
  ASSERT_TRUE(bench.wait_for(bench.dir / "ignoring"));
  const int64_t begin = bench.clock.monotonic_msec();
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields("full-1")));
  EXPECT_GE(bench.clock.monotonic_msec() - begin, 10000);
  EXPECT_FALSE(server.running());
}

TEST(Physical_Restore, counts_a_server_without_a_usable_pid_as_stopped)
{
  for (const char* const pid_file :
       {"", "0\n", "1\n", "-1\n", "garbage\n", "999999999\n", "99999999999999999999\n"}) {
    Physical_Bench bench(100);
    bench.back_up();
    bench.log.allow(LM_ERROR, "Failed to find pid.\n");
    bench.log.allow(LM_ERROR, "PHYS7.db");
    bench.dir.write("home/admin/PHYS7.db", pid_file);
    EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields("full-1"))) << pid_file;
    EXPECT_EQ(1u, bench.starts());
  }
}

namespace
{
/// Runs a restore as a user who may not signal the server; ends the process with 0 when all is as it must be.
void restore_without_permission()
{
  Physical_Bench bench;
  bench.back_up();
  const std::string give_away = "chown -R 65534:65534 " + bench.dir.path();
  if (::system(give_away.c_str()) != 0)
    ::_exit(2);
  bench.dir.write("home/admin/PHYS7.db", std::to_string(::getppid()) + "\n");
  if (::setegid(65534) != 0 || ::seteuid(65534) != 0)
    ::_exit(3);
  // The kernel goes by the real or the saved user, too: they must be gone for the job's thread.
  if (::setresuid(65534, 65534, 0) != 0)
    ::_exit(4);
  const Job_Ptr job = bench.make_job(bench.restore_fields("full-1"));
  const Job_State state = bench.run(job);
  const bool alert = bench.alerts(job) == Codes{19};
  const bool message =
      bench.log.expect_exactly(LM_ERROR, "Failed to kill pid " + std::to_string(::getppid()) +
                                             " with SIGTERM, errno=1, Operation not permitted\n");
  const bool untouched = bench.starts() == 0 && !exists(bench.dir / "fed");
  ::setresuid(0, 0, 0);
  ::_exit(state == JOB_STATE_ERROR && alert && message && untouched ? 0 : 1);
}
} // namespace

TEST(Physical_Restore, fails_before_any_data_moves_when_the_server_cannot_be_signalled)
{
  if (::getuid() != 0)
    GTEST_SKIP() << "needs to change the user";
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(restore_without_permission(), testing::ExitedWithCode(0), "");
}
