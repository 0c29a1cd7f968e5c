#include "base/durable_file.h"

#include "base/file_lock.h"
#include "support/fault_file_system.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <dirent.h>
#include <sys/stat.h>

using kestrel_test::Fault_File_System;
using kestrel_test::read_file;
using kestrel_test::Temp_Dir;

namespace
{
unsigned entries_of(const std::string& directory)
{
  unsigned count = 0;
  DIR* const stream = ::opendir(directory.c_str());
  while (const dirent* entry = ::readdir(stream))
    count += entry->d_name[0] != '.';
  ::closedir(stream);
  return count;
}
} // namespace

TEST(Write_File_Durably, replaces_a_file_as_a_whole)
{
  Temp_Dir dir;
  std::string error;
  ASSERT_TRUE(kestrel::write_file_durably(dir / "file", "first", 0600, error)) << error;
  ASSERT_TRUE(kestrel::write_file_durably(dir / "file", "second", 0600, error)) << error;
  EXPECT_EQ("second", read_file(dir / "file"));
  struct stat status;
  ASSERT_EQ(0, ::stat((dir / "file").c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 07777);
  EXPECT_EQ(1u, entries_of(dir.path()));
}

TEST(Write_File_Durably, flushes_the_data_before_the_name_and_then_the_directory)
{
  Temp_Dir dir;
  Fault_File_System files;
  std::string error;
  ASSERT_TRUE(kestrel::write_file_durably(dir / "file", "data", 0600, error)) << error;
  EXPECT_EQ(1u, files.count("fsync"));
  EXPECT_EQ(1u, files.count("rename"));
  EXPECT_EQ(1u, files.count("fsync_directory"));
}

TEST(Write_File_Durably, keeps_the_old_file_and_no_leftover_whichever_call_fails)
{
  for (const char* kind : {"open", "write", "fsync", "close", "rename"}) {
    Temp_Dir dir;
    dir.write("file", "old");
    Fault_File_System files;
    files.fail(kind, 1, ENOSPC);
    std::string error;
    EXPECT_FALSE(kestrel::write_file_durably(dir / "file", "new", 0600, error)) << kind;
    EXPECT_NE(std::string::npos, error.find("No space left on device")) << error;
    EXPECT_EQ("old", read_file(dir / "file")) << kind;
    EXPECT_EQ(1u, entries_of(dir.path())) << kind;
    EXPECT_TRUE(kestrel::write_file_durably(dir / "file", "new", 0600, error)) << kind << error;
    EXPECT_EQ("new", read_file(dir / "file"));
  }
}

TEST(Write_File_Durably, says_when_the_name_may_be_lost_in_a_power_failure)
{
  Temp_Dir dir;
  Fault_File_System files;
  files.fail("fsync_directory", 1, EIO);
  std::string error;
  EXPECT_FALSE(kestrel::write_file_durably(dir / "file", "new", 0600, error));
  EXPECT_NE(std::string::npos, error.find(dir.path())) << error;
}

TEST(Write_File_Durably, goes_on_after_short_and_interrupted_writes)
{
  Temp_Dir dir;
  Fault_File_System files;
  files.shorten_write(1);
  files.fail("write", 2, EINTR);
  std::string error;
  const std::string data(100000, 'x');
  ASSERT_TRUE(kestrel::write_file_durably(dir / "file", data, 0600, error)) << error;
  EXPECT_TRUE(files.met());
  EXPECT_EQ(data, read_file(dir / "file"));
}

TEST(Read_Whole_File, tells_a_missing_file_from_one_that_cannot_be_read)
{
  Temp_Dir dir;
  std::string data = "before";
  std::string error;
  EXPECT_FALSE(kestrel::read_whole_file(dir / "none", data, error));
  EXPECT_EQ(ENOENT, errno);
  dir.write("file", std::string(100000, 'x'));
  {
    Fault_File_System files;
    files.fail("read", 2, EIO);
    EXPECT_FALSE(kestrel::read_whole_file(dir / "file", data, error));
    EXPECT_EQ(EIO, errno);
  }
  EXPECT_FALSE(kestrel::read_whole_file(dir / "file", data, error, 99999));
  EXPECT_EQ(EFBIG, errno);
  EXPECT_EQ("before", data);
  EXPECT_TRUE(kestrel::read_whole_file(dir / "file", data, error, 100000)) << error;
  EXPECT_EQ(std::string(100000, 'x'), data);
}

TEST(File_Lock, excludes_a_second_holder_until_unlocked)
{
  Temp_Dir dir;
  kestrel::File_Lock first;
  kestrel::File_Lock second;
  EXPECT_TRUE(first.lock(dir / "lock"));
  EXPECT_TRUE(first.lock(dir / "lock"));
  EXPECT_TRUE(first.locked());
  EXPECT_FALSE(second.try_lock(dir / "lock"));
  EXPECT_EQ(EWOULDBLOCK, errno);
  EXPECT_FALSE(second.locked());
  first.unlock();
  EXPECT_TRUE(second.try_lock(dir / "lock"));
  EXPECT_FALSE(first.lock(dir / "no/such/directory"));
  EXPECT_EQ(ENOENT, errno);
}
