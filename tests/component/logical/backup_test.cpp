#include "logical_bench.h"

#include "archive/mtf.h"
#include "catalog/catalog_operator.h"
#include "instances/instance_manager.h"
#include "oscar/backup_job_options.h"
#include "rpc/http_session.h"

#include <gtest/gtest.h>

#include <regex>
#include <sys/stat.h>

using namespace kestrel_test;
using json_spirit::find_value;

namespace
{
const std::vector<std::string> TABLE = {"oscar/LOGI1/LOGI1/S/T"};

std::string text_of(const json_spirit::Value& row, const char* key)
{
  return find_value(row.get_obj(), key).get_str();
}

uint64_t number_of(const json_spirit::Value& row, const char* key)
{
  return find_value(row.get_obj(), key).get_uint64();
}

std::string utc_text(time_t time)
{
  struct tm parts = {};
  ::gmtime_r(&time, &parts);
  char text[32];
  return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%d-%H-%M-%S", &parts));
}

/// A backup that must fail with this alert, keep nothing, and be possible again once `repair` is done.
void expect_failure(Logical_Bench& bench, const kestrel::Job_Definition_Fields& fields, const Codes& expected)
{
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(fields, &alerts));
  EXPECT_EQ(expected, alerts);
  EXPECT_TRUE(bench.rows().empty());
  bench.expect_no_dump_left();
}

/// Collects the objects that a run tells of.
class Item_Listener : public kestrel::Job_Event_Listener
{
public:
  Item_Listener() { Job_Event_Manager::instance()->add_listener(this); }
  ~Item_Listener() override { Job_Event_Manager::instance()->remove_listener(this); }
  void handle_item(const kestrel::Job_Item_Event& event) override
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    items_ +=
        event.item() + " " + std::to_string(event.number()) + "/" + std::to_string(event.total()) + "\n";
  }
  void handle_progress(const Job_Progress_Event& event) override
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    progress_.push_back(event.progress());
  }
  std::string items()
  {
    Job_Event_Manager::instance()->flush();
    const std::lock_guard<std::mutex> guard(mutex_);
    return items_;
  }
  std::vector<int> progress()
  {
    Job_Event_Manager::instance()->flush();
    const std::lock_guard<std::mutex> guard(mutex_);
    return progress_;
  }

private:
  std::mutex mutex_;
  std::string items_;
  std::vector<int> progress_;
};
} // namespace

TEST(Logical_Backup, exports_every_object_and_records_the_set)
{
  Logical_Bench bench;
  bench.set_tablespaces({"TS1", "TS2"});
  const Job_Ptr job = bench.make_job(
      bench.backup_fields({"oscar/LOGI1/LOGI1", "oscar/LOGI1/LOGI1/S", "oscar/LOGI1/LOGI1/S/T"}));
  ASSERT_EQ(JOB_STATE_COMPLETED, bench.run(job));
  EXPECT_TRUE(bench.alerts(job).empty());
  EXPECT_EQ(3u, bench.calls("osrexp").size());

  const json_spirit::Array rows = bench.rows();
  ASSERT_EQ(1u, rows.size());
  const json_spirit::Value& row = rows[0];
  EXPECT_EQ("export", text_of(row, "type"));
  EXPECT_EQ("oscar_backup_set", text_of(row, "catalog_type"));
  EXPECT_EQ(bench.DEFINITION_ID, text_of(row, "definition_uuid"));
  EXPECT_EQ(bench.SOURCE_ID, text_of(row, "resource_uuid"));
  EXPECT_EQ("exports", text_of(row, "name"));
  EXPECT_EQ("agent-1", text_of(row, "agent"));
  EXPECT_EQ("host-1", text_of(row, "host_uuid"));
  EXPECT_EQ(bench.pool_id, text_of(row, "pool_uuid"));
  EXPECT_EQ("LOGI1", text_of(row, "dbinstance"));
  EXPECT_EQ(1u, number_of(row, "seq"));
  EXPECT_EQ(3000u, number_of(row, "total_size"));
  EXPECT_LT(3000u, number_of(row, "backup_set_size"));
  EXPECT_EQ(static_cast<uint64_t>(job->activity()->start_time), number_of(row, "start_time"));
  EXPECT_EQ("none", text_of(row, "compression"));
  std::string minor_id;
  EXPECT_TRUE(compute_minor_resource_id(bench.SOURCE_ID, "oscar_backup_set", minor_id));
  EXPECT_EQ(minor_id, text_of(row, "minor_resource_id"));
  EXPECT_EQ((json_spirit::Array{"TS1", "TS2"}), find_value(row.get_obj(), "tablespaces").get_array());
  EXPECT_TRUE(exists(bench.pool_dir + "/" + minor_id + "/" + text_of(row, "backup_file")));

  const json_spirit::Array& files = find_value(row.get_obj(), "backup_files").get_array();
  ASSERT_EQ(3u, files.size());
  const char* const schemas[] = {"", "S", "S"};
  const char* const tables[] = {"", "", "T"};
  for (size_t i = 0; i < files.size(); ++i) {
    EXPECT_EQ("LOGI1", text_of(files[i], "database"));
    EXPECT_EQ(schemas[i], text_of(files[i], "schema"));
    EXPECT_EQ(tables[i], text_of(files[i], "table"));
    EXPECT_EQ(bench.option(bench.calls("osrexp")[i], "file="), text_of(files[i], "file"));
    EXPECT_EQ(1000u, number_of(files[i], "size"));
  }
  EXPECT_EQ(3000u, job->activity()->original_size);
  EXPECT_EQ(number_of(row, "backup_set_storage_size"), job->activity()->storage_size);
  bench.expect_no_dump_left();
}

