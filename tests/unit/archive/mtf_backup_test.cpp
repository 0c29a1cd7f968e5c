#include "base/checksum.h"
#include "mtf_fixture.h"
#include "support/clocks.h"
#include "json/json_util.h"

#include <sys/stat.h>
#include <unistd.h>

using namespace kestrel_test;

class MTF_Backup_Test : public MTF_Fixture
{
};

TEST_F(MTF_Backup_Test, stores_files_that_the_pre_action_made)
{
  const std::string path = dumps_ + "/S_DB/a.dump";
  actions_->pre_ = [&] { return !dump("S_DB/a.dump", "data").empty(); };
  actions_->post_ = [&] { return !exists(stored()); };
  auto backup = make_backup({path, path});
  EXPECT_EQ(1u, backup->seq());
  ASSERT_TRUE(backup->backup(pool_)) << backup->error();
  EXPECT_EQ(1u, actions_->pre_runs_);
  EXPECT_EQ(1u, actions_->post_runs_);
  EXPECT_EQ(1u, backup->seq());
  EXPECT_EQ("export_1.tar", backup->backup_file());
  ASSERT_EQ(1u, backup->members().size()) << "the second time is ignored";
  EXPECT_EQ(path, backup->members()[0].path);
  EXPECT_EQ("S_DB/a.dump", backup->members()[0].name);
  EXPECT_EQ(4u, backup->members()[0].size);
  EXPECT_EQ(kestrel::xxh3_128_hex("data", 4), backup->members()[0].checksum);
  EXPECT_EQ(4u, backup->source_size());
  EXPECT_EQ(4u, metadata_.source_size());
  EXPECT_EQ(read_file(stored()).size(), backup->set_size());
  EXPECT_EQ(backup->set_size(), metadata_.set_storage_size());
  EXPECT_EQ(32u, backup->storage_checksum().size());
  EXPECT_EQ(backup->original_checksum(), backup->storage_checksum());
  EXPECT_EQ((std::vector<std::string>{"export_1.tar", "export_1.tar.meta"}), stored_names());
}

TEST_F(MTF_Backup_Test, keeps_what_it_was_told_in_the_archive)
{
  ASSERT_TRUE(backup({dump("S_DB/a.dump", "data")}));
  const std::string tar = read_file(stored());
  const size_t begin = tar.find('{');
  json_spirit::Value value;
  std::string error;
  ASSERT_TRUE(kestrel::read_json(tar.substr(begin, tar.find('\0', begin) - begin), value, error)) << error;
  const json_spirit::Object& record = value.get_obj();
  EXPECT_EQ("uuid", json_spirit::find_value(record, "uuid").get_str());
  EXPECT_EQ("host", json_spirit::find_value(record, "host_uuid").get_str());
  EXPECT_EQ("device", json_spirit::find_value(record, "device_uuid").get_str());
  EXPECT_EQ("none", json_spirit::find_value(record, "compression").get_str());
  EXPECT_EQ(1u, json_spirit::find_value(record, "seq").get_uint64());
  EXPECT_EQ(metadata_.metadata(), json_spirit::find_value(record, "metadata"));
}

TEST_F(MTF_Backup_Test, takes_the_first_free_number_after_the_last)
{
  const std::string path = dump("S_DB/a.dump", "first");
  ASSERT_TRUE(backup({path}));
  dump("S_DB/a.dump", "second");
  auto second = make_backup({path});
  ASSERT_TRUE(second->backup(pool_)) << second->error();
  EXPECT_EQ(2u, second->seq());
  auto later = make_backup({path});
  later->seq(7);
  EXPECT_EQ(8u, later->seq());
  ASSERT_TRUE(later->backup(pool_));
  EXPECT_EQ(8u, later->seq());
  EXPECT_NE(std::string::npos, read_file(stored(1)).find("first"));
  EXPECT_NE(std::string::npos, read_file(stored(2)).find("second"));
}

TEST_F(MTF_Backup_Test, gives_way_to_one_that_is_being_written)
{
  const std::string path = dump("S_DB/a.dump", "data");
  auto outer = make_backup({path});
  unsigned long long inner_seq = 0;
  // The outer one has its number by the time its post-action runs.
  actions_->post_ = [&] {
    if (actions_->post_runs_ > 1)
      return true;
    auto inner = make_backup({path});
    const bool done = inner->backup(pool_);
    inner_seq = inner->seq();
    return done;
  };
  ASSERT_TRUE(outer->backup(pool_)) << outer->error();
  EXPECT_EQ(1u, outer->seq());
  EXPECT_EQ(2u, inner_seq);
  EXPECT_EQ(4u, stored_names().size());
}

