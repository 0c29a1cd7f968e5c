#include "oscar/stream_fifo.h"

#include "base/descriptor.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using kestrel_test::Temp_Dir;
using oscar::Stream_Fifo;

namespace
{
typedef Stream_Fifo::Side Side;
} // namespace

TEST(Stream_Fifo, makes_a_pipe_with_the_mode_and_removes_it)
{
  Temp_Dir dir;
  const std::string path = dir / "pipe";
  const mode_t mask = ::umask(0);
  {
    Stream_Fifo fifo(path);
    ASSERT_TRUE(fifo.create(0640));
    struct stat status;
    ASSERT_EQ(0, ::stat(path.c_str(), &status));
    EXPECT_TRUE(S_ISFIFO(status.st_mode));
    EXPECT_EQ(0640u, status.st_mode & 07777);
  }
  ::umask(mask);
  EXPECT_FALSE(kestrel_test::exists(path));
}

TEST(Stream_Fifo, leaves_a_name_alone_that_it_did_not_make)
{
  Temp_Dir dir;
  const std::string path = dir.write("pipe", "other");
  {
    Stream_Fifo fifo(path);
    EXPECT_FALSE(fifo.create(0640));
    EXPECT_EQ(EEXIST, errno);
  }
  EXPECT_TRUE(kestrel_test::exists(path));
}

TEST(Stream_Fifo, hands_out_descriptors_that_children_do_not_inherit)
{
  Temp_Dir dir;
  Stream_Fifo fifo(dir / "pipe");
  ASSERT_TRUE(fifo.create(0640));
  fifo.begin_open();
  const int other = ::open(fifo.path().c_str(), O_RDWR | O_CLOEXEC);
  const kestrel::Auto_Fd other_end(other);
  const kestrel::Auto_Fd reader(fifo.open_reader());
  ASSERT_GE(reader.get(), 0);
  EXPECT_EQ(FD_CLOEXEC, ::fcntl(reader.get(), F_GETFD));
}

TEST(Stream_Fifo, reports_an_open_that_fails)
{
  Temp_Dir dir;
  Stream_Fifo fifo(dir / "missing");
  fifo.begin_open();
  EXPECT_EQ(-1, fifo.open_writer());
  EXPECT_EQ(ENOENT, errno);
  fifo.release_open(Side::WRITER); // must not block: the opener is past its open
}

TEST(Stream_Fifo, released_reader_finds_end_of_file)
{
  Temp_Dir dir;
  Stream_Fifo fifo(dir / "pipe");
  ASSERT_TRUE(fifo.create(0640));
  for (int round = 0; round < 50; ++round) {
    fifo.begin_open();
    std::thread watcher([&fifo] { fifo.release_open(Side::READER); });
    const kestrel::Auto_Fd reader(fifo.open_reader());
    char c;
    EXPECT_EQ(0, read_write_trait::read(reader.get(), &c, 1));
    watcher.join();
  }
}

TEST(Stream_Fifo, released_writer_finds_nobody_to_write_to)
{
  Temp_Dir dir;
  Stream_Fifo fifo(dir / "pipe");
  ASSERT_TRUE(fifo.create(0640));
  for (int round = 0; round < 50; ++round) {
    fifo.begin_open();
    std::thread watcher([&fifo] { fifo.release_open(Side::WRITER); });
    const kestrel::Auto_Fd writer(fifo.open_writer());
    errno = 0;
    EXPECT_EQ(-1, read_write_trait::write(writer.get(), "x", 1));
    EXPECT_EQ(EPIPE, errno);
    watcher.join();
  }
}

TEST(Stream_Fifo, release_ends_when_the_opener_gives_up)
{
  Temp_Dir dir;
  Stream_Fifo fifo(dir / "pipe");
  ASSERT_TRUE(fifo.create(0640));
  fifo.begin_open();
  std::thread watcher([&fifo] { fifo.release_open(Side::READER); });
  fifo.give_up_open();
  watcher.join();
}

TEST(Stream_Fifo, release_survives_a_fifo_that_is_gone)
{
  Temp_Dir dir;
  Stream_Fifo fifo(dir / "pipe");
  fifo.begin_open();
  std::thread watcher([&fifo] { fifo.release_open(Side::READER); });
  EXPECT_EQ(-1, fifo.open_reader());
  watcher.join();
}
