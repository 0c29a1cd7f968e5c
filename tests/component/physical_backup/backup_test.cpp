#include "support/physical_bench.h"
#include "support/unmounted.h"

#include "catalog/catalog_admin.h"
#include "instances/instance_registry.h"
#include "jobs/job_event.h"
#include "oscar/backup_job_options.h"
#include "oscar/backup_job_source.h"
#include "storage/client_io.h"
#include "storage/pool_registry.h"
#include "support/fake_tool.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <iomanip>
#include <sstream>

using namespace kestrel_test;
using json_spirit::find_value;

namespace
{
std::string local_time(time_t time, const char* format)
{
  struct tm parts;
  ::localtime_r(&time, &parts);
  std::ostringstream text;
  text << std::put_time(&parts, format);
  return text.str();
}

std::string text_of(const json_spirit::Value& row, const char* key)
{
  return find_value(row.get_obj(), key).get_str();
}

uint64_t number_of(const json_spirit::Value& row, const char* key)
{
  return find_value(row.get_obj(), key).get_uint64();
}

/// The stream that a stored file gives back.
std::string stored_stream(const Physical_Bench& bench, const std::string& name)
{
  Client_IO_Ex storage;
  EXPECT_TRUE(storage.connect(bench.pool_dir + "/" + bench.source_id, Client_IO_Base::Options()));
  EXPECT_TRUE(storage.open(name, Client_IO_Ex::MODE_READ, 0, 0)) << storage.error();
  std::string stream(10000000, '\0');
  const int count = storage.read(&stream[0], static_cast<unsigned>(stream.size()));
  EXPECT_GE(count, 0) << storage.error();
  stream.resize(static_cast<size_t>(std::max(count, 0)));
  return stream;
}
} // namespace

TEST(Physical_Backup, stores_the_stream_and_records_the_set)
{
  Physical_Bench bench;
  const std::string stream = bench.make_good_stream(3000000);
  bench.set_stream(stream);
  const Job_Ptr job = bench.make_job(bench.backup_fields());
  ASSERT_EQ(JOB_STATE_COMPLETED, bench.run(job));
  EXPECT_TRUE(bench.alerts(job).empty());

  const json_spirit::Array rows = bench.rows();
  ASSERT_EQ(1u, rows.size());
  const std::string time = local_time(job->activity()->start_time, "%Y%m%d_%H%M%S");
  EXPECT_EQ("PHYS7_full_" + time, text_of(rows[0], "backup_file"));
  EXPECT_EQ("full-1", text_of(rows[0], "uuid"));
  EXPECT_EQ("full-1", text_of(rows[0], "backup_id"));
  EXPECT_EQ("full-1", text_of(rows[0], "last_backup_id"));
  EXPECT_EQ("full-1", text_of(rows[0], "last_full_backup_id"));
  EXPECT_EQ(10u, number_of(rows[0], "backup_lsn"));
  EXPECT_EQ(11u, number_of(rows[0], "backup_scn"));
  EXPECT_EQ(10u, number_of(rows[0], "last_full_backup_lsn"));
  EXPECT_EQ("full", text_of(rows[0], "type"));
  EXPECT_EQ(bench.source_id, text_of(rows[0], "resource_uuid"));
  EXPECT_EQ(bench.source_id, text_of(rows[0], "uri"));
  EXPECT_EQ(bench.pool_id, text_of(rows[0], "pool_uuid"));
  EXPECT_EQ("nightly", text_of(rows[0], "name"));
  EXPECT_EQ("agent-1", text_of(rows[0], "agent"));
  EXPECT_EQ("host-1", text_of(rows[0], "host_uuid"));
  EXPECT_EQ(stream.size(), number_of(rows[0], "backup_set_size"));
  EXPECT_EQ(stream.size(), number_of(rows[0], "pump_size"));
  EXPECT_EQ(text_of(rows[0], "original_checksum"), text_of(rows[0], "pump_checksum"));
  EXPECT_EQ(32u, text_of(rows[0], "storage_checksum").size());
  EXPECT_EQ("none", text_of(rows[0], "compression"));
  EXPECT_EQ(static_cast<uint64_t>(job->activity()->start_time), number_of(rows[0], "start_time"));
  EXPECT_TRUE(stream == read_file(bench.stored_path(text_of(rows[0], "backup_file"))));

  EXPECT_EQ(stream.size(), job->activity()->original_size);
  EXPECT_EQ(stream.size(), job->activity()->processed_size);
  EXPECT_EQ(stream.size(), job->activity()->storage_size);
  bench.log.expect_exactly(LM_INFO, "Process brcmd terminate.\n");
  EXPECT_EQ(0u, bench.starts()) << "a server in archive-log mode was restarted";
}