TEST(Logical_Backup, names_its_dump_files_by_object_time_and_number)
{
  Logical_Bench bench;
  const std::vector<std::string> entries = {"oscar/LOGI1/LOGI1/S/T", "oscar/LOGI1/LOGI1/S",
                                            "oscar/LOGI1/LOGI1", "oscar/LOGI1"};
  std::vector<std::string> times;
  for (unsigned run = 0; run < 2; ++run) {
    const Job_Ptr job = bench.make_job(bench.backup_fields(entries));
    ASSERT_EQ(JOB_STATE_COMPLETED, bench.run(job));
    times.push_back(utc_text(job->activity()->start_time));
  }
  const std::vector<std::string> calls = bench.calls("osrexp");
  ASSERT_EQ(8u, calls.size());
  for (size_t run = 0; run < 2; ++run) {
    const std::string tail = "_export_" + times[run] + "_" + std::to_string(run) + ".dump";
    const std::string names[] = {"LOGI1_LOGI1/LOGI1.S.T", "LOGI1_LOGI1/LOGI1.S", "LOGI1_LOGI1/LOGI1",
                                 "LOGI1_/"};
    for (size_t i = 0; i < 4; ++i)
      EXPECT_EQ(bench.dump_path() + "/" + names[i] + tail, bench.option(calls[run * 4 + i], "file="));
  }
}

TEST(Logical_Backup, counts_its_sets_from_1)
{
  Logical_Bench bench;
  for (uint64_t seq = 1; seq <= 3; ++seq)
    EXPECT_EQ(seq, number_of(bench.back_up(TABLE), "seq"));
}

TEST(Logical_Backup, records_a_whole_server_under_its_name)
{
  Logical_Bench bench;
  const json_spirit::Object row = bench.back_up({"oscar/LOGI1"});
  const json_spirit::Array& files = find_value(row, "backup_files").get_array();
  ASSERT_EQ(1u, files.size());
  EXPECT_EQ("LOGI1", text_of(files[0], "database"));
  EXPECT_NE(std::string::npos, text_of(files[0], "file").find("/LOGI1_/_export_"));
}

TEST(Logical_Backup, records_a_table_without_a_schema_as_the_database_that_it_exports)
{
  Logical_Bench bench;
  const json_spirit::Object row = bench.back_up({"oscar/LOGI1/LOGI1//T"});
  const json_spirit::Array& files = find_value(row, "backup_files").get_array();
  ASSERT_EQ(1u, files.size());
  EXPECT_EQ("database", text_of(files[0], "grade"));
  EXPECT_EQ("", text_of(files[0], "table"));
  // An import of the same object finds it.
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields("", "T")));
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields()));
}

TEST(Logical_Backup, replaces_what_a_directory_name_may_not_hold)
{
  Logical_Bench bench;
  // The file's name takes the database as it is, so the export fails for want of its file.
  bench.set_tool("osrexp", "");
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields({"oscar/LOGI1/a b:c\\d%2Fe"}), &alerts));
  bench.log.expect(LM_ERROR, "Osr file does not exist, path: '" + bench.dump_path() +
                                 "/LOGI1_a_b_c_d_e/a b:c\\d/e_export_");
  EXPECT_EQ(Codes{18}, alerts);
  bench.log.allow(LM_ERROR, "");
  bench.expect_no_dump_left();
}

