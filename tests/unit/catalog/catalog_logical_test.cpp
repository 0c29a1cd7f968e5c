#include "catalog/catalog_admin.h"
#include "catalog_fixture.h"

#include <algorithm>
#include <thread>

using json_spirit::find_value;

class Catalog_Logical : public Catalog_Fixture
{
protected:
  static Oscar_Backup_Set export_set(const std::string& uuid, uint64_t seq, time_t start_time = 1000)
  {
    Oscar_Backup_Set set = make_logical_set(uuid, seq, start_time);
    set.set_minor_resource_id("minor");
    set.set_dbinstance("DB1");
    set.set_tablespaces({"USERS", "TS 2"});
    set.set_compression("zstd");
    set.set_original_checksum("o1");
    set.set_storage_checksum("s1");
    set.set_backup_set_size(5000);
    set.set_total_size(4000);
    set.add_piece("export_" + std::to_string(seq) + ".tar", 77);
    set.add_file("DB1", "", "", "/d/DB1.dump", 3000, "c1");
    set.add_file("DB1", "SALES", "ORDERS", "/d/ORDERS.dump", (uint64_t(9) << 40) + 1, "c2");
    return set;
  }
  static std::string latest(const std::string& grade, const std::string& database = "DB1")
  {
    return texts(rows({{"resource_uuid", "resource-2"},
                       {"database", database},
                       {"grade", grade},
                       {"with_files", true},
                       {"sort", "backup_start_time"},
                       {"order", "desc"}},
                      "oscar"),
                 "uuid");
  }
};

TEST_F(Catalog_Logical, rows_have_the_files_with_their_sizes_and_what_a_verification_compares)
{
  ASSERT_TRUE(commit(export_set("u1", 1)));
  const json_spirit::Object row = rows({{"uuid", "u1"}, {"with_files", true}}, "oscar").at(0).get_obj();
  EXPECT_EQ("export_1.tar", find_value(row, "backup_file").get_str());
  EXPECT_EQ("zstd", find_value(row, "compression").get_str());
  EXPECT_EQ("o1", find_value(row, "original_checksum").get_str());
  EXPECT_EQ("s1", find_value(row, "storage_checksum").get_str());
  EXPECT_EQ("minor", find_value(row, "minor_resource_id").get_str());
  const json_spirit::Array& files = find_value(row, "backup_files").get_array();
  ASSERT_EQ(2u, files.size());
  EXPECT_EQ(3000u, find_value(files[0].get_obj(), "size").get_uint64());
  EXPECT_EQ("c1", find_value(files[0].get_obj(), "checksum").get_str());
  EXPECT_EQ((uint64_t(9) << 40) + 1, find_value(files[1].get_obj(), "size").get_uint64());
  EXPECT_EQ("table", find_value(files[1].get_obj(), "grade").get_str());
}

TEST_F(Catalog_Logical, a_restore_finds_the_newest_set_with_a_file_of_its_grade)
{
  ASSERT_TRUE(commit(export_set("u1", 1, 1000)));
  ASSERT_TRUE(commit(export_set("u2", 2, 3000)));
  ASSERT_TRUE(commit(export_set("u3", 3, 2000)));
  EXPECT_EQ("u2 u3 u1", latest("table"));
  EXPECT_EQ("u2 u3 u1", latest("database"));
  EXPECT_EQ("", latest("schema"));
  EXPECT_EQ("", latest("table", "DB2"));
}

TEST_F(Catalog_Logical, stands_apart_from_physical_sets)
{
  ASSERT_TRUE(commit(make_set("b1")));
  ASSERT_TRUE(commit(export_set("u1", 1)));
  EXPECT_EQ("b1", ids({}));
  EXPECT_EQ("u1", texts(rows({}, "oscar"), "uuid"));
}

TEST_F(Catalog_Logical, an_archive_is_recorded_once)
{
  ASSERT_TRUE(commit(export_set("u1", 1)));
  EXPECT_FALSE(commit(export_set("u2", 1)));
  log_.expect(LM_ERROR, "its number was given twice");
  EXPECT_EQ("u1", texts(rows({}, "oscar"), "uuid"));
  // Elsewhere the number means another archive.
  Oscar_Backup_Set other_kind = export_set("u3", 1);
  other_kind.set_minor_resource_id("other");
  EXPECT_TRUE(commit(other_kind));
  Oscar_Backup_Set other_pool = make_logical_set("u4", 1);
  other_pool.set_minor_resource_id("minor");
  EXPECT_FALSE(commit(other_pool)) << "the first storage is pool-2";
  log_.expect(LM_ERROR, "its number was given twice");
}

TEST_F(Catalog_Logical, an_archive_is_recorded_once_whoever_comes_first)
{
  ASSERT_TRUE(commit(export_set("u0", 1)));
  log_.allow(LM_ERROR, "its number was given twice");
  const int writers = 4;
  std::vector<char> done(writers);
  std::vector<std::thread> threads;
  for (int i = 0; i < writers; ++i)
    threads.emplace_back([&done, i] {
      done[static_cast<size_t>(i)] =
          Catalog_Operator(-1, 60).commit(export_set("w" + std::to_string(i), 2), true);
    });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(1, std::count(done.begin(), done.end(), 1));
  EXPECT_EQ(1u, rows({{"seq", 2}}, "oscar").size());
}

TEST_F(Catalog_Logical, sets_without_a_number_are_not_told_apart_by_it)
{
  EXPECT_TRUE(commit(export_set("u1", 0)));
  EXPECT_TRUE(commit(export_set("u2", 0)));
}

TEST_F(Catalog_Logical, is_covered_by_the_changes_that_hosts_make)
{
  ASSERT_TRUE(commit(export_set("u1", 1)));
  ASSERT_TRUE(commit(export_set("u2", 2)));
  kestrel::Catalog_Admin admin(0);
  std::string error;
  uint64_t count = 0;
  ASSERT_TRUE(admin.count_by_pool("pool-2", count, error)) << error;
  EXPECT_EQ(2u, count);
  ASSERT_TRUE(admin.set_state("u1", kestrel::Set_State::unavailable, "damaged", error)) << error;
  const json_spirit::Object row = rows({{"uuid", "u1"}}, "oscar").at(0).get_obj();
  EXPECT_TRUE(find_value(row, "state").get_array().empty());
  EXPECT_EQ("damaged", find_value(row, "state_reason").get_str());
  std::vector<std::string> dependents = {"x"};
  ASSERT_TRUE(admin.dependents("u1", dependents, error)) << error;
  EXPECT_TRUE(dependents.empty());
  ASSERT_TRUE(admin.remove("u1", error)) << error;
  EXPECT_EQ("u2", texts(rows({}, "oscar"), "uuid"));
  ASSERT_TRUE(admin.count_by_pool("pool-2", count, error));
  EXPECT_EQ(1u, count);
  EXPECT_TRUE(commit(export_set("u3", 1))) << "the number is free again";
}
