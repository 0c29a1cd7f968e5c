#include "unit/storage/storage_fixture.h"

#include "support/fault_file_system.h"

#include <cerrno>
#include <unistd.h>

using kestrel_test::exists;
using kestrel_test::Fault_File_System;
using kestrel_test::names_in;
using kestrel_test::read_file;
using kestrel_test::test_content;

namespace
{
class Storage_Faults : public kestrel_test::Storage_Fixture,
                       public testing::WithParamInterface<std::tuple<Compression_Method, const char*>>
{
protected:
  Storage_Faults() { options_.compression_method = std::get<0>(GetParam()); }
  static const char* kind() { return std::get<1>(GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(All, Storage_Faults,
                         testing::Combine(testing::Values(0u, 3u),
                                          testing::Values("open", "read", "write", "fsync", "close", "rename",
                                                          "mkdir", "unlink", "fstat", "stat",
                                                          "fsync_directory")),
                         [](const auto& info) {
                           return std::string(compression_value_to_name(std::get<0>(info.param))) + "_" +
                                  std::get<1>(info.param);
                         });

/// True when the file can be read whole; a file of that name that cannot is a failure of the test.
bool is_whole(bool fetched, const std::string& got, const std::string& content, bool visible)
{
  EXPECT_TRUE(!fetched || got == content);
  EXPECT_EQ(visible, fetched);
  return fetched;
}

TEST_P(Storage_Faults, leave_nothing_half_visible_and_the_next_write_works)
{
  const std::string content = test_content(2100000);
  std::string error;
  std::string got;
  for (unsigned k = 1; k < 200; ++k) {
    SCOPED_TRACE(k);
    const std::string name = "f" + std::to_string(k);
    bool stored;
    bool met;
    {
      Fault_File_System faults;
      faults.fail(kind(), k, EIO);
      stored = store(name, content, error);
      met = faults.met();
    }
    if (!met) {
      EXPECT_TRUE(stored) << error;
      EXPECT_TRUE(k > 1 || std::string(kind()) == "read");
      return;
    }
    if (!stored) {
      EXPECT_NE(std::string::npos, error.find("Input/output error; the storage device reports an error"))
          << error;
      EXPECT_NE(std::string::npos, error.find(pool_)) << error;
      EXPECT_FALSE(exists(stored_path(name)));
    }
    is_whole(fetch(name, got, error), got, content, stored);
    store(name, content);
    is_whole(fetch(name, got, error), got, content, true);
  }
  FAIL() << "the fault was met in every round";
}

TEST_P(Storage_Faults, while_replacing_never_give_a_mixture)
{
  const std::string old_content = test_content(700000, 1);
  const std::string new_content = test_content(700000, 2);
  std::string error;
  std::string got;
  for (unsigned k = 1; k < 200; ++k) {
    SCOPED_TRACE(k);
    store("f", old_content);
    bool stored;
    bool met;
    {
      Fault_File_System faults;
      faults.fail(kind(), k, EIO);
      stored = store("f", new_content, error);
      met = faults.met();
    }
    if (!met)
      return;
    const bool visible = exists(stored_path("f"));
    if (stored)
      is_whole(fetch("f", got, error), got, new_content, true);
    else if (visible)
      is_whole(fetch("f", got, error), got, old_content, true);
  }
  FAIL() << "the fault was met in every round";
}

TEST_P(Storage_Faults, while_everything_keeps_failing_leave_no_finished_file)
{
  const std::string content = test_content(500000);
  std::string error;
  for (unsigned k = 1; k < 60; ++k) {
    SCOPED_TRACE(k);
    const std::string name = "f" + std::to_string(k);
    {
      Fault_File_System faults;
      faults.fail(kind(), k, EIO, true);
      if (store(name, content, error) && !faults.met())
        return;
    }
    std::string got;
    EXPECT_TRUE(!fetch(name, got, error) || got == content);
  }
}

TEST_P(Storage_Faults, while_reading_are_errors_and_never_a_clean_end)
{
  const std::string content = test_content(700000);
  store("f", content);
  std::string error;
  std::string got;
  for (unsigned k = 1; k < 200; ++k) {
    SCOPED_TRACE(k);
    bool fetched;
    bool met;
    {
      Fault_File_System faults;
      faults.fail(kind(), k, EIO);
      fetched = fetch("f", got, error);
      met = faults.met();
    }
    if (fetched)
      EXPECT_TRUE(got == content);
    else
      EXPECT_NE(std::string::npos, error.find("Input/output error")) << error;
    if (!met)
      return;
  }
  FAIL() << "the fault was met in every round";
}

TEST_P(Storage_Faults, while_removing_are_reported_and_removing_again_works)
{
  std::string error;
  for (unsigned k = 1; k < 50; ++k) {
    SCOPED_TRACE(k);
    store("f", "content");
    Client_IO_Ex client;
    ASSERT_TRUE(client.connect(location_, options_));
    bool removed;
    bool met;
    {
      Fault_File_System faults;
      faults.fail(kind(), k, EIO);
      removed = client.remove("f");
      met = faults.met();
    }
    EXPECT_TRUE(removed || std::string(client.error()).find("Input/output error") != std::string::npos);
    EXPECT_TRUE(client.remove("f")) << client.error();
    EXPECT_TRUE(names_in(location_).empty());
    if (!met)
      return;
  }
  FAIL() << "the fault was met in every round";
}

class Storage_Errors : public kestrel_test::Storage_Fixture
{
};

TEST_F(Storage_Errors, say_what_to_do_about_a_full_disk)
{
  std::string error;
  Fault_File_System faults;
  faults.fail("write", 1, ENOSPC, true);
  EXPECT_FALSE(store("f", test_content(100000), error));
  EXPECT_EQ(
      "cannot write " + partial_path("f") +
          ": No space left on device; free space in the pool or use another pool, then run the job again",
      error);
}

TEST_F(Storage_Errors, say_what_to_do_about_a_read_only_pool)
{
  std::string error;
  Fault_File_System faults;
  faults.fail("mkdir", 1, EROFS);
  EXPECT_FALSE(store("f", "x", error));
  EXPECT_EQ("cannot make the folder " + location_ +
                ": Read-only file system; the pool's file system is read-only; mount it for writing",
            error);
}

TEST_F(Storage_Errors, come_back_on_a_later_write_of_a_long_stream)
{
  const std::string piece = test_content(8192);
  Fault_File_System faults;
  faults.fail("write", 1, ENOSPC, true);
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect(location_, options_));
  ASSERT_TRUE(client.open("f", 2, 0, 0));
  unsigned written = 0;
  while (written < 10000 && client.write(piece.data(), 8192))
    ++written;
  // The queue holds 16 MiB; a write beyond it must see the error.
  EXPECT_LE(written, 2 * 2048u + 1);
  EXPECT_NE(std::string::npos, std::string(client.error()).find("No space left on device")) << client.error();
  EXPECT_FALSE(client.write(piece.data(), 8192));
  EXPECT_FALSE(client.close());
  EXPECT_NE(std::string::npos, std::string(client.error()).find("No space left on device")) << client.error();
  EXPECT_TRUE(client.close());
  faults.clear_faults();
  ASSERT_TRUE(client.open("f", 2, 0, 0)) << client.error();
  EXPECT_TRUE(client.write("fine", 4));
  EXPECT_TRUE(client.close()) << client.error();
  EXPECT_EQ("fine", fetch("f"));
}

TEST_F(Storage_Errors, do_not_come_from_short_or_interrupted_writes)
{
  const std::string content = test_content(9 * 1024 * 1024 + 100);
  std::string error;
  {
    Fault_File_System faults;
    faults.shorten_write(1);
    ASSERT_TRUE(store("short", content, error)) << error;
  }
  EXPECT_TRUE(content == fetch("short"));
  {
    Fault_File_System faults;
    faults.fail("write", 2, EINTR);
    ASSERT_TRUE(store("interrupted", content, error)) << error;
  }
  EXPECT_TRUE(content == fetch("interrupted"));
}

TEST_F(Storage_Errors, do_not_come_from_a_file_system_that_refuses_direct_writes)
{
  const std::string content = test_content(9 * 1024 * 1024 + 100);
  std::string error;
  {
    Fault_File_System faults;
    faults.fail("write", 2, EINVAL);
    const bool stored = store("f", content, error);
    // Where the pool cannot be written directly at all, EINVAL is an error like any other.
    if (!stored) {
      EXPECT_NE(std::string::npos, error.find("Invalid argument")) << error;
      return;
    }
  }
  EXPECT_TRUE(content == fetch("f"));
}

TEST_F(Storage_Errors, do_not_come_from_a_file_system_that_refuses_direct_reads)
{
  const std::string content = test_content(5 * 1024 * 1024 + 100);
  store("f", content);
  std::string got;
  std::string error;
  Fault_File_System faults;
  faults.fail("read", 4, EINVAL);
  // Where the file is read through the page cache anyway, EINVAL is an error like any other.
  if (fetch("f", got, error))
    EXPECT_TRUE(content == got);
  else
    EXPECT_NE(std::string::npos, error.find("Invalid argument")) << error;
}
} // namespace
