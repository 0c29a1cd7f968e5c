#include "restore_support.h"

#include "catalog/catalog_operator.h"
#include "instances/instance_manager.h"
#include "storage/pool_registry.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using namespace kestrel_test;
using json_spirit::find_value;

namespace
{
std::string text_of(const json_spirit::Value& row, const char* key)
{
  return find_value(row.get_obj(), key).get_str();
}
} // namespace

TEST(Logical_Restore, imports_the_object_that_it_names)
{
  const struct {
    const char *schema, *table;
    size_t file;
    const char* tail;
  } cases[] = {{"", "", 0, " recreateSchema=true tablespace=true"},
               {"S", "", 1, " level=schema mode=entirety ignore=false schema=S "},
               {"S", "T", 2, " level=table mode=entirety ignore=false table=S.T "}};
  for (const auto& expected : cases) {
    Logical_Bench bench;
    bench.set_tool("osrexp", "write_file ${prefix:file=} \"dump ${run}\"\n");
    const json_spirit::Object row = bench.back_up(LEVELS);
    const std::string recorded = text_of(find_value(row, "backup_files").get_array()[expected.file], "file");
    const Job_Ptr job = bench.make_job(bench.restore_fields(expected.schema, expected.table));
    ASSERT_EQ(JOB_STATE_COMPLETED, bench.run(job));
    EXPECT_TRUE(bench.alerts(job).empty());
    ASSERT_EQ(1u, imports(bench).size());
    const std::string call = imports(bench)[0];
    EXPECT_EQ(bench.home + "/bin/osrimp -Usysdba/" + bench.SECRET + " -p2010 -dLOGI1 file=" + recorded +
                  expected.tail,
              call.substr(0, call.find(expected.tail)) + expected.tail);
    EXPECT_EQ("dump " + std::to_string(expected.file + 1), read_file(bench.dir / "imported"));
    EXPECT_EQ(6u, job->activity()->original_size);
    bench.expect_no_dump_left();
  }
}

TEST(Logical_Restore, gives_the_object_the_names_that_the_job_says)
{
  const struct {
    const char *database, *schema, *table;
    const char* call;
  } cases[] = {{"", "IGNORED", "IGNORED", " -p2010 -dLOGI1 file="},
               {"LOGI2", "S", "T", " -p2011 -dLOGI2 file="},
               {"LOGI1", "S2", "T2", " table=S2.T2 "},
               {"LOGI1", "S2", "", " level=schema mode=entirety ignore=false schema=S2 "},
               {"LOGI1", "", "", " recreateSchema=true tablespace=true"},
               {"LOGI1", "", "T2", " recreateSchema=true tablespace=true"}};
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.call);
    Logical_Bench bench;
    bench.add_instance("LOGI2");
    bench.dir.write("home/admin/LOGI2.conf", "port = 2011\n");
    bench.back_up(LEVELS);
    kestrel::Job_Definition_Fields fields = bench.restore_fields("S", "T");
    bench.restore_source(fields).restore_as() = {expected.database, expected.schema, expected.table};
    ASSERT_EQ(JOB_STATE_COMPLETED, bench.run(fields));
    ASSERT_EQ(1u, imports(bench).size());
    EXPECT_NE(std::string::npos, imports(bench)[0].find(expected.call)) << imports(bench)[0];
  }
}

TEST(Logical_Restore, finds_its_instance_by_target_name_then_original)
{
  for (const char* const name : {"LOGI1", ""}) {
    Logical_Bench bench;
    bench.back_up(LEVELS);
    kestrel::Job_Definition_Fields fields = bench.restore_fields();
    bench.restore_source(fields).name(name);
    EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(fields));
    EXPECT_NE(std::string::npos, imports(bench).at(0).find(" -dLOGI1 "));
  }
}

