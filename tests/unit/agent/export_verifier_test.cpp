#include "agent/export_verifier.h"

#include "archive/mtf.h"
#include "catalog/catalog_operator.h"
#include "support/hasty_file_system.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace kestrel;
using Outcome = Verification::Outcome;

namespace
{
/// One logical backup of two files, recorded in a catalog of its own.
class Export_Verifier : public ::testing::Test
{
protected:
  void SetUp() override
  {
    pool_.pool_id = "P";
    pool_.storage_path = root_.make_dir("pool");
    set_pool_finder([this](const std::string& id, Pool_Info& info, std::string& error) {
      info = pool_;
      error = "no pool " + id;
      return id == pool_.pool_id;
    });
    record();
  }
  void TearDown() override { set_pool_finder(nullptr); }

  void record()
  {
    MTF::Metadata metadata;
    MTF_Backup backup(nullptr, metadata, nullptr);
    const std::string table = root_.write("dump/S_DB/T.dump", std::string(300000, 't'));
    const std::string database = root_.write("dump/S_DB/DB.dump", "database");
    backup.add_source(table);
    backup.add_source(database);
    backup.definition_uuid("D");
    backup.host_uuid("H");
    backup.minor_resource_id("minor");
    backup.uuid("U");
    ASSERT_TRUE(backup.backup(pool_)) << backup.error();
    Oscar_Backup_Set set;
    set.set_uuid("U");
    set.set_seq(backup.seq());
    set.set_minor_resource_id("minor");
    set.set_definition_uuid("D");
    set.set_host_uuid("H");
    set.set_resource_uuid("R");
    set.set_dbinstance("DB1");
    set.set_tablespaces({"TS1", "TS2"});
    set.set_start_time(1000);
    set.set_backup_set_size(backup.set_size());
    set.set_total_size(backup.source_size());
    set.set_original_checksum(backup.original_checksum());
    set.set_storage_checksum(backup.storage_checksum());
    set.add_storage(Backup_Set_Storage("P", backup.set_storage_size()));
    set.add_piece(backup.backup_file(), backup.set_storage_size());
    set.add_file("DB1", "S", "T", table, backup.members()[0].size, backup.members()[0].checksum);
    set.add_file("DB1", "", "", database, backup.members()[1].size, backup.members()[1].checksum);
    ASSERT_TRUE(Catalog_Operator(-1, 0).commit(set, true));
    stored_ = "pool/minor/" + backup.backup_file();
  }
  Export_Entry entry()
  {
    std::vector<Export_Entry> found;
    std::string error;
    EXPECT_TRUE(list_exports({{"uuid", "U"}}, 0, found, error)) << error;
    EXPECT_EQ(1u, found.size());
    return found.empty() ? Export_Entry() : found.front();
  }
  Verification verify(const Export_Entry& backup) { return verify_export(backup, nullptr, nullptr); }

  kestrel_test::Hasty_File_System file_system_;
  kestrel_test::Temp_Dir root_;
  kestrel_test::Scoped_Env environment_{"KESTREL_ROOT", root_.path()};
  kestrel_test::Log_Capture log_;
  Pool_Info pool_;
  std::string stored_;
};
} // namespace

TEST_F(Export_Verifier, finds_what_was_recorded)
{
  const Export_Entry backup = entry();
  EXPECT_EQ("export_1.tar", backup.file);
  EXPECT_EQ("DB1", backup.instance);
  EXPECT_EQ((std::vector<std::string>{"TS1", "TS2"}), backup.tablespaces);
  ASSERT_EQ(2u, backup.files.size());
  EXPECT_EQ("table", backup.files[0].grade);
  EXPECT_EQ("T", backup.files[0].table);
  EXPECT_EQ(300000u, backup.files[0].size);
  EXPECT_TRUE(backup.available);
}

TEST_F(Export_Verifier, reads_a_good_backup_and_tells_its_progress)
{
  uint64_t done_bytes = 0, total_bytes = 0;
  const Verification result = verify_export(
      entry(),
      [&](uint64_t done, uint64_t total) {
        done_bytes = done;
        total_bytes = total;
      },
      nullptr);
  EXPECT_EQ(Outcome::good, result.outcome) << result.problem;
  EXPECT_EQ(300008u, result.bytes);
  EXPECT_EQ(300008u, done_bytes);
  EXPECT_EQ(300008u, total_bytes);
}

