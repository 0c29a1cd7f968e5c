#include "catalog_fixture.h"

#include "catalog/catalog_admin.h"

#include <limits>

using json_spirit::find_value;

class Catalog_Rows : public Catalog_Fixture
{
};

TEST_F(Catalog_Rows, an_unused_catalog_answers_with_no_rows)
{
  EXPECT_TRUE(rows({}).empty());
  EXPECT_TRUE(rows({}, "oscar").empty());
  EXPECT_NE(kestrel_test::exists(catalog_path()), kestrel_test::exists(configuration_path()));
}

TEST_F(Catalog_Rows, a_committed_set_comes_back_field_by_field)
{
  Oscar_Brcmd_Backup_Set set = make_set("b1");
  set.set_minor_resource_id("minor");
  set.set_compression("zstd");
  set.set_pump_size(5000);
  set.set_pump_checksum("c1");
  set.set_original_checksum("c2");
  set.set_storage_checksum("c3");
  ASSERT_TRUE(commit(set));

  const json_spirit::Array found = rows({});
  ASSERT_EQ(1u, found.size());
  const json_spirit::Object& row = found[0].get_obj();
  const std::map<std::string, std::string> texts = {{"uuid", "b1"},
                                                    {"uid", "uid-1"},
                                                    {"definition_uuid", "definition-1"},
                                                    {"name", "nightly"},
                                                    {"agent", "agent-1"},
                                                    {"host_uuid", "host-1"},
                                                    {"uri", "resource-1"},
                                                    {"type", "full"},
                                                    {"resource_uuid", "resource-1"},
                                                    {"backup_id", "b1"},
                                                    {"backup_file", "b1.bak"},
                                                    {"last_backup_id", "b1"},
                                                    {"pool_uuid", "pool-1"},
                                                    {"full_backup_id", "b1"},
                                                    {"last_full_backup_id", "b1"},
                                                    {"compression", "zstd"},
                                                    {"pump_checksum", "c1"},
                                                    {"original_checksum", "c2"},
                                                    {"state_reason", ""},
                                                    {"storage_checksum", "c3"},
                                                    {"catalog_type", "oscar_brcmd_backup_set"},
                                                    {"minor_resource_id", "minor"}};
  for (const auto& [name, text] : texts)
    EXPECT_EQ(text, find_value(row, name).get_str()) << name;
  const std::map<std::string, uint64_t> numbers = {
      {"backup_set_size", 4096},   {"backup_set_storage_size", 1024},
      {"total_size", 4096},        {"start_time", 1000},
      {"end_time", 1060},          {"backup_start_time", 1000},
      {"backup_lsn", 100},         {"backup_scn", 200},
      {"last_backup_lsn", 0},      {"last_backup_scn", 0},
      {"last_full_backup_lsn", 0}, {"pump_size", 5000},
      {"last_full_backup_scn", 0}};
  for (const auto& [name, number] : numbers)
    EXPECT_EQ(number, find_value(row, name).get_uint64()) << name;
  ASSERT_EQ(1u, find_value(row, "state").get_array().size());
  EXPECT_EQ("available", find_value(row, "state").get_array()[0].get_str());
  EXPECT_FALSE(find_value(row, "predecessor_missing").get_bool());
  EXPECT_TRUE(find_value(row, "seq").is_null()) << "fields of the other catalog do not appear";
}

TEST_F(Catalog_Rows, the_first_storage_and_piece_are_shown)
{
  Oscar_Backup_Set set = make_logical_set("u1", 1);
  set.add_storage(Backup_Set_Storage("pool-3", 99));
  set.add_piece("set-1", 10);
  set.add_piece("set-2", 20);
  ASSERT_TRUE(commit(set));
  const json_spirit::Object row = rows({}, "oscar").at(0).get_obj();
  EXPECT_EQ("pool-2", find_value(row, "pool_uuid").get_str());
  EXPECT_EQ(77u, find_value(row, "backup_set_storage_size").get_uint64());
  EXPECT_EQ("set-1", find_value(row, "backup_file").get_str());
}

TEST_F(Catalog_Rows, a_set_may_come_as_unusable)
{
  Oscar_Brcmd_Backup_Set set = make_set("b1");
  set.set_unusable_reason("no restore takes it");
  ASSERT_TRUE(commit(set));
  const json_spirit::Object row = rows({{"with_chain", true}}).at(0).get_obj();
  EXPECT_TRUE(find_value(row, "state").get_array().empty());
  EXPECT_EQ("no restore takes it", find_value(row, "state_reason").get_str());
  EXPECT_EQ("Backup b1 is not available: no restore takes it", find_value(row, "chain_problem").get_str());
}