TEST(Logical_Backup, exports_nothing_to_a_place_outside_of_its_directory)
{
  for (const char* const name :
       {"oscar/LOGI1/%2F..%2F..%2F..%2Fout", "oscar/LOGI1/LOGI1/%2F..%2F..%2F..%2Fout",
        "oscar/LOGI1/LOGI1/S/%2F..%2F..%2F..%2Fout"}) {
    Logical_Bench bench;
    EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields({name})));
    bench.log.expect(LM_ERROR, "would put its dump file outside of the dump directory");
    EXPECT_TRUE(bench.calls("osrexp").empty());
    bench.expect_no_dump_left();
  }
}

TEST(Logical_Backup, exports_everything_from_the_last_entrys_instance)
{
  Logical_Bench bench;
  bench.add_instance("LOGI2");
  bench.dir.write("home/admin/LOGI2.conf", "port = 2011\n");
  const json_spirit::Object row = bench.back_up({"oscar/LOGI1/DB/A", "oscar/LOGI2/DB/B"});
  for (const std::string& call : bench.calls("osrexp"))
    EXPECT_NE(std::string::npos, call.find(" -p2011 -dLOGI2 ")) << call;
  EXPECT_EQ("LOGI2", text_of(row, "dbinstance"));
}

TEST(Logical_Backup, stores_an_object_named_twice_once)
{
  Logical_Bench bench;
  const json_spirit::Object row = bench.back_up({TABLE[0], TABLE[0]});
  EXPECT_EQ(1u, find_value(row, "backup_files").get_array().size());
  EXPECT_EQ(1000u, number_of(row, "total_size"));
}

// Dots join the parts of a dump file's name, and may stand in the parts, too.
TEST(Logical_Backup, exports_nothing_when_two_objects_would_have_one_dump_file)
{
  const std::vector<std::string> pairs[] = {{"oscar/LOGI1/LOGI1/A.B/C", "oscar/LOGI1/LOGI1/A/B.C"},
                                            {"oscar/LOGI1/LOGI1/A.B", "oscar/LOGI1/LOGI1/A/B"}};
  for (const std::vector<std::string>& entries : pairs) {
    Logical_Bench bench;
    Codes alerts;
    EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(entries), &alerts));
    EXPECT_EQ(Codes{18}, alerts);
    bench.log.expect(LM_ERROR, "would have the same dump file");
    EXPECT_TRUE(bench.calls("osrexp").empty());
    EXPECT_TRUE(bench.rows().empty());
    bench.expect_no_dump_left();
  }
}

TEST(Logical_Backup, compresses_as_the_options_say)
{
  Logical_Bench bench;
  bench.set_osrexp(1000000);
  for (const Compression_Method method : {COMPRESSION_ZLIB, COMPRESSION_LZ4, COMPRESSION_ZSTD}) {
    kestrel::Job_Definition_Fields fields = bench.backup_fields(TABLE);
    oscar::Backup_Job_Options* const options = new oscar::Backup_Job_Options;
    options->compression(method);
    fields.options = ACE_Refcounted_Auto_Ptr<Job_Options, ACE_Thread_Mutex>(options);
    ASSERT_EQ(JOB_STATE_COMPLETED, bench.run(fields));
    const json_spirit::Value row = bench.rows().back();
    EXPECT_EQ(compression_value_to_name(method), text_of(row, "compression"));
    EXPECT_LT(number_of(row, "backup_set_storage_size"), 500000u);
  }
}

TEST(Logical_Backup, tells_which_object_it_is_at_and_how_far_it_is)
{
  Logical_Bench bench;
  bench.set_osrexp(2000000);
  Item_Listener listener;
  bench.back_up({"oscar/LOGI1/LOGI1", "oscar/LOGI1/LOGI1/S", "oscar/LOGI1/LOGI1/S/T"});
  EXPECT_EQ("LOGI1 1/3\nLOGI1/S 2/3\nLOGI1/S/T 3/3\n", listener.items());
  bench.log.expect_exactly(LM_INFO, "Exporting LOGI1/S/T (3 of 3).\n");
  const std::vector<int> progress = listener.progress();
  ASSERT_FALSE(progress.empty());
  EXPECT_EQ(100, progress.back());
  EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
}