TEST_F(Export_Verifier, finds_a_damaged_or_missing_archive)
{
  log_.allow(LM_ERROR, "The archive could not be verified");
  const std::string whole = kestrel_test::read_file(root_ / stored_);
  std::string flipped = whole;
  flipped[whole.size() / 2] = 'x';
  root_.write(stored_, flipped);
  Verification result = verify(entry());
  EXPECT_EQ(Outcome::damaged, result.outcome);
  EXPECT_NE(std::string::npos, result.problem.find("damaged")) << result.problem;
  std::filesystem::remove(root_ / stored_);
  EXPECT_EQ(Outcome::damaged, verify(entry()).outcome);
}

TEST_F(Export_Verifier, finds_where_the_catalog_disagrees)
{
  const std::vector<std::pair<std::function<void(Export_Entry&)>, std::string>> cases = {
      {[](Export_Entry& e) { ++e.size; }, "the archive has"},
      {[](Export_Entry& e) { ++e.stored_size; }, "the stored file has"},
      {[](Export_Entry& e) { e.original_checksum = "x"; }, "the archive's checksum differs"},
      {[](Export_Entry& e) { e.storage_checksum = "x"; }, "the stored file's checksum differs"},
      {[](Export_Entry& e) { e.files[1].checksum = "x"; }, "is not the one that the catalog describes"},
      {[](Export_Entry& e) { e.files[1].size = 1; }, "is not the one that the catalog describes"},
      {[](Export_Entry& e) { e.files[1].path = "/x"; }, "does not hold /x"},
      {[](Export_Entry& e) { e.id = "other"; }, "another backup"},
  };
  log_.allow(LM_ERROR, "another backup");
  for (const auto& [change, says] : cases) {
    Export_Entry backup = entry();
    change(backup);
    const Verification result = verify(backup);
    EXPECT_EQ(Outcome::damaged, result.outcome) << says;
    EXPECT_NE(std::string::npos, result.problem.find(says)) << result.problem;
  }
}

TEST_F(Export_Verifier, does_not_judge_what_it_cannot_reach)
{
  log_.allow(LM_ERROR, "get_pool_info");
  Export_Entry backup = entry();
  backup.pool_uuid = "other";
  EXPECT_EQ(Outcome::unknown, verify(backup).outcome);
  EXPECT_EQ(Outcome::unknown, verify_export(entry(), nullptr, [] { return true; }).outcome);
  pool_.marked = true;
  Verification result = verify(entry());
  EXPECT_EQ(Outcome::unknown, result.outcome);
  EXPECT_NE(std::string::npos, result.problem.find("cannot be reached")) << result.problem;
  std::filesystem::rename(pool_.storage_path, root_ / "unmounted");
  result = verify(entry());
  EXPECT_EQ(Outcome::unknown, result.outcome);
  EXPECT_NE(std::string::npos, result.problem.find("is not there")) << result.problem;
}

TEST_F(Export_Verifier, does_not_read_what_is_being_deleted)
{
  Export_Entry backup = entry();
  backup.deleting = true;
  backup.state_reason = "its deletion has begun";
  const Verification result = verify(backup);
  EXPECT_EQ(Outcome::unknown, result.outcome);
  EXPECT_EQ("its deletion has begun", result.problem);
  EXPECT_EQ(0u, result.bytes);
}

TEST_F(Export_Verifier, judges_nothing_by_a_damaged_record)
{
  Export_Entry damaged = entry();
  damaged.damage = "its tablespaces are no list";
  damaged.state_reason = "its record in the catalog is damaged: " + damaged.damage;
  const Verification result = verify_export(damaged, nullptr, nullptr);
  EXPECT_EQ(Outcome::unknown, result.outcome) << "the file itself may be good";
  EXPECT_EQ(damaged.state_reason, result.problem);
}