TEST(Physical_Backup, gives_brcmd_its_command_line_and_logs_it_masked)
{
  Physical_Bench bench;
  const Job_Ptr job = bench.make_job(bench.backup_fields());
  ASSERT_EQ(JOB_STATE_COMPLETED, bench.run(job));
  const std::string time = local_time(job->activity()->start_time, "%Y%m%d_%H%M%S");
  const std::string rest = " -P " + std::to_string(bench.port) + " -t full -k pipe -f " + bench.dir.path() +
                           "/root/var/opt/tarnvik/kestrel3/agent/oscar/" + time + "_fifo -e " +
                           bench.dir.path() + "/root/var/log/kestrel3/brcmd/backup_PHYS7_full_" + time +
                           ".log";
  EXPECT_EQ(bench.home + "/bin/brcmd -O backup -d PHYS7 -u sysdba -p " + secret + rest,
            bench.brcmd_arguments());
  bench.log.expect_exactly(LM_INFO, "Oscar command:\n" + bench.home +
                                        "/bin/brcmd -O backup -d PHYS7 -u sysdba -p***" + rest + "\n");
  EXPECT_TRUE(exists(bench.dir / "root/var/log/kestrel3/brcmd"));
}

TEST(Physical_Backup, compresses_as_the_options_say)
{
  Physical_Bench bench;
  const std::string stream = bench.make_good_stream(10) + std::string(2000000, 'x');
  bench.set_stream(stream);
  const struct {
    Compression_Method method;
    const char* suffix;
    const char* name;
  } cases[] = {{1, ".gz", "zlib"}, {2, ".lz4", "lz4"}, {3, ".zst", "zstd"}};
  for (const auto& expected : cases) {
    bench.set_next_state(expected.name, expected.name, 10);
    kestrel::Job_Definition_Fields fields = bench.backup_fields();
    oscar::Backup_Job_Options* const options = new oscar::Backup_Job_Options;
    options->compression(expected.method);
    fields.options = ACE_Refcounted_Auto_Ptr<Job_Options, ACE_Thread_Mutex>(options);
    ASSERT_EQ(JOB_STATE_COMPLETED, bench.run(fields));
    const json_spirit::Value row = bench.rows().back();
    const std::string file = text_of(row, "backup_file");
    EXPECT_EQ(expected.suffix, file.substr(file.find('.')));
    EXPECT_EQ(expected.name, text_of(row, "compression"));
    EXPECT_LT(number_of(row, "backup_set_storage_size"), stream.size() / 10);
    EXPECT_TRUE(stream == stored_stream(bench, file));
  }
}

TEST(Physical_Backup, works_without_options)
{
  Physical_Bench bench;
  kestrel::Job_Definition_Fields fields = bench.backup_fields();
  fields.options = ACE_Refcounted_Auto_Ptr<Job_Options, ACE_Thread_Mutex>();
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(fields));
}