TEST_F(Catalog_Rows, an_unusable_set_has_an_empty_state)
{
  ASSERT_TRUE(commit(make_set("b1")));
  std::string error;
  ASSERT_TRUE(kestrel::Catalog_Admin(0).set_state("b1", kestrel::Set_State::unavailable,
                                                  "verification failed", error));
  json_spirit::Object row = rows({}).at(0).get_obj();
  EXPECT_TRUE(find_value(row, "state").get_array().empty());
  EXPECT_EQ("verification failed", find_value(row, "state_reason").get_str());

  ASSERT_TRUE(kestrel::Catalog_Admin(0).set_state("b1", kestrel::Set_State::available, "", error));
  EXPECT_EQ(1u, find_value(rows({}).at(0).get_obj(), "state").get_array().size());
}

TEST_F(Catalog_Rows, numbers_of_64_bits_match_and_return_by_pattern)
{
  const uint64_t big = std::numeric_limits<uint64_t>::max();
  Oscar_Brcmd_Backup_Set set = make_set("b1");
  set.set_backup_lsn(big);
  set.set_backup_scn(big - 1);
  set.set_last_backup_lsn(static_cast<uint64_t>(int64_t(-7)));
  ASSERT_TRUE(commit(set));

  const Query by_unsigned = {{"resource_uuid", "resource-1"}, {"backup_id", "b1"},    {"backup_lsn", big},
                             {"backup_scn", big - 1},         {"sort", "start_time"}, {"order", "desc"}};
  const json_spirit::Array found = rows(by_unsigned);
  ASSERT_EQ(1u, found.size());
  const json_spirit::Object& row = found[0].get_obj();
  EXPECT_EQ(big, find_value(row, "backup_lsn").get_uint64());
  EXPECT_EQ(-1, find_value(row, "backup_lsn").get_int64());
  EXPECT_EQ(-7, find_value(row, "last_backup_lsn").get_int64());
  EXPECT_EQ("b1", ids({{"backup_lsn", -1}})) << "the same pattern, given as a signed number";
  EXPECT_EQ("", ids({{"backup_lsn", big - 1}}));
}

TEST_F(Catalog_Rows, texts_are_values_whatever_they_hold)
{
  const std::string odd = "o'brien\"; DROP TABLE backup_set; -- :v0 \xc3\xa4%_";
  Oscar_Brcmd_Backup_Set set = make_set("b1");
  set.set_name(odd);
  ASSERT_TRUE(commit(set));
  ASSERT_TRUE(commit(make_set("b2")));
  const json_spirit::Array found = rows({{"name", odd}});
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ(odd, find_value(found[0].get_obj(), "name").get_str());
}

TEST_F(Catalog_Rows, logical_sets_carry_files_and_metadata)
{
  Oscar_Backup_Set set = make_logical_set("u1", 3);
  set.add_file("DB", "S", "T", "/d/1.dump");
  set.add_file("DB", "S", "", "/d/2.dump");
  set.add_file("DB", "", "", "/d/3.dump");
  set.set_dbinstance("OSRDB");
  set.set_tablespaces({json_spirit::Value("USERS"), json_spirit::Value("DATA")});
  ASSERT_TRUE(commit(set));

  const json_spirit::Object row = rows({{"with_files", true}}, "oscar").at(0).get_obj();
  EXPECT_EQ("OSRDB", find_value(row, "dbinstance").get_str());
  const json_spirit::Array& tablespaces = find_value(row, "tablespaces").get_array();
  ASSERT_EQ(2u, tablespaces.size());
  EXPECT_EQ("DATA", tablespaces[1].get_str());
  const json_spirit::Array& files = find_value(row, "backup_files").get_array();
  ASSERT_EQ(3u, files.size());
  const char* const grades[] = {"table", "schema", "database"};
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ("DB", find_value(files[i].get_obj(), "database").get_str());
    EXPECT_EQ(grades[i], find_value(files[i].get_obj(), "grade").get_str());
    EXPECT_EQ("/d/" + std::to_string(i + 1) + ".dump", find_value(files[i].get_obj(), "file").get_str());
  }
  EXPECT_EQ("T", find_value(files[0].get_obj(), "table").get_str());
  EXPECT_TRUE(find_value(rows({}, "oscar").at(0).get_obj(), "backup_files").is_null()) << "only on request";
}

TEST_F(Catalog_Rows, the_catalogs_do_not_mix)
{
  ASSERT_TRUE(commit(make_set("b1")));
  ASSERT_TRUE(commit(make_logical_set("u1", 1)));
  EXPECT_EQ("b1", texts(rows({}), "uuid"));
  EXPECT_EQ("u1", texts(rows({}, "oscar"), "uuid"));
}