TEST(Logical_Backup, is_skipped_without_an_object)
{
  for (const std::vector<std::string>& entries :
       {std::vector<std::string>{}, std::vector<std::string>{"oscar"},
        std::vector<std::string>{"mysql/LOGI1"}}) {
    Logical_Bench bench;
    Codes alerts;
    EXPECT_EQ(JOB_STATE_SKIPPED, bench.run(bench.backup_fields(entries), &alerts));
    EXPECT_EQ(Codes{1}, alerts);
    bench.log.expect_exactly(LM_ERROR, "No oscar database to backup.\n");
    bench.log.allow(LM_ERROR, "Failed to collect oscar source:\"mysql/LOGI1\" to backup");
  }
}

TEST(Logical_Backup, fails_when_the_backup_server_does_not_answer)
{
  Logical_Bench bench;
  WebSocket_Options server;
  server.host = "127.0.0.1";
  server.port = 1;
  WebSocket_Options::set(server);
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(TABLE), &alerts));
  WebSocket_Options::set(WebSocket_Options());
  EXPECT_EQ(Codes{10}, alerts);
  bench.log.expect_exactly(LM_ERROR, "Failed to create session, host: '127.0.0.1', port: 1\n");
  EXPECT_TRUE(bench.calls("osrexp").empty());
}

TEST(Logical_Backup, fails_without_account_home_or_pool)
{
  {
    Logical_Bench bench;
    bench.log.allow(LM_ERROR, "account");
    expect_failure(bench, bench.backup_fields({"oscar/LOGI9/DB"}), {3});
    bench.log.expect_exactly(LM_ERROR, "Fail to get oscar login info.\n");
  }
  {
    Logical_Bench bench;
    kestrel::Instance_Registry registry("host-1");
    std::string error;
    ASSERT_EQ(0, registry.set_account("oscar", "LOGI1", "", "sysdba", "", error)) << error;
    expect_failure(bench, bench.backup_fields(TABLE), {3});
    bench.log.expect_exactly(LM_ERROR, "The username or password of oscar is empty.\n");
  }
  {
    Logical_Bench bench;
    bench.add_instance("LOGI3", false);
    expect_failure(bench, bench.backup_fields({"oscar/LOGI3/DB"}), {6});
    bench.log.expect_exactly(LM_ERROR, "Failed to get oscar_home.\n");
  }
  {
    Logical_Bench bench;
    kestrel::Job_Definition_Fields fields = bench.backup_fields(TABLE);
    fields.target = Job_Target("7d3a1c52-0000-4000-8000-00000000dead");
    bench.log.allow(LM_ERROR, "pool");
    expect_failure(bench, fields, {11});
    bench.log.expect_exactly(LM_ERROR, "Failed to get pool info.\n");
    EXPECT_TRUE(bench.calls("osrexp").empty());
  }
}

TEST(Logical_Backup, fails_without_an_instance_manager)
{
  Logical_Bench bench;
  Instance_Manager* const manager = kestrel::set_instance_manager_for_test(nullptr);
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(TABLE)));
  kestrel::set_instance_manager_for_test(manager);
  bench.log.expect(LM_EMERGENCY, ", manager is NULL:\n");
  bench.expect_no_dump_left();
}

TEST(Logical_Backup, fails_without_a_port_or_a_list_of_tablespaces_after_the_export)
{
  {
    Logical_Bench bench;
    bench.set_tool("osrexp", "write_file ${prefix:file=} dump\nwrite_file " + bench.home +
                                 "/admin/LOGI1.conf \"port = 0\\n\"\n");
    expect_failure(bench, bench.backup_fields(TABLE), {18});
    bench.log.expect_exactly(LM_ERROR, "Failed to get port\n");
    bench.expect_no_archive_left();
  }
  {
    Logical_Bench bench;
    bench.set_tool("isql", "err \"isql: ERROR, not now\"\nexit 1\n");
    bench.log.allow(LM_ERROR, "\n");
    expect_failure(bench, bench.backup_fields(TABLE), {18});
    bench.expect_no_archive_left();
  }
}

TEST(Logical_Backup, fails_when_the_catalog_does_not_take_the_set)
{
  Logical_Bench bench;
  {
    const std::shared_ptr<Shaped_Catalog> catalog = Shaped_Catalog::install();
    catalog->refuse_commits = true;
    bench.log.allow(LM_ERROR, "the shaped catalog refuses");
    expect_failure(bench, bench.backup_fields(TABLE), {18});
    bench.log.expect_exactly(LM_ERROR, "Failed to write catalog to backupd\n");
  }
  // Its number is taken: the next set does not replace the archive that is not listed.
  EXPECT_EQ(2u, number_of(bench.back_up(TABLE), "seq"));
}

