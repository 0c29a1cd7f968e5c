#include "agent/backup_verifier.h"

#include "storage/client_io.h"
#include "storage/pool_registry.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"
#include "support/unmounted.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
using Outcome = Verification::Outcome;

/// A pool of its own with two stored backups.
class Backup_Verifier : public ::testing::Test
{
protected:
  void SetUp() override
  {
    pool_path_ = root_.make_dir("pool");
    std::string error;
    ASSERT_TRUE(Pool_Registry().add("main", pool_path_, pool_, error)) << error;
    backup_ = store("B1", 'a');
    other_ = store("B2", 'b');
  }
  /// A stream with an info block of 600 bytes, stored without compression.
  Backup_Entry store(const std::string& id, char content)
  {
    std::string stream(100000, content);
    stream[0] = stream[1] = 0;
    stream[2] = 600 >> 8;
    stream[3] = 600 & 255;
    Client_IO_Base::Options options;
    options.storage_path = pool_path_;
    Client_IO_Ex client;
    EXPECT_TRUE(client.connect(pool_path_ + "/R", options)) << client.error();
    EXPECT_TRUE(client.open(id, Client_IO_Ex::MODE_WRITE, 0, 0)) << client.error();
    EXPECT_TRUE(client.write(stream.data(), static_cast<unsigned>(stream.size()))) << client.error();
    EXPECT_TRUE(client.close()) << client.error();
    Backup_Entry backup;
    backup.id = id;
    backup.pool_uuid = pool_.pool_id;
    backup.uri = "R";
    backup.file = id;
    backup.size = client.original_size();
    backup.stored_size = client.storage_size();
    backup.pump_checksum = backup.original_checksum = client.original_checksum();
    backup.storage_checksum = client.storage_checksum();
    return backup;
  }
  std::string path(const std::string& id) const { return pool_path_ + "/R/" + id; }
  void copy(const std::string& from, const std::string& to)
  {
    std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing);
  }
  Outcome probed() { return (probe_ = probe_backup(backup_, backup_.pool_uuid)).outcome; }
  Outcome verified() { return (verification_ = verify_backup(backup_, {}, {})).outcome; }

  Temp_Dir root_;
  Scoped_Env environment_{"KESTREL_ROOT", root_.path()};
  Log_Capture log_;
  std::string pool_path_;
  Pool_Info pool_;
  Backup_Entry backup_;
  Backup_Entry other_;
  Verification probe_;
  Verification verification_;
};
} // namespace

TEST_F(Backup_Verifier, does_not_read_what_is_being_deleted)
{
  backup_.deleting = true;
  backup_.state_reason = "its deletion has begun";
  EXPECT_EQ(Outcome::unknown, probed());
  EXPECT_EQ(Outcome::unknown, verified());
  EXPECT_EQ("its deletion has begun", verification_.problem);
  EXPECT_EQ(0u, verification_.bytes);
}

TEST_F(Backup_Verifier, finds_a_whole_backup_good)
{
  EXPECT_EQ(Outcome::good, probed()) << probe_.problem;
  EXPECT_EQ(Outcome::good, verified()) << verification_.problem;
  EXPECT_EQ(backup_.size, verification_.bytes);
}

TEST_F(Backup_Verifier, misses_a_file)
{
  std::filesystem::remove(path("B1"));
  EXPECT_EQ(Outcome::damaged, probed());
  EXPECT_EQ(Outcome::damaged, verified());
  EXPECT_NE(std::string::npos, probe_.problem.find("B1")) << probe_.problem;
}

TEST_F(Backup_Verifier, sees_that_a_file_is_cut_or_has_grown)
{
  for (const uint64_t size : {backup_.stored_size - 1, backup_.stored_size + 1, uint64_t{0}}) {
    std::filesystem::resize_file(path("B1"), size);
    EXPECT_EQ(Outcome::damaged, probed()) << size;
    EXPECT_EQ(Outcome::damaged, verified()) << size;
  }
}

TEST_F(Backup_Verifier, sees_that_a_file_is_another_backups)
{
  copy(path("B2"), path("B1"));
  copy(path("B2") + ".meta", path("B1") + ".meta");
  EXPECT_EQ(Outcome::damaged, probed());
  EXPECT_EQ(Outcome::damaged, verified());
}

TEST_F(Backup_Verifier, only_reading_finds_a_changed_byte)
{
  std::fstream file(path("B1"), std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(50000);
  file.put('x');
  file.close();
  EXPECT_EQ(Outcome::good, probed()) << probe_.problem;
  EXPECT_EQ(Outcome::damaged, verified());
}

TEST_F(Backup_Verifier, a_side_file_that_cannot_be_read_is_damage)
{
  std::ofstream(path("B1") + ".meta") << "{";
  EXPECT_EQ(Outcome::damaged, probed());
  EXPECT_EQ(Outcome::damaged, verified());
}

// No restore reads a file without it; one that began with it would end half-way.
TEST_F(Backup_Verifier, a_missing_side_file_is_damage)
{
  std::filesystem::remove(path("B1") + ".meta");
  EXPECT_EQ(Outcome::damaged, probed());
  EXPECT_NE(std::string::npos, probe_.problem.find("its side file is missing")) << probe_.problem;
  EXPECT_EQ(Outcome::damaged, verified());
}

TEST_F(Backup_Verifier, judges_nothing_in_a_pool_that_is_away)
{
  std::filesystem::rename(pool_path_, pool_path_ + ".away");
  EXPECT_EQ(Outcome::unknown, probed());
  EXPECT_EQ(Outcome::unknown, verified());
  EXPECT_NE(std::string::npos, probe_.problem.find(pool_path_)) << probe_.problem;
}

TEST_F(Backup_Verifier, judges_nothing_in_the_empty_mount_point_of_a_pool)
{
  const std::string missing = path("B1") + ".gone";
  EXPECT_FALSE(tells_nothing(pool_, missing, "")) << "a file is missing in a pool that is there";
  {
    const Unmounted unmounted(pool_path_);
    EXPECT_EQ(Outcome::unknown, probed());
    EXPECT_EQ(Outcome::unknown, verified());
    for (const std::string& problem : {probe_.problem, verification_.problem})
      EXPECT_EQ(0u, problem.find("pool main cannot be reached: cannot use the pool directory " + pool_path_)) << problem;
    EXPECT_TRUE(tells_nothing(pool_, missing, "")) << "unmounted while it was verified";
  }
  EXPECT_EQ(Outcome::good, verified()) << verification_.problem;
}

TEST_F(Backup_Verifier, judges_nothing_in_a_pool_that_is_not_known)
{
  backup_.pool_uuid = "nowhere";
  EXPECT_EQ(Outcome::unknown, probed());
  EXPECT_EQ(Outcome::unknown, verified());
  EXPECT_TRUE(log_.expect(LM_ERROR, "nowhere"));
  EXPECT_TRUE(log_.expect(LM_ERROR, "nowhere"));
}

TEST_F(Backup_Verifier, looks_in_the_pool_that_it_is_told)
{
  const std::string second = root_.make_dir("second");
  std::string error;
  Pool_Info pool;
  ASSERT_TRUE(Pool_Registry().add("second", second, pool, error)) << error;
  EXPECT_EQ(Outcome::damaged, probe_backup(backup_, pool.pool_id).outcome);
  std::filesystem::copy(pool_path_ + "/R", second + "/R");
  EXPECT_EQ(Outcome::good, probe_backup(backup_, pool.pool_id).outcome);
}