TEST(Logical_Restore, asks_the_catalog_for_the_object)
{
  Logical_Bench bench;
  const json_spirit::Object row = bench.back_up(LEVELS);
  const std::shared_ptr<Shaped_Catalog> catalog = Shaped_Catalog::install();
  ASSERT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields("S", "T")));
  ASSERT_EQ(2u, catalog->queries().size());
  EXPECT_EQ((Shaped_Catalog::Query{{"resource_uuid", bench.SOURCE_ID},
                                   {"database", "LOGI1"},
                                   {"grade", "table"},
                                   {"with_files", true},
                                   {"sort", "backup_start_time"},
                                   {"order", "desc"}}),
            catalog->queries()[0]);
  EXPECT_EQ((Shaped_Catalog::Query{
                {"uuid", text_of(row, "uuid")}, {"sort", "backup_start_time"}, {"order", "desc"}}),
            catalog->queries()[1]);
}

TEST(Logical_Restore, takes_the_backup_that_it_names_and_else_the_newest)
{
  Logical_Bench bench;
  bench.set_tool("osrexp", "write_file ${prefix:file=} \"dump ${run}\"\n");
  std::vector<std::string> uuids;
  for (int i = 0; i < 3; ++i)
    uuids.push_back(text_of(bench.back_up({LEVELS[2]}), "uuid"));
  const auto imported = [&bench](const std::string& uuid, uint64_t seq) {
    kestrel::Job_Definition_Fields fields = bench.restore_fields("S", "T");
    bench.restore_source(fields).catalog_id(uuid);
    bench.restore_source(fields).seq(seq);
    EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(fields));
    return read_file(bench.dir / "imported");
  };
  EXPECT_EQ("dump 3", imported("", 0));
  EXPECT_EQ("dump 1", imported(uuids[0], 0));
  EXPECT_EQ("dump 2", imported(uuids[1], 0));
  EXPECT_EQ("dump 2", imported("", 2));
}

TEST(Logical_Restore, takes_the_newest_backup_that_holds_the_object)
{
  Logical_Bench bench;
  bench.set_tool("osrexp", "write_file ${prefix:file=} \"dump ${run}\"\n");
  bench.back_up({"oscar/LOGI1/LOGI1/S/T"});
  bench.back_up({"oscar/LOGI1/LOGI1/S/OTHER"});
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields("S", "T")));
  EXPECT_EQ("dump 1", read_file(bench.dir / "imported"));
}

TEST(Logical_Restore, takes_no_other_backup_for_the_one_that_it_names)
{
  Logical_Bench bench;
  bench.back_up(LEVELS);
  kestrel::Job_Definition_Fields fields = bench.restore_fields("S", "T");
  bench.restore_source(fields).catalog_id("7d3a1c52-0000-4000-8000-00000000dead");
  expect_failure(bench, fields, {2});
  bench.log.expect(LM_ERROR, "the catalog has no such backup of the table LOGI1/S/T");
  bench.log.expect_exactly(LM_ERROR, "Failed to get latest info from catalog\n");
}

TEST(Logical_Restore, fails_for_an_object_that_no_backup_holds)
{
  Logical_Bench bench;
  bench.back_up({LEVELS[2]});
  expect_failure(bench, bench.restore_fields(), {2});
  expect_failure(bench, bench.restore_fields("S"), {2});
  bench.log.expect(LM_ERROR, "no such backup of the database LOGI1;");
  bench.log.expect(LM_ERROR, "no such backup of the schema LOGI1/S;");
  bench.log.expect_exactly(LM_ERROR, "Failed to get latest info from catalog\n");
  bench.log.expect_exactly(LM_ERROR, "Failed to get latest info from catalog\n");
  // The grade is right, the object is another.
  expect_failure(bench, bench.restore_fields("S", "OTHER"), {2});
  bench.log.expect(LM_ERROR, "no such backup of the table LOGI1/S/OTHER;");
  bench.log.expect_exactly(LM_ERROR, "Failed to get latest info from catalog\n");
  kestrel::Job_Definition_Fields fields = bench.restore_fields("S", "OTHER");
  bench.restore_source(fields).catalog_id(text_of(bench.rows().front(), "uuid"));
  expect_failure(bench, fields, {18});
  bench.log.expect_exactly(LM_ERROR, "Invalid catalog data: no dump file holds the object\n");
}

