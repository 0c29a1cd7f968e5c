#include "archive/archive_reader.h"
#include "mtf_fixture.h"
#include "support/clocks.h"

#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

using namespace kestrel_test;

class MTF_Restore_Test : public MTF_Fixture
{
protected:
  MTF_Restore_Test()
  {
    for (unsigned i = 0; i < 3; ++i) {
      contents_.push_back(dump_content(200000 + i, i + 1));
      paths_.push_back(
          dump("S_DB/" + std::string(1, static_cast<char>('a' + i)) + ".dump", contents_.back()));
    }
  }

  void store(Compression_Method method)
  {
    method_ = method;
    ASSERT_TRUE(backup(paths_));
    handler_.percents_.clear();
    handler_.events_.clear();
    actions_->pre_runs_ = actions_->post_runs_ = 0;
  }
  void expect_restored(const std::vector<unsigned>& numbers)
  {
    std::vector<std::string> names;
    for (const unsigned i : numbers) {
      names.push_back("S_DB/" + paths_[i].substr(paths_[i].rfind('/') + 1));
      EXPECT_EQ(contents_[i], read_file(target_ + "/" + names.back()));
    }
    EXPECT_EQ(names, restored_names());
  }
  /// Restores with the choice; the error, or "".
  std::string restore(const std::vector<unsigned>& chosen, unsigned long long seq = 1)
  {
    auto restore = make_restore(seq);
    std::vector<std::string> paths;
    for (const unsigned i : chosen)
      paths.push_back(paths_[i]);
    EXPECT_TRUE(paths.empty() || restore->restore_select(dirs(paths)));
    return restore->restore(target_) ? std::string() : restore->error();
  }

  std::vector<std::string> contents_, paths_;
};

class MTF_Restore_Method : public MTF_Restore_Test, public testing::WithParamInterface<Compression_Method>
{
};
INSTANTIATE_TEST_SUITE_P(All, MTF_Restore_Method,
                         testing::Values(COMPRESSION_NONE, COMPRESSION_ZLIB, COMPRESSION_LZ4,
                                         COMPRESSION_ZSTD),
                         [](const auto& info) { return std::string(compression_value_to_name(info.param)); });

TEST_P(MTF_Restore_Method, brings_everything_back)
{
  store(GetParam());
  bool written = false;
  actions_->post_ = [&] {
    written = read_file(target_ + "/S_DB/c.dump") == contents_[2];
    return true;
  };
  auto restore = make_restore();
  ASSERT_TRUE(restore->restore(target_)) << restore->error();
  EXPECT_TRUE(written) << "the post-action comes after the files";
  EXPECT_EQ(1u, actions_->pre_runs_);
  EXPECT_EQ(1u, actions_->post_runs_);
  expect_restored({0, 1, 2});
  EXPECT_EQ(600003u, restore->size());
  EXPECT_EQ(metadata_.set_size(), restore->set_size());
  EXPECT_EQ(metadata_.metadata(), restore->metadata());
  EXPECT_EQ(3u, restore->members().size());
  struct stat status;
  ASSERT_EQ(0, ::stat((target_ + "/S_DB/a.dump").c_str(), &status));
  EXPECT_EQ(0640u, status.st_mode & 07777);
}

TEST_P(MTF_Restore_Method, brings_back_only_what_was_chosen)
{
  store(GetParam());
  EXPECT_EQ("", restore({1}));
  expect_restored({1});
  EXPECT_EQ(100, handler_.percents_.back());
  EXPECT_EQ((std::vector<std::string>{"begin b.dump 200001", "done b.dump 200001"}), handler_.events_);
  EXPECT_EQ(200001u, handler_.a_);
}