TEST(Physical_Backup, reports_progress)
{
  struct Listener : kestrel::Job_Event_Listener {
    void handle_progress(const Job_Progress_Event& event) override { percents.push_back(event.progress()); }
    std::vector<int> percents;
  } listener;
  Physical_Bench bench;
  bench.set_stream(bench.make_good_stream(1000000));
  Job_Event_Manager::instance()->add_listener(&listener);
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(bench.backup_fields()));
  Job_Event_Manager::instance()->flush();
  Job_Event_Manager::instance()->remove_listener(&listener);
  EXPECT_GT(listener.percents.size(), 50u);
}

TEST(Physical_Backup, continues_a_chain)
{
  Physical_Bench bench;
  bench.back_up();
  bench.set_next_state("full-1", "incr-1", 20);
  bench.back_up(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
  EXPECT_NE(std::string::npos, bench.brcmd_arguments().find(" -t incr "));
  bench.set_next_state("full-1", "diff-1", 30);
  bench.back_up(JOB_DEFINITION_SUBTYPE_CUMULATIVE);
  EXPECT_NE(std::string::npos, bench.brcmd_arguments().find(" -t diff "));

  const json_spirit::Array rows = bench.rows();
  ASSERT_EQ(3u, rows.size());
  EXPECT_EQ("incr", text_of(rows[1], "type"));
  EXPECT_EQ("incr-1", text_of(rows[1], "uuid"));
  EXPECT_EQ("full-1", text_of(rows[1], "last_backup_id"));
  EXPECT_EQ("full-1", text_of(rows[1], "last_full_backup_id"));
  EXPECT_EQ(20u, number_of(rows[1], "backup_lsn"));
  EXPECT_EQ(10u, number_of(rows[1], "last_backup_lsn"));
  EXPECT_NE(std::string::npos, text_of(rows[1], "backup_file").find("PHYS7_incr_"));
  EXPECT_EQ("diff", text_of(rows[2], "type"));
  EXPECT_EQ("incr-1", text_of(rows[2], "last_backup_id"));
  EXPECT_EQ(20u, number_of(rows[2], "last_backup_lsn"));
  EXPECT_EQ("full-1", text_of(rows[2], "full_backup_id"));
  EXPECT_EQ(0u, bench.log.count("Lack of backup info"));
}

TEST(Physical_Backup, runs_full_without_chain_state)
{
  Physical_Bench bench;
  bench.back_up(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
  bench.log.expect_exactly(LM_ERROR, "Failed to open file " + bench.home +
                                         "/agent/lastlsn.dat: No such file or directory\n");
  bench.log.expect_exactly(LM_INFO, "Lack of backup info, run full backup instead.\n");
  EXPECT_EQ(1u, bench.log.count("Lack of backup info"));
  EXPECT_EQ("full", text_of(bench.rows().at(0), "type"));
  EXPECT_NE(std::string::npos, bench.brcmd_arguments().find(" -t full "));
  EXPECT_EQ("full-1", text_of(bench.rows().at(0), "last_full_backup_id"));
}

TEST(Physical_Backup, runs_full_when_the_chain_belongs_to_another_instance)
{
  Physical_Bench bench;
  bench.dir.write("home/agent/lastlsn.dat", "PHYS72_lastbackupid=x\nDB2_lastbackupid=x\n");
  bench.back_up(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
  bench.log.expect_exactly(LM_ERROR,
                           "Failed to get PHYS7 backup info from " + bench.home + "/agent/lastlsn.dat.\n");
  bench.log.expect_exactly(LM_INFO, "Lack of backup info, run full backup instead.\n");
}

TEST(Physical_Backup, runs_full_when_the_full_backup_is_not_in_the_catalog)
{
  Physical_Bench bench;
  bench.dir.write("home/agent/lastlsn.dat", bench.state_text("full-0", "full-0", 10));
  bench.back_up(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
  bench.log.expect_exactly(LM_INFO, "Lack of backup info, run full backup instead.\n");
  EXPECT_EQ("full", text_of(bench.rows().at(0), "type"));
}

TEST(Physical_Backup, runs_full_when_the_full_backup_lies_in_another_pool)
{
  Physical_Bench bench;
  bench.back_up();
  Pool_Info other;
  std::string error;
  ASSERT_TRUE(kestrel::Pool_Registry().add("other", bench.dir.make_dir("pool2"), other, error));
  bench.set_next_state("full-2", "full-2", 30);
  kestrel::Job_Definition_Fields fields = bench.backup_fields(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
  fields.target = Job_Target(other.pool_id);
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(fields));
  bench.log.expect_exactly(LM_INFO, "Lack of backup info, run full backup instead.\n");
  EXPECT_EQ("full", text_of(bench.rows().back(), "type"));
  EXPECT_EQ(other.pool_id, text_of(bench.rows().back(), "pool_uuid"));
}

TEST(Physical_Backup, runs_full_when_the_full_backup_is_not_available)
{
  Physical_Bench bench;
  bench.back_up();
  std::string error;
  ASSERT_TRUE(kestrel::Catalog_Admin().set_state("full-1", kestrel::Set_State::unavailable, "gone", error))
      << error;
  bench.set_next_state("full-2", "full-2", 30);
  bench.back_up(JOB_DEFINITION_SUBTYPE_CUMULATIVE);
  bench.log.expect_exactly(LM_INFO, "Lack of backup info, run full backup instead.\n");
}

TEST(Physical_Backup, treats_an_unknown_level_as_full_without_a_chain_and_refuses_it_with_one)
{
  Physical_Bench bench;
  bench.log.allow(LM_ERROR, "Failed to open file");
  bench.back_up(Job_Definition_Subtype(35));
  EXPECT_EQ("full", text_of(bench.rows().at(0), "type"));
  std::vector<int> alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(Job_Definition_Subtype(35)), &alerts));
  bench.log.expect(LM_ERROR, "brcmd has no backup level for subtype 35");
  EXPECT_TRUE(alerts.empty());
  EXPECT_EQ(1u, bench.rows().size());
}

TEST(Physical_Backup, stops_the_server_for_an_offline_backup_and_starts_it_again)
{
  Physical_Bench bench;
  bench.set_isql("NOARCHIVELOG");
  const Fake_Server server(bench.dir, "wait_file " + (bench.dir / "shutdown"));
  bench.back_up();
  EXPECT_FALSE(server.running());
  EXPECT_EQ("-Usysdba/" + secret + " -dPHYS7 -p" + std::to_string(bench.port) + " -c shutdown immediate\n",
            read_file(bench.dir / "shutdown"));
  bench.log.expect_exactly(LM_INFO, "Oscar command:\n\"" + bench.home +
                                        "/bin/isql\" -Usysdba/*** -dPHYS7 -p" + std::to_string(bench.port) +
                                        " -c \"shutdown immediate\"\n");
  EXPECT_EQ("start oscard@PHYS7\n", read_file(bench.dir / "starts"));
}

TEST(Physical_Backup, starts_the_server_again_when_the_offline_backup_fails)
{
  Physical_Bench bench;
  bench.set_isql("NOARCHIVELOG");
  bench.set_brcmd("begin ${option:-f}\nput_zeros 100\nfinish\nexit 1");
  const Fake_Server server(bench.dir, "wait_file " + (bench.dir / "shutdown"));
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields()));
  EXPECT_FALSE(server.running());
  EXPECT_EQ(1u, bench.starts());
  bench.log.expect(LM_ERROR, "Failed to get backup info head");
}