TEST(Logical_Restore, fails_for_every_wrong_shape_of_a_row)
{
  const struct {
    const char* key;
    json_spirit::Value value;
  } cases[] = {{"backup_files", json_spirit::Value()},
               {"backup_files", "text"},
               {"backup_files", json_spirit::Array{1}},
               {"backup_files", json_spirit::Array{json_spirit::Object()}},
               {"pool_uuid", 7},
               {"definition_uuid", json_spirit::Value()},
               {"uuid", json_spirit::Object()},
               {"seq", "1"},
               {"seq", -1}};
  for (const auto& wrong : cases) {
    SCOPED_TRACE(wrong.key);
    Logical_Bench bench;
    bench.back_up(LEVELS);
    const std::shared_ptr<Shaped_Catalog> catalog = Shaped_Catalog::install();
    catalog->change = [&wrong](json_spirit::Value& result) {
      member(first_row(result), wrong.key) = wrong.value;
    };
    expect_failure(bench, bench.restore_fields("S", "T"), {2});
    bench.log.expect(LM_ERROR, "Invalid catalog data: ");
    bench.log.expect_exactly(LM_ERROR, "Failed to get latest info from catalog\n");
  }
}

TEST(Logical_Restore, fails_for_every_wrong_shape_of_an_answer)
{
  for (const bool refused : {false, true}) {
    for (const json_spirit::Value& rows :
         {json_spirit::Value(), json_spirit::Value("text"), json_spirit::Value(json_spirit::Array()),
          json_spirit::Value(json_spirit::Array{7})}) {
      Logical_Bench bench;
      bench.back_up(LEVELS);
      const std::shared_ptr<Shaped_Catalog> catalog = Shaped_Catalog::install();
      catalog->refuse_views = refused;
      catalog->change = [&rows](json_spirit::Value& result) {
        if (rows.is_null())
          result = json_spirit::Array();
        else
          member(result, "rows") = rows;
      };
      bench.log.allow(LM_ERROR, "the shaped catalog refuses");
      bench.log.allow(LM_ERROR, "the catalog has no such backup");
      expect_failure(bench, bench.restore_fields("S", "T"), {2});
      bench.log.expect_exactly(LM_ERROR, "Failed to get latest info from catalog\n");
    }
  }
}

TEST(Logical_Restore, fails_when_the_recorded_name_of_the_dump_file_is_none)
{
  for (const char* const name : {"/x/..", "..", "/x/DB1_DB1/", ""}) {
    SCOPED_TRACE(name);
    Logical_Bench bench;
    bench.back_up(LEVELS);
    const std::shared_ptr<Shaped_Catalog> catalog = Shaped_Catalog::install();
    catalog->concerns = [](const Shaped_Catalog::Query& query) { return query.count("grade") > 0; };
    catalog->change = [name](json_spirit::Value& result) {
      for (json_spirit::Value& file : member(first_row(result), "backup_files").get_array())
        member(file, "file") = name;
    };
    expect_failure(bench, bench.restore_fields("S", "T"), {18});
    bench.log.expect(LM_ERROR, "Invalid catalog data: ");
  }
}

