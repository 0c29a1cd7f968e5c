#include "storage/pool_mark.h"

#include "storage/directory_back_end.h"
#include "storage/pool_registry.h"
#include "support/fault_file_system.h"
#include "support/unmounted.h"
#include "unit/storage/storage_fixture.h"

#include <cerrno>
#include <filesystem>
#include <unistd.h>

using kestrel::check_pool_mark;
using kestrel::Directory_Back_End;
using kestrel::POOL_MARK;
using kestrel::Pool_Registry;
using kestrel::set_pool_mark;
using kestrel_test::exists;
using kestrel_test::Fault_File_System;
using kestrel_test::names_in;
using kestrel_test::read_file;
using kestrel_test::Unmounted;

namespace
{
class Pool_Mark : public kestrel_test::Storage_Fixture
{
protected:
  Pool_Mark() { options_.pool_marked = true; }

  std::string mark() const { return pool_ + "/" + POOL_MARK; }
  std::string missing() const
  {
    return "cannot use the pool directory " + pool_ + ": its mark " + mark() +
           " is missing; mount the pool's file system (only if this directory does hold the pool, set the "
           "mark again: \"touch " +
           mark() + "\")";
  }

  std::string error_;
  std::string content_;
};

TEST_F(Pool_Mark, lets_the_pool_be_used_while_it_is_there)
{
  ASSERT_TRUE(set_pool_mark(pool_, error_)) << error_;
  store("f", "content");
  {
    const Unmounted unmounted(pool_);
    EXPECT_FALSE(store("g", "other", error_));
    EXPECT_EQ(missing(), error_);
    EXPECT_FALSE(fetch("f", content_, error_));
    EXPECT_EQ(missing(), error_);
  }
  EXPECT_EQ("content", fetch("f"));
  store("g", "other");
}

TEST_F(Pool_Mark, is_looked_for_by_every_call_of_a_connection)
{
  ASSERT_TRUE(set_pool_mark(pool_, error_)) << error_;
  store("f", "content");
  Directory_Back_End back_end;
  ASSERT_TRUE(back_end.connect(location_, options_, error_)) << error_;
  {
    const Unmounted unmounted(pool_);
    EXPECT_FALSE(back_end.create("g", true, error_));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(missing(), error_);
    error_.clear();
    EXPECT_FALSE(back_end.open("f", error_));
    EXPECT_EQ(EHOSTUNREACH, errno) << "nothing is known of the file";
    EXPECT_EQ(missing(), error_);
    error_.clear();
    EXPECT_FALSE(back_end.remove("f", error_)) << "the file may well be there";
    EXPECT_EQ(missing(), error_);
    EXPECT_FALSE(back_end.connect(location_, options_, error_));
  }
  EXPECT_TRUE(back_end.open("f", error_)) << error_;
  EXPECT_TRUE(back_end.remove("f", error_)) << error_;
  EXPECT_FALSE(exists(stored_path("f")));
}

TEST_F(Pool_Mark, does_not_let_an_absent_directory_be_made)
{
  ASSERT_TRUE(set_pool_mark(pool_, error_)) << error_;
  Directory_Back_End back_end;
  ASSERT_TRUE(back_end.connect(location_, options_, error_)) << error_;
  std::filesystem::remove_all(pool_);
  EXPECT_FALSE(back_end.create("f", true, error_));
  EXPECT_EQ(missing(), error_);
  EXPECT_FALSE(back_end.connect(location_, options_, error_));
  EXPECT_FALSE(exists(pool_));
}

TEST_F(Pool_Mark, may_be_an_empty_file_that_an_operator_made)
{
  dir_.write(std::string("pool/") + POOL_MARK, "");
  EXPECT_TRUE(check_pool_mark(pool_, error_)) << error_;
  store("f", "content");
  ASSERT_TRUE(set_pool_mark(pool_, error_)) << error_;
  EXPECT_EQ("", read_file(mark())) << "what is there is kept";
}

TEST_F(Pool_Mark, is_not_looked_for_in_a_pool_that_has_none)
{
  options_.pool_marked = false;
  store("f", "content");
  EXPECT_EQ("content", fetch("f"));
  EXPECT_EQ(std::vector<std::string>{"source"}, names_in(pool_));
  Pool_Info pool;
  pool.storage_path = pool_;
  EXPECT_TRUE(check_pool_mark(pool, error_));
  pool.marked = true;
  EXPECT_FALSE(check_pool_mark(pool, error_));
  pool.back_end = "server";
  EXPECT_TRUE(check_pool_mark(pool, error_)) << "its directory lies on another host";
}

TEST_F(Pool_Mark, is_a_plain_file)
{
  dir_.make_dir(std::string("pool/") + POOL_MARK);
  EXPECT_FALSE(check_pool_mark(pool_, error_));
  EXPECT_NE(std::string::npos, error_.find(mark())) << error_;
  EXPECT_FALSE(set_pool_mark(pool_, error_));
  EXPECT_NE(std::string::npos, error_.find(mark())) << error_;
}

TEST_F(Pool_Mark, that_cannot_be_looked_for_is_not_taken_to_be_missing)
{
  ASSERT_TRUE(set_pool_mark(pool_, error_)) << error_;
  Fault_File_System faults;
  faults.fail("stat", 1, ESTALE);
  EXPECT_FALSE(check_pool_mark(pool_, error_));
  EXPECT_EQ("cannot look for the mark of the pool " + mark() +
                ": Stale file handle; check the connection to the file server that holds the pool",
            error_);
}

class Marked_Pools : public testing::Test
{
protected:
  bool marked_in(const std::string& directory) { return exists(directory + "/" + POOL_MARK); }
  /// The pools of the list that want a mark which is not there.
  unsigned unusable(const Pool_Registry& registry)
  {
    std::vector<Pool_Info> pools;
    EXPECT_TRUE(registry.list(pools, error_)) << error_;
    unsigned number = 0;
    for (const Pool_Info& pool : pools) {
      EXPECT_TRUE(pool.marked) << pool.name;
      number += check_pool_mark(pool, error_) ? 0 : 1;
    }
    return number;
  }