TEST(Physical_Backup, leaves_the_server_alone_when_the_pool_is_not_mounted)
{
  Physical_Bench bench;
  bench.set_isql("NOARCHIVELOG");
  const Fake_Server server(bench.dir, "wait_file " + (bench.dir / "shutdown"));
  std::vector<int> alerts;
  {
    const Unmounted unmounted(bench.pool_dir);
    EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(), &alerts));
  }
  EXPECT_EQ(std::vector<int>{13}, alerts);
  bench.log.expect(LM_ERROR, "Failed to connect to storage: cannot use the pool directory " + bench.pool_dir);
  EXPECT_TRUE(server.running());
  EXPECT_TRUE(bench.rows().empty());
  bench.back_up();
}

TEST(Physical_Backup, counts_a_server_that_is_not_running_as_stopped)
{
  for (const char* const pid_file : {"", "0\n", "1\n", "garbage\n", "999999999\n"}) {
    Physical_Bench bench;
    bench.set_isql("NOARCHIVELOG");
    bench.log.allow(LM_ERROR, "Failed to find pid.\n");
    bench.log.allow(LM_ERROR, "PHYS7.db");
    bench.dir.write("home/admin/PHYS7.db", pid_file);
    bench.back_up();
    EXPECT_FALSE(exists(bench.dir / "shutdown")) << pid_file;
    EXPECT_EQ(1u, bench.starts());
  }
}

