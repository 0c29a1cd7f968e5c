#include "storage/pool_registry.h"

#include "support/fault_file_system.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>
#include <unistd.h>

namespace
{
using kestrel::Pool_Registry;
using kestrel_test::Fault_File_System;
using kestrel_test::Log_Capture;
using kestrel_test::read_file;
using kestrel_test::Scoped_Env;
using kestrel_test::Temp_Dir;

class Pool_Registry_Test : public testing::Test
{
protected:
  Pool_Info add(const std::string& name)
  {
    Pool_Info pool;
    EXPECT_TRUE(registry_.add(name, dir_.make_dir(name), pool, error_)) << error_;
    return pool;
  }

  std::vector<std::string> names()
  {
    std::vector<Pool_Info> pools;
    EXPECT_TRUE(registry_.list(pools, error_)) << error_;
    std::vector<std::string> result;
    for (const Pool_Info& pool : pools)
      result.push_back(pool.name);
    return result;
  }

  Temp_Dir dir_;
  Pool_Registry registry_{dir_ / "pools.json"};
  Pool_Info info_;
  std::string error_;
};

TEST_F(Pool_Registry_Test, is_empty_before_the_first_pool)
{
  EXPECT_TRUE(names().empty());
  EXPECT_FALSE(registry_.default_pool(info_, error_));
  EXPECT_EQ("there is no pool; add one first", error_);
  EXPECT_FALSE(registry_.find("x", info_, error_));
  EXPECT_FALSE(registry_.remove("x", error_));
  EXPECT_FALSE(registry_.set_default_pool("x", error_));
}

TEST_F(Pool_Registry_Test, finds_pools_by_id_and_name_in_the_order_added)
{
  const Pool_Info b = add("b");
  const Pool_Info a = add("a");
  EXPECT_EQ((std::vector<std::string>{"b", "a"}), names());
  EXPECT_NE(a.pool_id, b.pool_id);
  Pool_Registry again(dir_ / "pools.json");
  ASSERT_TRUE(again.find(a.pool_id, info_, error_)) << error_;
  EXPECT_EQ("a", info_.name);
  EXPECT_EQ(dir_ / "a", info_.storage_path);
  ASSERT_TRUE(again.find("b", info_, error_)) << error_;
  EXPECT_EQ(b.pool_id, info_.pool_id);
}

TEST_F(Pool_Registry_Test, takes_the_first_pool_as_default_until_told_otherwise)
{
  add("one");
  add("two");
  add("three");
  ASSERT_TRUE(registry_.default_pool(info_, error_));
  EXPECT_EQ("one", info_.name);
  ASSERT_TRUE(registry_.set_default_pool("two", error_));
  ASSERT_TRUE(registry_.default_pool(info_, error_));
  EXPECT_EQ("two", info_.name);
  ASSERT_TRUE(registry_.remove("two", error_));
  EXPECT_FALSE(registry_.default_pool(info_, error_));
  EXPECT_EQ("no pool is the default; name a pool or choose a default one", error_);
  ASSERT_TRUE(registry_.set_default_pool("three", error_));
  ASSERT_TRUE(registry_.remove("three", error_));
  ASSERT_TRUE(registry_.default_pool(info_, error_));
  EXPECT_EQ("one", info_.name);
}

TEST_F(Pool_Registry_Test, refuses_names_that_are_not_sane)
{
  const std::string path = dir_.make_dir("pool");
  for (const std::string& name :
       {std::string(), std::string("a b"), std::string("a/b"), std::string("-a"), std::string(".a"),
        std::string("a\n"), std::string("\xc3\xa4"), std::string(65, 'a'),
        std::string("01234567-89ab-cdef-0123-456789abcdef")}) {
    EXPECT_FALSE(registry_.add(name, path, info_, error_)) << name;
    EXPECT_NE(std::string::npos, error_.find("cannot be the name of a pool")) << error_;
  }
  EXPECT_TRUE(registry_.add(std::string(64, 'a'), path, info_, error_)) << error_;
}

TEST_F(Pool_Registry_Test, refuses_a_second_pool_of_one_name_or_directory)
{
  add("one");
  EXPECT_FALSE(registry_.add("one", dir_.make_dir("other"), info_, error_));
  EXPECT_EQ("there is already a pool named one", error_);
  ASSERT_EQ(0, ::symlink((dir_ / "one").c_str(), (dir_ / "link").c_str()));
  for (const std::string& path : {dir_ / "one", dir_ / "one/", dir_ / "x/../one/.", dir_ / "link"}) {
    EXPECT_FALSE(registry_.add("two", path, info_, error_)) << path;
    EXPECT_NE(std::string::npos, error_.find("already belongs to the pool one")) << error_;
  }
}

TEST_F(Pool_Registry_Test, refuses_what_is_no_directory)
{
  EXPECT_FALSE(registry_.add("a", "", info_, error_));
  EXPECT_FALSE(registry_.add("a", "/", info_, error_));
  EXPECT_FALSE(registry_.add("a", "/x/..", info_, error_));
  EXPECT_FALSE(registry_.add("a", dir_ / "absent", info_, error_));
  EXPECT_NE(std::string::npos, error_.find((dir_ / "absent") + ": No such file or directory")) << error_;
  EXPECT_FALSE(registry_.add("a", dir_.write("file", ""), info_, error_));
  EXPECT_FALSE(registry_.add("a", dir_ / "a\nb", info_, error_));
}

TEST_F(Pool_Registry_Test, makes_a_relative_path_absolute)
{
  char before[4096];
  ASSERT_NE(nullptr, ::getcwd(before, sizeof before));
  const std::string path = dir_.make_dir("sub/pool");
  ASSERT_EQ(0, ::chdir((dir_ / "sub").c_str()));
  const bool added = registry_.add("a", "./pool/", info_, error_);
  ASSERT_EQ(0, ::chdir(before));
  ASSERT_TRUE(added) << error_;
  EXPECT_EQ(path, info_.storage_path);
}

TEST_F(Pool_Registry_Test, keeps_the_files_of_a_removed_pool)
{
  const Pool_Info pool = add("a");
  dir_.write("a/file", "x");
  ASSERT_TRUE(registry_.remove(pool.pool_id, error_)) << error_;
  EXPECT_TRUE(names().empty());
  EXPECT_EQ("x", read_file(dir_ / "a/file"));
}

TEST_F(Pool_Registry_Test, loses_nothing_when_many_add_at_once)
{
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    const std::string name = "pool" + std::to_string(i);
    const std::string path = dir_.make_dir(name);
    threads.emplace_back([this, name, path] {
      Pool_Registry own(dir_ / "pools.json");
      Pool_Info pool;
      std::string error;
      EXPECT_TRUE(own.add(name, path, pool, error)) << error;
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(8u, names().size());
}

TEST_F(Pool_Registry_Test, keeps_the_old_list_when_storing_fails_at_any_step)
{
  add("one");
  const std::string path = dir_.make_dir("two");
  for (const char* kind : {"write", "fsync", "close", "rename", "read"}) {
    Fault_File_System faults;
    faults.fail(kind, 1, ENOSPC, true);
    EXPECT_FALSE(registry_.add("two", path, info_, error_)) << kind;
    EXPECT_NE(std::string::npos, error_.find("No space left on device")) << error_;
    faults.clear_faults();
    EXPECT_EQ(std::vector<std::string>{"one"}, names()) << kind;
  }
  EXPECT_TRUE(registry_.add("two", path, info_, error_)) << error_;
}

TEST_F(Pool_Registry_Test, refuses_a_damaged_or_newer_list_and_leaves_it_alone)
{
  const std::string path = dir_.make_dir("a");
  for (const std::string& text :
       {std::string(), std::string("{"), std::string("[]"), std::string("{}"),
        std::string("{\"version\":2,\"pools\":[]}"), std::string("{\"version\":1}"),
        std::string("{\"version\":1,\"pools\":{}}"), std::string("{\"version\":1,\"pools\":[{}]}"),
        std::string("{\"version\":1,\"pools\":[1]}"),
        std::string("{\"version\":1,\"pools\":[{\"id\":1,\"name\":\"a\",\"path\":\"/a\"}]}")}) {
    dir_.write("pools.json", text);
    std::vector<Pool_Info> pools;
    EXPECT_FALSE(registry_.list(pools, error_)) << text;
    EXPECT_NE(std::string::npos,
              error_.find("the list of pools " + (dir_ / "pools.json") + " cannot be used"))
        << error_;
    EXPECT_FALSE(registry_.add("a", path, info_, error_)) << text;
    EXPECT_EQ(text, read_file(dir_ / "pools.json"));
  }
}

class Get_Pool_Info : public testing::Test
{
protected:
  ~Get_Pool_Info() override { kestrel::set_pool_finder(nullptr); }

  bool get(const std::string& id)
  {
    return get_pool_info(id, "device", info_, false, 0, nullptr, true, nullptr, nullptr, false);
  }

  Temp_Dir root_;
  Scoped_Env env_{"KESTREL_ROOT", root_.path()};
  Pool_Info info_;
};

TEST_F(Get_Pool_Info, finds_a_pool_of_this_host_and_carries_the_device)
{
  Pool_Info added;
  std::string error;
  ASSERT_TRUE(Pool_Registry().add("main", root_.make_dir("pool"), added, error)) << error;
  ASSERT_TRUE(get(added.pool_id));
  EXPECT_EQ(added.pool_id, info_.pool_id);
  EXPECT_EQ("device", info_.device_id);
  EXPECT_EQ(root_ / "pool", info_.storage_path);
  Client_IO_Base::Options options;
  ASSERT_TRUE(set_options_by_pool(options, info_));
  EXPECT_EQ(root_ / "pool", options.storage_path);
}

TEST_F(Get_Pool_Info, fails_with_one_line_for_an_unknown_or_empty_id)
{
  Log_Capture log;
  info_.name = "untouched";
  EXPECT_FALSE(get("nobody"));
  log.expect(LM_ERROR, "there is no pool \"nobody\"");
  EXPECT_FALSE(get(""));
  log.expect(LM_ERROR, "no pool is named");
  EXPECT_EQ("untouched", info_.name);
}

TEST_F(Get_Pool_Info, asks_the_finder_of_the_host)
{
  Log_Capture log;
  kestrel::set_pool_finder([](const std::string& id, Pool_Info& info, std::string& error) {
    if (id == "throws")
      throw std::runtime_error("the finder broke");
    error = "the server is away";
    info.pool_id = id;
    info.host = "server";
    return id == "remote";
  });
  ASSERT_TRUE(get("remote"));
  EXPECT_EQ("server", info_.host);
  EXPECT_EQ("device", info_.device_id);
  EXPECT_FALSE(get("other"));
  log.expect(LM_ERROR, "the server is away");
  EXPECT_FALSE(get("throws"));
  log.expect(LM_ERROR, "the finder broke");
}

TEST(Set_Options_By_Pool, refuses_a_pool_without_an_address)
{
  Client_IO_Base::Options options;
  options.storage_path = "/before";
  EXPECT_FALSE(set_options_by_pool(options, Pool_Info()));
  EXPECT_EQ("/before", options.storage_path);
  Pool_Info remote;
  remote.host = "server";
  remote.port = 4711;
  remote.tls = true;
  remote.back_end = "server";
  ASSERT_TRUE(set_options_by_pool(options, remote));
  EXPECT_EQ("server", options.host);
  EXPECT_EQ(4711, options.port);
  EXPECT_TRUE(options.tls);
  EXPECT_EQ("server", options.back_end);
  EXPECT_EQ("", options.storage_path);
}
} // namespace