TEST_F(MTF_Backup_Test, fails_with_its_pre_action_unless_that_is_ignored)
{
  const std::string path = dump("S_DB/a.dump", "data");
  actions_->pre_ = [] { return false; };
  EXPECT_FALSE(backup({path}));
  log_.expect(LM_ERROR, "the pre-action failed");
  EXPECT_EQ(0u, actions_->post_runs_);
  EXPECT_TRUE(stored_names().empty());
  actions_->ignore_pre_action_failure(true);
  EXPECT_TRUE(backup({path}));
  EXPECT_EQ(1u, actions_->post_runs_);
}

TEST_F(MTF_Backup_Test, fails_with_its_post_action_unless_that_is_ignored)
{
  const std::string path = dump("S_DB/a.dump", "data");
  actions_->post_wait_ = -1;
  EXPECT_FALSE(backup({path}));
  log_.expect(LM_ERROR, "the post-action failed");
  EXPECT_TRUE(stored_names().empty());
  actions_->ignore_post_action_failure(true);
  EXPECT_TRUE(backup({path}));
}

TEST_F(MTF_Backup_Test, runs_without_handlers_and_only_once)
{
  MTF_Backup backup(nullptr, metadata_, nullptr);
  backup.add_source(dump("S_DB/a.dump", "data"));
  backup.minor_resource_id("m");
  EXPECT_TRUE(backup.backup(pool_)) << backup.error();
  EXPECT_FALSE(backup.backup(pool_));
  log_.expect(LM_ERROR, "has already run");
}

TEST_F(MTF_Backup_Test, can_be_taken_back)
{
  const std::string path = dump("S_DB/a.dump", "data");
  ASSERT_TRUE(backup({path}));
  const std::vector<std::string> before = stored_names();
  auto second = make_backup({path});
  EXPECT_TRUE(second->withdraw()) << "there is nothing to take back yet";
  ASSERT_TRUE(second->backup(pool_)) << second->error();
  EXPECT_LT(before.size(), stored_names().size());
  EXPECT_TRUE(second->withdraw());
  EXPECT_EQ(before, stored_names());
  EXPECT_TRUE(second->withdraw());
  EXPECT_EQ(before, stored_names()) << "and no other one's";
}

TEST_F(MTF_Backup_Test, refuses_sources_that_are_no_files)
{
  const std::string file = dump("S_DB/a.dump", "data");
  ASSERT_EQ(0, ::mkfifo((dumps_ + "/pipe").c_str(), 0600));
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{dumps_ + "/missing"}, "No such file"},
      {{file, dumps_ + "/S_DB"}, "it is no regular file"},
      {{dumps_ + "/pipe"}, "it is no regular file"},
      {{file, dump("other/S_DB/a.dump", "data")}, "both would be called S_DB/a.dump"},
      {{}, "there is nothing to store"},
  };
  for (const auto& [sources, says] : cases) {
    EXPECT_FALSE(backup(sources));
    log_.expect(LM_ERROR, says);
    EXPECT_TRUE(stored_names().empty()) << says;
  }
}

TEST_F(MTF_Backup_Test, refuses_a_pool_that_cannot_be_used)
{
  const std::string path = dump("S_DB/a.dump", "data");
  Pool_Info nowhere;
  EXPECT_FALSE(make_backup({path})->backup(nowhere));
  log_.expect(LM_ERROR, "the pool has neither");
  pool_.storage_path += "-missing";
  EXPECT_FALSE(backup({path}));
  log_.expect(LM_ERROR, "cannot use the pool directory");
  pool_.storage_path = dir_ / "pool";
  auto outside = make_backup({path});
  outside->minor_resource_id("../outside");
  EXPECT_FALSE(outside->backup(pool_));
  log_.expect(LM_ERROR, "is not a folder of a pool");
}

TEST_F(MTF_Backup_Test, notices_a_file_that_changes_while_it_is_stored)
{
  const std::string first = dump("S_DB/a.dump", "data"), second = dump("S_DB/b.dump", "data");
  class Changing : public Recording_Handler
  {
  public:
    int notify_event(unsigned, const MTF::Opts&) override
    {
      change_();
      return 0;
    }
    std::function<void()> change_;
  } handler;
  for (const size_t size : {2u, 9u}) {
    dump("S_DB/b.dump", "data");
    handler.change_ = [&] { dump("S_DB/b.dump", std::string(size, 'x')); };
    MTF_Backup backup(&handler, metadata_, nullptr);
    backup.minor_resource_id("m");
    backup.add_source(first);
    backup.add_source(second);
    EXPECT_FALSE(backup.backup(pool_));
    log_.expect(LM_ERROR, "b.dump changed while it was stored");
  }
  // Even between the look at its size and the last byte.
  for (const bool longer : {true, false}) {
    dump("S_DB/a.dump", dump_content(600000));
    handler.change_ = [&] { ASSERT_EQ(0, ::truncate(first.c_str(), longer ? 700000 : 300000)); };
    MTF_Backup backup(&handler, metadata_, nullptr);
    backup.minor_resource_id("m");
    backup.add_source(first);
    EXPECT_FALSE(backup.backup(pool_));
    log_.expect(LM_ERROR, "a.dump changed while it was stored");
  }
}