TEST(Physical_Backup, goes_on_when_the_server_does_not_stop)
{
  Physical_Bench bench(200);
  bench.set_isql("NOARCHIVELOG");
  const Fake_Server server(bench.dir, "hang");
  bench.back_up();
  EXPECT_TRUE(server.running());
  bench.log.expect_exactly(LM_INFO, "Instance PHYS7 is already running.\n");
}

TEST(Physical_Backup, goes_on_when_the_shutdown_cannot_be_run)
{
  Physical_Bench bench;
  make_fake_tool(
      bench.dir, "home/bin/isql",
      "if args_contain archivemode\nout a\nout -\nout NOARCHIVELOG\nout \"(1 row)\"\nelse\ndie KILL\nend\n");
  const Fake_Server server(bench.dir, "hang");
  std::vector<int> alerts;
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(bench.backup_fields(), &alerts));
  EXPECT_EQ(std::vector<int>{19}, alerts);
  bench.log.expect_exactly(LM_ERROR, "Failed to to shutdown instance.\n");
}

TEST(Physical_Backup, uses_the_default_port_whenever_none_can_be_read)
{
  for (const char* const conf : {"port = 2010", "port = 0\n", "nothing\n"}) {
    Physical_Bench bench(200);
    bench.dir.write("home/admin/PHYS7.conf", conf);
    bench.back_up();
    EXPECT_NE(std::string::npos, bench.brcmd_arguments().find(" -P 2003 ")) << conf;
  }
  Physical_Bench bench(200);
  ASSERT_EQ(0, ::remove((bench.home + "/admin/PHYS7.conf").c_str()));
  bench.back_up();
  EXPECT_NE(std::string::npos, bench.brcmd_arguments().find(" -P 2003 "));
}

TEST(Physical_Backup, is_skipped_with_an_alert_when_the_source_is_empty)
{
  for (const std::vector<std::string>& entries :
       {std::vector<std::string>(), std::vector<std::string>{"oscar"},
        std::vector<std::string>{"mysql/PHYS7"}}) {
    Physical_Bench bench;
    bench.log.allow(LM_ERROR, "Failed to collect");
    kestrel::Job_Definition_Fields fields = bench.backup_fields();
    oscar::Backup_Job_Source* const source = new oscar::Backup_Job_Source;
    source->id(bench.source_id);
    source->entries() = entries;
    fields.source = ACE_Refcounted_Auto_Ptr<Job_Source, ACE_Thread_Mutex>(source);
    std::vector<int> alerts;
    EXPECT_EQ(JOB_STATE_SKIPPED, bench.run(fields, &alerts));
    EXPECT_EQ(std::vector<int>{1}, alerts);
    bench.log.expect_exactly(LM_ERROR, "Source entry is empty.\n");
  }
}

TEST(Physical_Backup, takes_the_last_entry_of_the_source)
{
  Physical_Bench bench;
  kestrel::Job_Definition_Fields fields = bench.backup_fields();
  oscar::Backup_Job_Source* const source = new oscar::Backup_Job_Source;
  source->id(bench.source_id);
  source->entries() = {"oscar/OTHER", "oscar/PHYS7/X/Y"};
  fields.source = ACE_Refcounted_Auto_Ptr<Job_Source, ACE_Thread_Mutex>(source);
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(fields));
}

