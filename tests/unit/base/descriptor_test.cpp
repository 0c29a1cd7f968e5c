#include "base/descriptor.h"

#include "base/ignore_result.h"
#include "base/scope_guard.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

using kestrel::Auto_Fd;

namespace
{
bool is_open(int fd)
{
  return ::fcntl(fd, F_GETFD) >= 0;
}
} // namespace

TEST(Read_Write_Trait, moves_whole_counts_over_a_pipe)
{
  Auto_Fd reader;
  Auto_Fd writer;
  ASSERT_EQ(0, kestrel::make_pipe(reader, writer));
  const std::string data(1000000, 'x');
  std::thread thread([&] {
    EXPECT_EQ(1000000, read_write_trait::write_n(writer.get(), data.data(), data.size()));
    writer.reset();
  });
  std::string got(2000000, '\0');
  EXPECT_EQ(600000, read_write_trait::read_n(reader.get(), &got[0], 600000));
  EXPECT_EQ(400000, read_write_trait::read_n(reader.get(), &got[600000], 1400000))
      << "the count so far at end of file";
  EXPECT_EQ(0, read_write_trait::read_n(reader.get(), &got[0], 1));
  thread.join();
  EXPECT_EQ(data, got.substr(0, 1000000));
}

TEST(Read_Write_Trait, gives_errors_back)
{
  char byte = 'x';
  errno = 0;
  EXPECT_GT(0, read_write_trait::read_n(-1, &byte, 1));
  EXPECT_EQ(EBADF, errno);
  EXPECT_GT(0, read_write_trait::write_n(-1, &byte, 1));
  EXPECT_EQ(0, read_write_trait::read_n(-1, &byte, 0));
  Auto_Fd reader;
  Auto_Fd writer;
  ASSERT_EQ(0, kestrel::make_pipe(reader, writer));
  reader.reset();
  EXPECT_GT(0, read_write_trait::write_n(writer.get(), &byte, 1));
  EXPECT_EQ(EPIPE, errno);
}

TEST(Read_Write_Trait, repeats_what_a_signal_interrupted)
{
  struct sigaction action = {};
  struct sigaction previous;
  action.sa_handler = [](int) {};
  ASSERT_EQ(0, ::sigaction(SIGUSR1, &action, &previous));
  Auto_Fd reader;
  Auto_Fd writer;
  ASSERT_EQ(0, kestrel::make_pipe(reader, writer));
  const pthread_t self = ::pthread_self();
  std::thread thread([&] {
    for (int i = 0; i < 5; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      ::pthread_kill(self, SIGUSR1);
    }
    kestrel::ignore_result(::write(writer.get(), "ab", 2), "the reader fails then");
  });
  char text[2];
  EXPECT_EQ(2, read_write_trait::read_n(reader.get(), text, 2));
  thread.join();
  ::sigaction(SIGUSR1, &previous, nullptr);
}

TEST(Auto_Closer, closes_at_the_end_of_the_scope_and_keeps_errno)
{
  int fd;
  {
    Auto_Fd file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    fd = file.get();
    ASSERT_TRUE(is_open(fd));
    errno = ENOSPC;
  }
  EXPECT_EQ(ENOSPC, errno);
  EXPECT_FALSE(is_open(fd));
}

TEST(Auto_Closer, can_be_reset_and_released)
{
  Auto_Fd file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  const int first = file.get();
  file.reset(first);
  EXPECT_TRUE(is_open(first)) << "a reset to itself is no close";
  file.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_FALSE(is_open(first));
  const int second = file.release();
  EXPECT_EQ(-1, file.get());
  EXPECT_TRUE(is_open(second));
  ::close(second);
}

TEST(Make_Pipe, is_close_on_exec_and_above_the_standard_streams)
{
  Auto_Fd reader;
  Auto_Fd writer;
  ASSERT_EQ(0, kestrel::make_pipe(reader, writer));
  for (int fd : {reader.get(), writer.get()}) {
    EXPECT_GT(fd, 2);
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(fd, F_GETFD));
  }
}

TEST(Scope_Guard, runs_unless_cancelled_in_reverse_order)
{
  std::string order;
  {
    kestrel::Scope_Guard first([&] { order += "1"; });
    kestrel::Scope_Guard second([&] { order += "2"; });
    kestrel::Scope_Guard third([&] { order += "3"; });
    second.cancel();
  }
  EXPECT_EQ("31", order);
}