TEST_P(MTF_Restore_Method, canceled_at_any_block_leaves_nothing)
{
  store(GetParam());
  unsigned canceled = 0;
  for (const std::vector<unsigned>& chosen : {std::vector<unsigned>{}, std::vector<unsigned>{1}})
    for (unsigned after = 0;; ++after) {
      handler_.questions_ = 0;
      handler_.cancel_after_ = after;
      actions_->post_runs_ = 0;
      auto restore = make_restore();
      ASSERT_TRUE(chosen.empty() || restore->restore_select(dirs({paths_[1]})));
      if (restore->restore(target_)) {
        std::filesystem::remove_all(target_ + "/S_DB");
        break;
      }
      ++canceled;
      EXPECT_TRUE(restore->canceled());
      EXPECT_EQ("", restore->error());
      EXPECT_EQ(0u, actions_->post_runs_);
      EXPECT_TRUE(restored_names().empty());
    }
  EXPECT_GE(canceled, 6u);
}

TEST_P(MTF_Restore_Method, verifies_without_writing)
{
  store(GetParam());
  auto restore = make_restore();
  ASSERT_TRUE(restore->restore_select(dirs({paths_[0]}))) << "which does not matter to a verification";
  ASSERT_TRUE(restore->verify()) << restore->error();
  EXPECT_EQ(0u, actions_->pre_runs_ + actions_->post_runs_);
  EXPECT_TRUE(restored_names().empty());
  EXPECT_EQ(3u, restore->members().size());
  EXPECT_EQ(600003u, restore->size());
  EXPECT_EQ(metadata_.set_storage_size(), restore->set_storage_size());
  EXPECT_EQ(32u, restore->storage_checksum().size());
  EXPECT_EQ(100, handler_.percents_.back());
}

TEST_P(MTF_Restore_Method, refuses_a_damaged_archive_and_leaves_no_file)
{
  store(GetParam());
  const std::string whole = read_file(stored());
  const std::string file = "pool/" + stored().substr(pool_.storage_path.size() + 1);
  unsigned restored = 0;
  log_.allow(LM_ERROR, "The archive could not be ");
  for (size_t at = 0; at < whole.size(); at += whole.size() / 40) {
    std::string flipped = whole;
    flipped[at] = static_cast<char>(flipped[at] ^ 4);
    dir_.write(file, flipped);
    EXPECT_NE("", restore({}));
    EXPECT_TRUE(restored_names().empty()) << at;
    EXPECT_FALSE(make_restore()->verify());
    // One file of an uncompressed archive is judged by its own checksum.
    const std::string error = restore({1});
    if (error.empty()) {
      ++restored;
      expect_restored({1});
      ::unlink((target_ + "/S_DB/b.dump").c_str());
    }
    EXPECT_TRUE(restored_names().empty()) << at;
    EXPECT_TRUE(error.empty() || error.find("damaged") != std::string::npos) << error;
  }
  EXPECT_TRUE(GetParam() == COMPRESSION_NONE || restored == 0);
  dir_.write(file, whole.substr(0, whole.size() - 1));
  for (const std::vector<unsigned>& chosen : {std::vector<unsigned>{}, std::vector<unsigned>{1}})
    EXPECT_NE(std::string::npos, restore(chosen).find("bytes instead of"));
  EXPECT_EQ(0u, actions_->post_runs_ - restored);
}

TEST_P(MTF_Restore_Method, a_failing_call_leaves_no_file_and_the_next_run_works)
{
  store(GetParam());
  const struct {
    const char* kind;
    int error;
  } faults[] = {{"open", EACCES}, {"read", EIO},  {"pread", EIO}, {"write", ENOSPC},        {"fsync", EIO},
                {"rename", EIO},  {"mkdir", EIO}, {"stat", EIO},  {"fsync_directory", EIO}, {"close", EIO}};
  log_.allow(LM_ERROR, "The archive could not be restored: ");
  unsigned failures = 0;
  for (const std::vector<unsigned>& chosen : {std::vector<unsigned>{}, std::vector<unsigned>{0, 2}})
    for (const auto& fault : faults)
      for (unsigned number = 1;; ++number) {
        ASSERT_LT(number, 100u);
        std::string error;
        bool met;
        {
          Fault_File_System faulty;
          faulty.fail(fault.kind, number, fault.error);
          error = restore(chosen);
          met = faulty.met();
        }
        EXPECT_TRUE(error.empty() || met) << error;
        if (!error.empty()) {
          ++failures;
          EXPECT_TRUE(restored_names().empty()) << fault.kind << number << error;
          EXPECT_EQ("", restore(chosen));
        }
        for (const std::string& name : restored_names())
          ::unlink((target_ + "/" + name).c_str());
        ::rmdir((target_ + "/S_DB").c_str());
        if (!met)
          break;
      }
  EXPECT_GE(failures, 20u);
}