TEST(Physical_Backup, takes_the_last_entry_before_one_of_another_kind)
{
  Physical_Bench bench;
  kestrel::Job_Definition_Fields fields = bench.backup_fields();
  oscar::Backup_Job_Source* const source = new oscar::Backup_Job_Source;
  source->id(bench.source_id);
  source->entries() = {"oscar/PHYS7", "mysql/OTHER"};
  fields.source = ACE_Refcounted_Auto_Ptr<Job_Source, ACE_Thread_Mutex>(source);
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(fields));
  bench.log.expect_exactly(LM_ERROR, "Failed to collect oscar source:\"mysql/OTHER\" to backup");
}

TEST(Physical_Backup, skips_a_cluster_job_that_is_not_chosen_for_this_node)
{
  Physical_Bench bench;
  kestrel::Job_Definition_Fields fields = bench.backup_fields();
  fields.rsrc_form = "oscar_cluster";
  std::vector<int> alerts;
  // The bench's isql knows no nodes.
  bench.log.allow(LM_ERROR, "Failed to get ");
  EXPECT_EQ(JOB_STATE_SKIPPED, bench.run(fields, &alerts));
  bench.log.expect_exactly(LM_ERROR, "Failed to get node info of instance PHYS7\n");
  bench.log.expect_exactly(LM_ERROR, "Wrong node selection state: \n");
  EXPECT_TRUE(alerts.empty());
  EXPECT_FALSE(exists(bench.dir / "args"));
}

TEST(Physical_Backup, fails_without_an_account)
{
  Physical_Bench bench;
  kestrel::Instance_Registry registry("host-1");
  std::string error;
  ASSERT_EQ(0, registry.remove_account("oscar", "PHYS7", "", error)) << error;
  std::vector<int> alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(), &alerts));
  EXPECT_EQ(std::vector<int>{3}, alerts);
  bench.log.allow(LM_ERROR, "account");
  bench.log.expect_exactly(LM_ERROR, "Failed to get account.\n");
}

TEST(Physical_Backup, fails_silently_for_an_unknown_instance)
{
  Physical_Bench bench;
  kestrel::Instance_Registry registry("host-1");
  std::string error;
  ASSERT_EQ(0, registry.remove("oscar", "PHYS7", error)) << error;
  ASSERT_EQ(0, registry.set_account("oscar", "PHYS7", "", "sysdba", secret.c_str(), error)) << error;
  std::vector<int> alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(), &alerts));
  EXPECT_TRUE(alerts.empty());
}

TEST(Physical_Backup, fails_without_an_oscar_home)
{
  Physical_Bench bench;
  kestrel::Instance_Registry registry("host-1");
  std::string error;
  ASSERT_EQ(0, registry.remove("oscar", "PHYS7", error)) << error;
  std::shared_ptr<Instance> instance = std::make_shared<Instance>();
  instance->type = "oscar";
  instance->name = "PHYS7";
  ASSERT_EQ(0, registry.merge_probe({{"PHYS7", instance}}, error)) << error;
  ASSERT_EQ(0, registry.set_account("oscar", "PHYS7", "", "sysdba", secret.c_str(), error)) << error;
  std::vector<int> alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(), &alerts));
  EXPECT_EQ(std::vector<int>{6}, alerts);
  bench.log.expect_exactly(LM_ERROR, "Failed to get oscar home.\n");
}

TEST(Physical_Backup, fails_when_the_pool_is_unknown)
{
  Physical_Bench bench;
  kestrel::Job_Definition_Fields fields = bench.backup_fields();
  fields.target = Job_Target("7d3a1c52-0000-4000-8000-00000000ffff");
  std::vector<int> alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(fields, &alerts));
  EXPECT_EQ(std::vector<int>{11}, alerts);
  bench.log.expect_exactly(LM_ERROR, "Failed to get pool info.\n");
  bench.log.allow(LM_ERROR, "pool");
  EXPECT_FALSE(exists(bench.dir / "args"));
}