TEST(Logical_Restore, fails_without_account_instance_home_or_port)
{
  Logical_Bench bench;
  bench.add_instance("NOHOME", false);
  bench.add_instance("NOPORT");
  bench.dir.write("home/admin/NOPORT.conf", "port = 0\n");
  bench.back_up(LEVELS);
  kestrel::Instance_Registry registry("host-1");
  std::string error;
  ASSERT_EQ(0, registry.set_account("oscar", "GHOST", "", "sysdba", bench.SECRET.c_str(), error)) << error;
  const struct {
    const char* target;
    Codes alerts;
    const char* message;
  } cases[] = {{"STRANGER", {3}, "Fail to get login info.\n"},
               {"GHOST", {20}, "Failed to get oscar_home.\n"},
               {"NOHOME", {6}, "Failed to get oscar_home.\n"},
               {"NOPORT", {18}, "Failed to get port.\n"}};
  bench.log.allow(LM_ERROR, "account");
  bench.log.allow(LM_ERROR, "can't find instance");
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.target);
    kestrel::Job_Definition_Fields fields = bench.restore_fields();
    bench.restore_source(fields).restore_as().database = expected.target;
    expect_failure(bench, fields, expected.alerts);
    bench.log.expect_exactly(LM_ERROR, expected.message);
  }
}

TEST(Logical_Restore, fails_without_an_instance_manager)
{
  Logical_Bench bench;
  bench.back_up(LEVELS);
  Instance_Manager* const manager = kestrel::set_instance_manager_for_test(nullptr);
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields(), &alerts));
  kestrel::set_instance_manager_for_test(manager);
  EXPECT_EQ(Codes{18}, alerts);
  bench.log.expect(LM_EMERGENCY, ", manager is NULL:\n");
}

TEST(Logical_Restore, takes_the_pool_that_the_job_names)
{
  Logical_Bench bench;
  bench.back_up(LEVELS);
  Pool_Info other;
  std::string error;
  ASSERT_TRUE(kestrel::Pool_Registry().add("copy", bench.dir.make_dir("pool2"), other, error)) << error;
  ASSERT_TRUE(kestrel::Pool_Registry().remove("main", error)) << error;
  bench.log.allow(LM_ERROR, "pool");
  expect_failure(bench, bench.restore_fields(), {11});
  bench.log.expect_exactly(LM_ERROR, "Failed to get pool info.\n");

  const std::string copy = "cp -r " + bench.pool_dir + "/. " + (bench.dir / "pool2");
  ASSERT_EQ(0, ::system(copy.c_str()));
  kestrel::Job_Definition_Fields fields = bench.restore_fields();
  bench.restore_source(fields).pool_uuid(other.pool_id);
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(fields));
}

TEST(Logical_Restore, fails_when_the_import_fails)
{
  for (const char* const end : {"exit 1\n", "exit 255\n", "die KILL\n"}) {
    SCOPED_TRACE(end);
    Logical_Bench bench;
    bench.back_up(LEVELS);
    bench.set_osrimp("2.6.0", std::string("out \"100 rows\"\nerr \"osrimp: ERROR, half-way\"\n") + end);
    Codes alerts;
    EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("S"), &alerts));
    EXPECT_EQ(Codes{18}, alerts);
    bench.log.expect(LM_ERROR, "osrimp: ERROR, half-way");
    bench.log.allow(LM_ERROR, "");
    bench.expect_no_dump_left();
  }
}

TEST(Logical_Restore, fails_when_the_import_tool_is_missing)
{
  Logical_Bench bench;
  bench.back_up(LEVELS);
  ASSERT_EQ(0, ::unlink((bench.home + "/bin/osrimp").c_str()));
  bench.log.allow(LM_ERROR, "");
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields(), &alerts));
  EXPECT_EQ(Codes{18}, alerts);
  bench.expect_no_dump_left();
}

TEST(Logical_Restore, imports_nothing_of_a_damaged_archive)
{
  Logical_Bench bench;
  bench.set_osrexp(100000);
  const json_spirit::Object row = bench.back_up({LEVELS[2]});
  const std::string name = "pool/" + text_of(row, "minor_resource_id") + "/" + text_of(row, "backup_file");
  const std::string good = read_file(bench.dir / name);
  std::string flipped = good;
  flipped[good.size() / 2] = static_cast<char>(flipped[good.size() / 2] ^ 0x20);
  bench.log.allow(LM_ERROR, "");
  for (const std::string& damaged : {flipped, good.substr(0, good.size() / 2), std::string(), good + "x"}) {
    SCOPED_TRACE(damaged.size());
    bench.dir.write(name, damaged);
    expect_failure(bench, bench.restore_fields("S", "T"), {18});
  }
  ASSERT_EQ(0, ::unlink((bench.dir / name).c_str()));
  expect_failure(bench, bench.restore_fields("S", "T"), {18});
  bench.dir.write(name, good);
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields("S", "T")));
  EXPECT_TRUE(bench.dump_content(100000) == read_file(bench.dir / "imported"));
}