TEST_F(MTF_Restore_Test, of_one_file_reads_little_of_an_uncompressed_archive)
{
  std::vector<std::string> paths;
  for (int i = 0; i < 200; ++i)
    paths.push_back(dump("many/" + std::to_string(i), dump_content(20000, static_cast<unsigned>(i) + 1)));
  ASSERT_TRUE(backup(paths));
  auto restore = make_restore();
  ASSERT_TRUE(restore->restore_select(dirs({paths[137]})));
  Fault_File_System calls;
  ASSERT_TRUE(restore->restore(target_)) << restore->error();
  EXPECT_EQ(dump_content(20000, 138), read_file(target_ + "/many/137"));
  EXPECT_LT(handler_.c_, metadata_.set_size() / 20) << "bytes read of the archive";
  EXPECT_LE(calls.count("pread"), 6u);
}

TEST_F(MTF_Restore_Test, of_everything_chosen_checks_the_whole_archive)
{
  store(COMPRESSION_NONE);
  Fault_File_System calls;
  EXPECT_EQ("", restore({0, 1, 2}));
  expect_restored({0, 1, 2});
  EXPECT_LE(calls.count("pread"), 3u);
}

TEST_F(MTF_Restore_Test, refuses_the_archive_of_something_else)
{
  store(COMPRESSION_ZSTD);
  const std::vector<std::pair<std::function<void(MTF_Restore&)>, std::string>> cases = {
      {[](MTF_Restore& r) { r.backup_host_uuid("other"); }, "another host: host instead of other"},
      {[](MTF_Restore& r) { r.definition_uuid("other"); }, "another definition"},
      {[](MTF_Restore& r) { r.backup_uuid("other"); }, "another backup: uuid instead of other"},
      {[](MTF_Restore& r) { r.seq(9); }, "cannot open"},
      {[](MTF_Restore& r) { r.backup_minor_resource_id("other"); }, "cannot open"},
      {[](MTF_Restore& r) { r.pool_uuid("other"); }, "the pool other is not known"},
  };
  log_.allow(LM_ERROR, "get_pool_info");
  for (const auto& [change, says] : cases) {
    auto restore = make_restore();
    change(*restore);
    EXPECT_FALSE(restore->restore(target_));
    EXPECT_NE(std::string::npos, restore->error().find(says)) << restore->error();
    log_.expect(LM_ERROR, says);
    EXPECT_TRUE(restored_names().empty());
  }
  auto any = make_restore();
  any->backup_host_uuid("");
  any->definition_uuid("");
  any->backup_uuid("uuid");
  EXPECT_TRUE(any->restore(target_)) << any->error();
}

// Somebody copied an archive over another.
TEST_F(MTF_Restore_Test, refuses_an_archive_under_another_number)
{
  store(COMPRESSION_NONE);
  for (const char* suffix : {"", ".meta"})
    dir_.write("pool/" + (stored(5) + suffix).substr(pool_.storage_path.size() + 1),
               read_file(stored(1) + suffix));
  for (const std::vector<unsigned>& chosen : {std::vector<unsigned>{}, std::vector<unsigned>{1}}) {
    EXPECT_NE("", restore(chosen, 5));
    log_.expect(LM_ERROR, "it says that it is number 1");
  }
}