TEST_F(MTF_Backup_Test, tells_its_progress)
{
  ASSERT_TRUE(
      backup({dump("S_DB/a.dump", dump_content(3000000)), dump("S_DB/b.dump", dump_content(1000000))}));
  ASSERT_GE(handler_.percents_.size(), 10u);
  EXPECT_EQ(0, handler_.percents_.front());
  EXPECT_EQ(100, handler_.percents_.back());
  for (size_t i = 1; i < handler_.percents_.size(); ++i)
    EXPECT_LT(handler_.percents_[i - 1], handler_.percents_[i]) << "only when it changes";
  EXPECT_EQ(4000000u, handler_.a_);
  EXPECT_EQ(4000000u, handler_.b_);
  EXPECT_EQ(metadata_.set_storage_size(), handler_.c_);
  EXPECT_EQ((std::vector<std::string>{"begin a.dump 3000000", "done a.dump 3000000", "begin b.dump 1000000",
                                      "done b.dump 1000000"}),
            handler_.events_);
}

TEST_F(MTF_Backup_Test, canceled_at_any_block_leaves_nothing)
{
  const std::vector<std::string> sources = {dump("S_DB/a.dump", dump_content(900000)),
                                            dump("S_DB/b.dump", "data")};
  unsigned canceled = 0;
  for (const Compression_Method method : {COMPRESSION_NONE, COMPRESSION_ZSTD}) {
    method_ = method;
    for (unsigned after = 0;; ++after) {
      handler_.questions_ = 0;
      handler_.cancel_after_ = after;
      const unsigned posts = actions_->post_runs_;
      auto backup = make_backup(sources);
      backup->seq(method * 10);
      if (backup->backup(pool_))
        break;
      ++canceled;
      EXPECT_TRUE(backup->canceled());
      EXPECT_EQ("", backup->error());
      EXPECT_FALSE(exists(stored(method * 10 + 1)));
      EXPECT_FALSE(exists(stored(method * 10 + 1) + ".partial"));
      // The last question comes after the post-action.
      EXPECT_LE(actions_->post_runs_, posts + 1);
    }
  }
  EXPECT_GE(canceled, 14u);
  EXPECT_EQ(canceled, log_.count(LM_INFO, "was canceled, nothing of it is left"));
}

TEST_F(MTF_Backup_Test, paused_moves_nothing_until_it_goes_on)
{
  Fake_Clock clock;
  handler_.pause_for_ = 30;
  ASSERT_TRUE(backup({dump("S_DB/a.dump", dump_content(900000))}));
  EXPECT_EQ(3000, clock.slept_msec());
}

TEST_F(MTF_Backup_Test, paused_can_be_canceled)
{
  Fake_Clock clock;
  handler_.pause_for_ = ~0u;
  handler_.cancel_after_ = 50;
  auto paused = make_backup({dump("S_DB/a.dump", "data")});
  EXPECT_FALSE(paused->backup(pool_));
  EXPECT_TRUE(paused->canceled());
  EXPECT_TRUE(stored_names().empty());
}

TEST_F(MTF_Backup_Test, a_failing_call_leaves_nothing_visible_and_the_next_run_works)
{
  const std::vector<std::string> sources = {dump("S_DB/a.dump", dump_content(700000)),
                                            dump("S_DB/b.dump", "data")};
  const struct {
    const char* kind;
    int error;
  } faults[] = {{"open", EACCES}, {"read", EIO},  {"write", ENOSPC},        {"fsync", EIO},   {"close", EIO},
                {"rename", EIO},  {"fstat", EIO}, {"fsync_directory", EIO}, {"mkdir", ENOSPC}};
  unsigned failures = 0;
  unsigned long long last = 0;
  log_.allow(LM_ERROR, "The archive could not be written: ");
  for (const auto& fault : faults)
    for (unsigned number = 1;; ++number) {
      ASSERT_LT(number, 100u);
      auto backup = make_backup(sources);
      backup->seq(last);
      bool done, met;
      {
        Fault_File_System faulty;
        faulty.fail(fault.kind, number, fault.error);
        done = backup->backup(pool_);
        met = faulty.met();
      }
      EXPECT_TRUE(done || met) << fault.kind << number << backup->error();
      if (!done) {
        ++failures;
        EXPECT_NE("", backup->error()) << fault.kind << number;
        EXPECT_FALSE(exists(stored(last + 1))) << fault.kind << number;
        auto next = make_backup(sources);
        next->seq(last);
        EXPECT_TRUE(next->backup(pool_)) << fault.kind << number << next->error();
        EXPECT_EQ(last + 1, next->seq());
      }
      ++last;
      if (!met)
        break;
    }
  EXPECT_GE(failures, 12u);
  EXPECT_EQ(2 * last, stored_names().size()) << "no leftovers beside the archives and their side files";
}