  kestrel_test::Temp_Dir dir_;
  Pool_Registry registry_{dir_ / "pools.json"};
  Pool_Info info_;
  std::string error_;
};

TEST_F(Marked_Pools, are_remembered_as_such)
{
  ASSERT_TRUE(registry_.add("main", dir_.make_dir("pool"), info_, error_)) << error_;
  EXPECT_TRUE(info_.marked);
  EXPECT_TRUE(marked_in(dir_ / "pool"));
  Pool_Info found;
  ASSERT_TRUE(Pool_Registry(dir_ / "pools.json").find("main", found, error_)) << error_;
  EXPECT_TRUE(found.marked);
  Client_IO_Base::Options options;
  ASSERT_TRUE(set_options_by_pool(options, found));
  EXPECT_TRUE(options.pool_marked);
}

TEST_F(Marked_Pools, share_a_directory_with_those_of_another_list)
{
  Pool_Registry other(dir_ / "other.json");
  ASSERT_TRUE(registry_.add("main", dir_.make_dir("pool"), info_, error_)) << error_;
  const std::string text = read_file(dir_ / "pool/" + POOL_MARK);
  ASSERT_TRUE(other.add("theirs", dir_ / "pool", info_, error_)) << error_;
  EXPECT_TRUE(info_.marked);
  EXPECT_EQ(text, read_file(dir_ / "pool/" + POOL_MARK));
  // Forgotten here, the directory is still theirs, and may be added again.
  ASSERT_TRUE(registry_.remove("main", error_)) << error_;
  EXPECT_TRUE(check_pool_mark(info_, error_)) << error_;
  ASSERT_TRUE(registry_.add("main", dir_ / "pool", info_, error_)) << error_;
  EXPECT_TRUE(info_.marked);
}

TEST_F(Marked_Pools, do_not_make_those_of_an_older_release_marked_ones)
{
  const std::string pool = dir_.make_dir("old");
  dir_.write("pools.json", "{\"version\":1,\"default\":\"o\",\"pools\":[{\"id\":\"o\",\"name\":\"old\",\"path\":\"" +
                               pool + "\"}]}");
  ASSERT_TRUE(registry_.add("new", dir_.make_dir("new"), info_, error_)) << error_;
  ASSERT_TRUE(registry_.find("old", info_, error_)) << error_;
  EXPECT_FALSE(info_.marked);
  EXPECT_FALSE(marked_in(pool));
}

TEST_F(Marked_Pools, are_those_that_can_be_written)
{
  {
    Fault_File_System faults;
    faults.fail("write", 1, EROFS);
    ASSERT_TRUE(registry_.add("main", dir_.make_dir("pool"), info_, error_)) << error_;
  }
  EXPECT_FALSE(info_.marked);
  EXPECT_EQ("", error_);
  EXPECT_FALSE(marked_in(dir_ / "pool"));
}

TEST_F(Marked_Pools, never_lack_their_mark_when_adding_them_fails)
{
  for (const char* kind : {"open", "write", "fsync", "close", "rename", "stat", "fsync_directory"}) {
    unsigned k = 0;
    for (bool met = true; met;) {
      SCOPED_TRACE(kind + std::to_string(++k));
      ASSERT_LT(k, 50u) << "the fault was met in every round";
      const std::string name = kind + std::to_string(k);
      const std::string path = dir_.make_dir(name);
      // With a pool in the list, so that there is something to lose.
      Pool_Registry registry(dir_ / (name + ".json"));
      ASSERT_TRUE(registry.add("first", dir_.make_dir(name + "_first"), info_, error_)) << error_;
      bool added = false;
      {
        Fault_File_System faults;
        faults.fail(kind, k, EIO);
        added = registry.add(name, path, info_, error_);
        met = faults.met();
      }
      EXPECT_TRUE(met || added) << error_;
      EXPECT_EQ(0u, unusable(registry));
      EXPECT_TRUE(registry.find("first", info_, error_)) << error_;
      EXPECT_TRUE(!added || marked_in(path));
      // What is left of a failed attempt is in nobody's way, unless it was stored after all.
      if (!added && !registry.find(name, info_, error_)) {
        ASSERT_TRUE(registry.add(name, path, info_, error_)) << error_;
      }
      EXPECT_TRUE(marked_in(path));
    }
    EXPECT_LT(1u, k) << kind;
  }
}
} // namespace