TEST_F(MTF_Restore_Test, refuses_files_that_are_not_there_before_writing_any)
{
  for (const Compression_Method method : {COMPRESSION_NONE, COMPRESSION_LZ4}) {
    method_ = method;
    auto backup = make_backup(paths_);
    ASSERT_TRUE(backup->backup(pool_));
    auto restore = make_restore(backup->seq());
    ASSERT_TRUE(restore->restore_select(dirs({paths_[0], "/elsewhere/x"})));
    EXPECT_FALSE(restore->restore(target_));
    log_.expect(LM_ERROR, "it has no file /elsewhere/x");
    EXPECT_TRUE(restored_names().empty());
  }
}

TEST_F(MTF_Restore_Test, refuses_lists_that_choose_nothing)
{
  auto restore = make_restore();
  EXPECT_FALSE(restore->restore_select({}));
  log_.expect(LM_ERROR, "is empty");
  json_spirit::Array entries[] = {{json_spirit::Value(1)}, {json_spirit::Object()}, dirs({""})};
  for (const json_spirit::Array& entry : entries) {
    EXPECT_FALSE(restore->restore_select(entry));
    log_.expect(LM_ERROR, "has no \"dir\"");
  }
}

TEST_F(MTF_Restore_Test, stops_at_anything_in_the_way)
{
  store(COMPRESSION_ZSTD);
  const std::string elsewhere = dir_.make_dir("elsewhere");
  const auto refused = [&](const std::string& says) {
    EXPECT_NE("", restore({}));
    log_.expect(LM_ERROR, says);
    EXPECT_TRUE(std::filesystem::is_empty(elsewhere));
  };
  dir_.make_dir("target/S_DB/b.dump");
  refused("b.dump: a directory of this name is in the way");
  EXPECT_TRUE(restored_names().empty()) << "a.dump came before it";
  std::filesystem::remove_all(target_ + "/S_DB");

  ASSERT_EQ(0, ::symlink(elsewhere.c_str(), (target_ + "/S_DB").c_str()));
  refused("something that is no directory is in the way");
  std::filesystem::remove(target_ + "/S_DB");

  dir_.write("target/S_DB", "a file");
  refused("something that is no directory is in the way");
  std::filesystem::remove(target_ + "/S_DB");

  dir_.make_dir("target/S_DB");
  ASSERT_EQ(0, ::symlink((elsewhere + "/x").c_str(), (target_ + "/S_DB/a.dump").c_str()));
  refused("something that is no file of this name is in the way");
  std::filesystem::remove(target_ + "/S_DB/a.dump");

  dir_.write("target/S_DB/a.dump", "an old file");
  EXPECT_EQ("", restore({}));
  expect_restored({0, 1, 2});

  std::filesystem::remove_all(target_);
  refused("cannot use the directory");
  dir_.write("target", "a file");
  refused("it is no directory");
}

TEST_F(MTF_Restore_Test, fails_with_its_actions_unless_that_is_ignored)
{
  store(COMPRESSION_NONE);
  actions_->pre_ = [] { return false; };
  EXPECT_EQ("the pre-action failed", restore({}));
  log_.expect(LM_ERROR, "the pre-action failed");
  EXPECT_TRUE(restored_names().empty());
  actions_->ignore_pre_action_failure(true);
  actions_->post_ = [] { return false; };
  EXPECT_EQ("the post-action failed", restore({}));
  log_.expect(LM_ERROR, "the post-action failed");
  expect_restored({0, 1, 2});
  actions_->ignore_post_action_failure(true);
  EXPECT_EQ("", restore({}));
}

TEST_F(MTF_Restore_Test, paused_moves_nothing_until_it_goes_on)
{
  store(COMPRESSION_ZSTD);
  Fake_Clock clock;
  handler_.pause_questions_ = 0;
  handler_.pause_for_ = 20;
  EXPECT_EQ("", restore({}));
  EXPECT_EQ(2000, clock.slept_msec());
}