TEST(Physical_Backup, fails_when_the_fifo_cannot_be_made)
{
  Physical_Bench bench;
  bench.dir.write("root/var/opt/tarnvik/kestrel3/agent/oscar", "a file, not a directory");
  std::vector<int> alerts;
  const Job_Ptr job = bench.make_job(bench.backup_fields());
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(job));
  EXPECT_EQ(std::vector<int>{15}, bench.alerts(job));
  bench.log.expect_exactly(LM_ERROR, "Failed to create fifo " + bench.dir.path() +
                                         "/root/var/opt/tarnvik/kestrel3/agent/oscar/" +
                                         local_time(job->activity()->start_time, "%Y%m%d_%H%M%S") +
                                         "_fifo, errno=20, Not a directory\n");
  bench.log.allow(LM_ERROR, "oscar");
}

TEST(Physical_Backup, asks_five_times_for_the_log_mode)
{
  Physical_Bench bench;
  make_fake_tool(bench.dir, "home/bin/isql", "append_file " + (bench.dir / "asked") + " x\nexit 1\n");
  const int64_t begin = bench.clock.monotonic_msec();
  std::vector<int> alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(), &alerts));
  EXPECT_GE(bench.clock.monotonic_msec() - begin, 15000);
  EXPECT_EQ(std::vector<int>{24}, alerts);
  EXPECT_EQ("xxxxx", read_file(bench.dir / "asked"));
  bench.log.allow(LM_ERROR, "Failed to get log mode.\n");
  bench.log.expect_exactly(LM_ERROR, "Failed to get log archive mode of oscar instance 'PHYS7'.\n");
  EXPECT_FALSE(exists(bench.dir / "args"));
  EXPECT_EQ(0u, bench.starts());
}

TEST(Physical_Backup, goes_on_when_a_later_attempt_tells_the_log_mode)
{
  Physical_Bench bench;
  make_fake_tool(bench.dir, "home/bin/isql",
                 "if run 5\nout a\nout -\nout ARCHIVELOG\nout \"(1 row)\"\nelse\nexit 1\nend\n");
  bench.log.allow(LM_ERROR, "Failed to get log mode.\n");
  bench.back_up();
}

TEST(Physical_Backup, runs_one_job_a_source_at_a_time)
{
  Physical_Bench bench;
  bench.set_brcmd("if exists " + (bench.dir / "busy") + "\nwrite_file " + (bench.dir / "overlap") +
                  " x\nend\nwrite_file " + (bench.dir / "busy") + " x\nbegin ${option:-f}\nput_file " +
                  (bench.dir / "stream") + "\nsleep 300\nfinish\ncopy " + (bench.dir / "state_${run}") + " " +
                  bench.home + "/agent/lastlsn.dat\nremove " + (bench.dir / "busy"));
  bench.dir.write("state_1", bench.state_text("full-1", "full-1", 10));
  bench.dir.write("state_2", bench.state_text("full-2", "full-2", 20));
  kestrel::Job_Definition_Fields other = bench.backup_fields();
  other.id = "7d3a1c52-0000-4000-8000-0000000000d2";
  const Job_Ptr first = bench.make_job(bench.backup_fields());
  const Job_Ptr second = bench.make_job(other);
  ASSERT_EQ(0, first->start());
  ASSERT_EQ(0, second->start());
  ASSERT_TRUE(first->wait_end(60000));
  ASSERT_TRUE(second->wait_end(60000));
  EXPECT_EQ(JOB_STATE_COMPLETED, first->state());
  EXPECT_EQ(JOB_STATE_COMPLETED, second->state());
  EXPECT_FALSE(exists(bench.dir / "overlap"));
  EXPECT_EQ(2u, bench.rows().size());
}