TEST(Logical_Backup, begins_to_count_when_the_catalog_does_not_tell_a_number)
{
  for (const char* const answer : {"missing", "text", "no rows", "no object", "refused"}) {
    SCOPED_TRACE(answer);
    Logical_Bench bench;
    const std::string wrong = answer;
    bench.back_up(TABLE);
    {
      const std::shared_ptr<Shaped_Catalog> catalog = Shaped_Catalog::install();
      catalog->concerns = [](const Shaped_Catalog::Query& query) {
        return query.count("definition_uuid") > 0;
      };
      catalog->refuse_views = wrong == "refused";
      bench.log.allow(LM_ERROR, "the shaped catalog refuses");
      catalog->change = [&wrong](json_spirit::Value& result) {
        if (wrong == "no object") {
          result = json_spirit::Array();
          return;
        }
        json_spirit::Value& rows = result.get_obj().front().value_;
        if (wrong == "no rows")
          rows = json_spirit::Value();
        else if (wrong == "missing")
          rows.get_array().front() = json_spirit::Object();
        else
          for (json_spirit::Pair& pair : rows.get_array().front().get_obj())
            if (pair.name_ == "seq")
              pair.value_ = "1";
      };
      ASSERT_EQ(JOB_STATE_COMPLETED, bench.run(bench.backup_fields(TABLE)));
    }
    EXPECT_NE(std::string::npos, bench.calls("osrexp").back().find("_0.dump"));
    EXPECT_EQ(2u, number_of(bench.rows().back(), "seq")) << "an archive must never be replaced";
  }
}

TEST(Logical_Backup, asks_the_catalog_for_its_latest_number)
{
  Logical_Bench bench;
  const std::shared_ptr<Shaped_Catalog> catalog = Shaped_Catalog::install();
  bench.back_up(TABLE);
  EXPECT_EQ((Shaped_Catalog::Query{
                {"definition_uuid", bench.DEFINITION_ID}, {"sort", "seq"}, {"order", "desc"}, {"limit", 1}}),
            catalog->queries().at(0));
}

TEST(Logical_Backup, empties_its_dump_directory_first)
{
  Logical_Bench bench;
  const std::string old = bench.dump_path() + "/LOGI1_LOGI1/old.dump";
  bench.dir.write(old.substr(bench.dir.path().size() + 1), "old");
  bench.set_tool("osrexp", "if exists " + old + "\nexit 9\nend\nwrite_file ${prefix:file=} dump\n");
  bench.back_up(TABLE);
  bench.expect_no_dump_left();
}

TEST(Logical_Backup, removes_no_directory_for_an_id_that_is_no_uuid)
{
  for (const std::string& id : {std::string(".."), std::string("$KESTREL_ROOT"), std::string("../../..")}) {
    Logical_Bench bench;
    kestrel::Job_Definition_Fields fields = bench.backup_fields(TABLE);
    fields.id = id;
    bench.log.allow(LM_WARNING, "");
    bench.dir.write("root/var/cache/tarnvik/kestrel3/oscar/dump/beside/x", "x");
    EXPECT_EQ(JOB_STATE_ERROR, bench.run(fields));
    bench.log.expect(LM_ERROR, "is no uuid");
    EXPECT_TRUE(exists(bench.dir / "root/var/cache/tarnvik/kestrel3/oscar/dump/beside/x"));
    EXPECT_TRUE(bench.calls("osrexp").empty());
  }
}

TEST(Logical_Backup, gives_its_directories_their_mode)
{
  Logical_Bench bench;
  bench.set_tool("osrexp", "write_file ${prefix:file=} dump\nwrite_file " + (bench.dir / "up") +
                               " x\nwait_file " + (bench.dir / "go") + "\n");
  const Job_Ptr job = bench.make_job(bench.backup_fields(TABLE));
  ASSERT_EQ(0, job->start());
  ASSERT_TRUE(bench.wait_for(bench.dir / "up"));
  struct stat status = {};
  EXPECT_EQ(0, ::stat((bench.dump_path() + "/LOGI1_LOGI1").c_str(), &status));
  EXPECT_EQ(0u, status.st_mode & 07027);
  bench.dir.write("go", "");
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.wait_end(job));
}

