#include "agent/export_catalog.h"

#include "catalog/catalog_admin.h"
#include "catalog/catalog_database.h"
#include "catalog/catalog_operator.h"
#include "catalog/sql_back_end.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

using namespace kestrel;

namespace
{
class Export_Catalog : public ::testing::Test
{
protected:
  void commit(const std::string& id, const std::string& resource, time_t time)
  {
    Oscar_Backup_Set set;
    set.set_uuid(id);
    set.set_type("export");
    set.set_definition_uuid("D");
    set.set_resource_uuid(resource);
    set.set_minor_resource_id("M");
    set.set_host_uuid("H");
    set.set_dbinstance("DB1");
    set.set_seq(++seq_);
    set.set_start_time(time);
    set.set_backup_set_size(3000);
    set.set_total_size(2000);
    set.set_compression("zstd");
    set.add_storage(Backup_Set_Storage("P", 500));
    set.add_piece("export_7.tar", 500);
    set.add_file("DB1", "S", "T", "/dump/t.dump", 1500, "0123");
    set.add_file("DB1", "", "", "/dump/db.dump", 500);
    set.set_tablespaces({"TS1"});
    ASSERT_TRUE(Catalog_Operator(-1, 0).commit(set, true));
  }
  std::string found(const std::string& reference)
  {
    std::vector<Export_Entry> entries;
    EXPECT_TRUE(find_exports(reference, entries, error_)) << error_;
    std::string ids;
    for (const Export_Entry& entry : entries)
      ids += (ids.empty() ? "" : " ") + entry.id;
    return ids;
  }

  uint64_t seq_ = 6;
  kestrel_test::Temp_Dir root_;
  kestrel_test::Scoped_Env environment_{"KESTREL_ROOT", root_.path()};
  kestrel_test::Log_Capture log_;
  std::string error_;
};
} // namespace

TEST_F(Export_Catalog, gives_every_field)
{
  commit("E1", "R", 100);
  std::vector<Export_Entry> entries;
  ASSERT_TRUE(list_exports({}, 0, entries, error_)) << error_;
  ASSERT_EQ(1u, entries.size());
  const Export_Entry& entry = entries[0];
  EXPECT_EQ("E1", entry.id);
  EXPECT_EQ("D", entry.definition_uuid);
  EXPECT_EQ("R", entry.resource_uuid);
  EXPECT_EQ("M", entry.minor_resource_id);
  EXPECT_EQ("H", entry.host_uuid);
  EXPECT_EQ("DB1", entry.instance);
  EXPECT_EQ(7u, entry.seq);
  EXPECT_EQ("P", entry.pool_uuid);
  EXPECT_EQ("export_7.tar", entry.file);
  EXPECT_EQ("zstd", entry.compression);
  EXPECT_EQ(3000u, entry.size);
  EXPECT_EQ(2000u, entry.files_size);
  EXPECT_EQ(500u, entry.stored_size);
  EXPECT_EQ(100, entry.start_time);
  EXPECT_TRUE(entry.available);
  EXPECT_EQ(std::vector<std::string>{"TS1"}, entry.tablespaces);
  ASSERT_EQ(2u, entry.files.size());
  EXPECT_EQ("S", entry.files[0].schema);
  EXPECT_EQ("T", entry.files[0].table);
  EXPECT_EQ("/dump/t.dump", entry.files[0].path);
  EXPECT_EQ(1500u, entry.files[0].size);
  EXPECT_EQ("0123", entry.files[0].checksum);
  EXPECT_EQ("", entry.files[1].schema);
}

TEST_F(Export_Catalog, lists_the_newest_first_of_a_resource)
{
  commit("A1", "R", 100);
  commit("A2", "R", 300);
  commit("A3", "R2", 200);
  std::vector<Export_Entry> entries;
  ASSERT_TRUE(list_exports({{"resource_uuid", "R"}}, 0, entries, error_)) << error_;
  ASSERT_EQ(2u, entries.size());
  EXPECT_EQ("A2", entries[0].id);
  ASSERT_TRUE(list_exports({}, 2, entries, error_)) << error_;
  ASSERT_EQ(2u, entries.size());
  EXPECT_EQ("A3", entries[1].id);
  ASSERT_TRUE(last_committed_export("R2", entries, error_)) << error_;
  ASSERT_EQ(1u, entries.size());
  EXPECT_EQ("A3", entries[0].id);
}

TEST_F(Export_Catalog, finds_by_id_beginning_and_latest)
{
  commit("abc1", "R", 100);
  commit("abc2", "R2", 300);
  commit("abc", "R", 200);
  EXPECT_EQ("abc", found("abc")) << "a whole id goes before those that begin so";
  EXPECT_EQ("abc1", found("abc1"));
  EXPECT_EQ("abc2 abc abc1", found("ab"));
  EXPECT_EQ("", found("x"));
  EXPECT_EQ("", found(""));
  EXPECT_EQ("abc2", found("latest"));
}

TEST_F(Export_Catalog, tells_that_an_export_cannot_be_used)
{
  commit("E1", "R", 100);
  ASSERT_TRUE(Catalog_Admin(0).set_state("E1", Set_State::unavailable, "gone", error_)) << error_;
  std::vector<Export_Entry> entries;
  ASSERT_TRUE(list_exports({}, 0, entries, error_)) << error_;
  EXPECT_FALSE(entries.at(0).available);
  EXPECT_EQ("gone", entries.at(0).state_reason);
  EXPECT_FALSE(entries.at(0).deleting);
  ASSERT_TRUE(Catalog_Admin(0).set_state("E1", Set_State::deleting, "going", error_)) << error_;
  ASSERT_TRUE(list_exports({}, 0, entries, error_)) << error_;
  EXPECT_FALSE(entries.at(0).available);
  EXPECT_TRUE(entries.at(0).deleting);
}

TEST_F(Export_Catalog, lists_the_others_beside_one_whose_record_is_damaged)
{
  commit("E1", "R", 100);
  commit("E2", "R", 200);
  commit("E3", "R", 300);
  for (const char* tablespaces : {"[\"TS1", "[7]", "{}", ""}) {
    {
      Catalog_Database database(default_catalog_place());
      const std::string text = tablespaces;
      database.session() << "UPDATE backup_set SET tablespaces = :t WHERE uuid = 'E2'", soci::use(text, "t");
    }
    std::vector<Export_Entry> entries;
    ASSERT_TRUE(list_exports({}, 0, entries, error_)) << error_;
    ASSERT_EQ(3u, entries.size());
    EXPECT_TRUE(log_.expect(LM_WARNING, "record of backup E2 is damaged"));
    EXPECT_EQ("E2", entries[1].id) << "its place is kept";
    EXPECT_FALSE(entries[1].available);
    EXPECT_NE("", entries[1].damage);
    EXPECT_EQ("its record in the catalog is damaged: " + entries[1].damage, entries[1].state_reason);
    for (const size_t good : {0u, 2u}) {
      EXPECT_TRUE(entries[good].available);
      EXPECT_EQ("", entries[good].damage);
      EXPECT_EQ(2u, entries[good].files.size());
    }
    EXPECT_EQ("E2", found("E2")) << "a restore finds it, and refuses it";
    EXPECT_TRUE(log_.expect(LM_WARNING, "saved copy of the catalog"));
  }
}