TEST(Logical_Restore, fetches_no_file_but_the_one_that_it_imports)
{
  Logical_Bench bench;
  bench.back_up(LEVELS);
  bench.set_osrimp("2.6.0",
                   "write_file " + (bench.dir / "up") + " x\nwait_file " + (bench.dir / "go") + "\n");
  const Job_Ptr job = bench.make_job(bench.restore_fields("S"));
  ASSERT_EQ(0, job->start());
  ASSERT_TRUE(bench.wait_for(bench.dir / "up"));
  const std::string file = bench.option(imports(bench).at(0), "file=");
  const std::string count = "test $(find " + bench.dump_path() + " -type f | wc -l) = 1";
  EXPECT_EQ(0, ::system(count.c_str()));
  struct stat status = {};
  EXPECT_EQ(0, ::stat(file.c_str(), &status));
  EXPECT_EQ(0640u, status.st_mode & 07777);
  bench.dir.write("go", "");
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.wait_end(job));
  bench.expect_no_dump_left();
}

TEST(Logical_Restore, empties_its_dump_directory_first_and_touches_no_other)
{
  Logical_Bench bench;
  bench.back_up(LEVELS);
  const std::string root = "root/var/cache/tarnvik/kestrel3/oscar/dump/";
  bench.dir.write(root + bench.DEFINITION_ID + "/old/x.dump", "old");
  bench.dir.write(root + "beside/x", "x");
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields()));
  bench.expect_no_dump_left();
  EXPECT_TRUE(exists(bench.dir / (root + "beside/x")));

  kestrel::Job_Definition_Fields fields = bench.restore_fields();
  fields.id = "../dump";
  bench.log.allow(LM_WARNING, "");
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(fields));
  bench.log.expect(LM_ERROR, "is no uuid");
  EXPECT_TRUE(exists(bench.dir / (root + "beside/x")));
}

TEST(Logical_Restore, skips_a_cluster_job_that_is_not_chosen_for_this_node)
{
  Logical_Bench bench;
  kestrel::Job_Definition_Fields fields = bench.restore_fields();
  fields.rsrc_form = "oscar_cluster";
  // The bench's isql knows no nodes.
  bench.log.allow(LM_ERROR, "");
  EXPECT_EQ(JOB_STATE_SKIPPED, bench.run(fields));
  bench.log.expect_exactly(LM_ERROR, "Wrong node selection state: \n");
  EXPECT_TRUE(bench.calls("osrimp").empty());
}

TEST(Logical_Restore, runs_beside_a_backup_of_its_source)
{
  Logical_Bench bench;
  bench.back_up(LEVELS);
  bench.set_tool("osrexp", "write_file ${prefix:file=} dump\nwrite_file " + (bench.dir / "up") +
                               " x\nwait_file " + (bench.dir / "go") + "\n");
  kestrel::Job_Definition_Fields fields = bench.backup_fields({LEVELS[2]});
  fields.id = "7d3a1c52-0000-4000-8000-0000000000d8";
  const Job_Ptr backup = bench.make_job(fields);
  ASSERT_EQ(0, backup->start());
  ASSERT_TRUE(bench.wait_for(bench.dir / "up"));
  const Job_Ptr restore = bench.make_job(bench.restore_fields("S", "T"));
  ASSERT_EQ(0, restore->start());
  EXPECT_TRUE(restore->wait_end(60000));
  EXPECT_EQ(JOB_STATE_COMPLETED, restore->state());
  bench.dir.write("go", "");
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.wait_end(backup));
}