TEST(Logical_Backup, fails_with_a_file_in_its_directorys_place)
{
  Logical_Bench bench;
  bench.dir.write("root/var/cache/tarnvik/kestrel3/oscar/dump", "a file in the way");
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(TABLE), &alerts));
  bench.log.allow(LM_ERROR, "");
  EXPECT_EQ(Codes{18}, alerts);
  EXPECT_EQ("a file in the way", read_file(bench.dir / "root/var/cache/tarnvik/kestrel3/oscar/dump"));
}

TEST(Logical_Backup, keeps_nothing_of_three_objects_when_the_second_fails)
{
  Logical_Bench bench;
  bench.set_tool("osrexp", "if run 2\nerr \"osrexp: ERROR, no such table\"\nexit 1\nend\n"
                           "write_file ${prefix:file=} dump\n");
  bench.log.allow(LM_ERROR, "osrexp: ERROR, no such table");
  bench.log.allow(LM_ERROR, "Osr file does not exist");
  bench.log.allow(LM_ERROR, "The archive could not be written: the pre-action failed");
  expect_failure(
      bench, bench.backup_fields({"oscar/LOGI1/LOGI1/S/A", "oscar/LOGI1/LOGI1/S/B", "oscar/LOGI1/LOGI1/S/C"}),
      {18});
  EXPECT_EQ(2u, bench.calls("osrexp").size());
  bench.back_up(TABLE);
}

TEST(Logical_Backup, judges_the_tool_by_its_file)
{
  const struct {
    const char* steps;
    Job_State state;
  } cases[] = {{"write_file ${prefix:file=} dump\nexit 3\n", JOB_STATE_COMPLETED},
               {"exit 0\n", JOB_STATE_ERROR},
               {"exit 1\n", JOB_STATE_ERROR},
               {"write_file ${prefix:file=} half\ndie KILL\n", JOB_STATE_ERROR}};
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.steps);
    Logical_Bench bench;
    bench.log.allow(LM_ERROR, "Osr file does not exist");
    bench.log.allow(LM_ERROR, "The archive could not be written: the pre-action failed");
    bench.set_tool("osrexp", expected.steps);
    EXPECT_EQ(expected.state, bench.run(bench.backup_fields(TABLE)));
    EXPECT_EQ(expected.state == JOB_STATE_COMPLETED ? 1u : 0u, bench.rows().size());
    bench.expect_no_dump_left();
  }
}

TEST(Logical_Backup, skips_a_cluster_job_that_is_not_chosen_for_this_node)
{
  Logical_Bench bench;
  kestrel::Job_Definition_Fields fields = bench.backup_fields(TABLE);
  fields.rsrc_form = "oscar_cluster";
  // The bench's isql knows no nodes.
  bench.log.allow(LM_ERROR, "");
  EXPECT_EQ(JOB_STATE_SKIPPED, bench.run(fields));
  bench.log.expect_exactly(LM_ERROR, "Wrong node selection state: \n");
  EXPECT_TRUE(bench.calls("osrexp").empty());
}

TEST(Logical_Backup, does_not_overlap_a_physical_backup_of_its_source)
{
  Logical_Bench bench;
  bench.set_tool("osrexp", "write_file ${prefix:file=} dump\nwrite_file " + (bench.dir / "up") +
                               " x\nwait_file " + (bench.dir / "go") + "\nappend_file " +
                               (bench.dir / "order") + " export\n");
  bench.set_tablespaces({}, "append_file " + (bench.dir / "order") + " physical\nexit 1\n");
  const Job_Ptr logical = bench.make_job(bench.backup_fields(TABLE));
  kestrel::Job_Definition_Fields fields = bench.backup_fields({"oscar/LOGI1"});
  fields.subtype = JOB_DEFINITION_SUBTYPE_FULL;
  fields.id = "7d3a1c52-0000-4000-8000-0000000000d8";
  const Job_Ptr physical = bench.make_job(fields);
  ASSERT_EQ(0, logical->start());
  ASSERT_TRUE(bench.wait_for(bench.dir / "up"));
  ASSERT_EQ(0, physical->start());
  // It gets as far as the lock; nothing tells when it stands there, so it is given some time to run past it.
  EXPECT_FALSE(physical->wait_end(300));
  EXPECT_FALSE(exists(bench.dir / "order"));
  bench.dir.write("go", "");
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.wait_end(logical));
  bench.log.allow(LM_ERROR, "");
  bench.wait_end(physical);
  EXPECT_EQ("exportphysical", read_file(bench.dir / "order").substr(0, 14));
}
