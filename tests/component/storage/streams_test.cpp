#include "storage/client_io.h"

#include "support/clocks.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{
using kestrel_test::Temp_Dir;

const unsigned PIECE = 8192;

class Streams : public testing::Test
{
protected:
  Streams() { options_.storage_path = dir_.make_dir("pool"); }

  std::string location() const { return options_.storage_path + "/s"; }

  /// What the work takes by the product's clock. Only the limits' own pauses move it here, so a busy machine
  /// changes nothing.
  double seconds(const std::function<void()>& work)
  {
    const int64_t begin = clock_.monotonic_msec();
    work();
    return static_cast<double>(clock_.monotonic_msec() - begin) / 1000;
  }

  kestrel_test::Fake_Clock clock_;
  Temp_Dir dir_;
  Client_IO_Base::Options options_;
};

/// Pieces that differ and compress to about a half.
class Piece_Maker
{
public:
  explicit Piece_Maker(unsigned seed) : random_(seed), piece_(PIECE, 'x') {}
  const std::string& next()
  {
    for (size_t i = 0; i < PIECE; i += 8) {
      const unsigned word = random_();
      std::memcpy(&piece_[i], &word, 4);
    }
    return piece_;
  }

private:
  std::mt19937 random_;
  std::string piece_;
};

bool store(const std::string& location, const Client_IO_Base::Options& options, const std::string& name,
           unsigned seed, unsigned pieces, std::string& error)
{
  Client_IO_Ex client;
  Piece_Maker maker(seed);
  bool good = client.connect(location, options) && client.open(name, 2, 0, 0);
  for (unsigned i = 0; good && i < pieces; ++i)
    good = client.write(maker.next().data(), PIECE);
  good = good && client.close();
  error = client.error();
  return good;
}

bool verify(const std::string& location, const Client_IO_Base::Options& options, const std::string& name,
            unsigned seed, unsigned pieces, std::string& error)
{
  Client_IO_Ex client;
  Piece_Maker maker(seed);
  char buffer[PIECE];
  bool good = client.connect(location, options) && client.open(name, 1, 0, 0);
  for (unsigned i = 0; good && i < pieces; ++i)
    good = client.read(buffer, PIECE) == static_cast<int>(PIECE) &&
           maker.next().compare(0, PIECE, buffer, PIECE) == 0;
  good = good && client.read(buffer, PIECE) == 0;
  error = client.error();
  return good;
}

TEST_F(Streams, hold_their_rate_limits)
{
  // 1.5 MB at 1 MB/s in each direction, stored as it is, so both take a second and a half.
  const unsigned pieces = 192;
  const double expected = pieces * PIECE / 1048576.0;
  std::string error;
  options_.rate_limits = Rate_Limits(1048576, 0);
  const double stored =
      seconds([&] { ASSERT_TRUE(store(location(), options_, "f", 1, pieces, error)) << error; });
  EXPECT_GE(stored, expected * 0.95);
  EXPECT_LE(stored, expected * 1.05);
  options_.rate_limits = Rate_Limits(0, 1048576);
  const double read =
      seconds([&] { ASSERT_TRUE(verify(location(), options_, "f", 1, pieces, error)) << error; });
  EXPECT_GE(read, expected * 0.95);
  EXPECT_LE(read, expected * 1.05);
}

TEST_F(Streams, limit_the_stored_bytes_of_a_compressed_file)
{
  options_.compression_method = COMPRESSION_ZSTD;
  options_.rate_limits = Rate_Limits(1048576, 1048576);
  std::string error;
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect(location(), options_));
  ASSERT_TRUE(client.open("f", 2, 0, 0));
  const double stored = seconds([&] {
    Piece_Maker maker(1);
    for (unsigned i = 0; i < 256; ++i)
      ASSERT_TRUE(client.write(maker.next().data(), PIECE));
    ASSERT_TRUE(client.close()) << client.error();
  });
  const double expected = static_cast<double>(client.storage_size()) / 1048576.0;
  EXPECT_LT(client.storage_size(), client.original_size());
  EXPECT_GE(stored, expected * 0.95);
  EXPECT_LE(stored, expected * 1.05);
  const double read =
      seconds([&] { ASSERT_TRUE(verify(location(), options_, "f", 1, 256, error)) << error; });
  EXPECT_GE(read, expected * 0.95);
  EXPECT_LE(read, expected * 1.05);
}

TEST_F(Streams, let_a_slow_limited_reader_go_at_once)
{
  std::string error;
  ASSERT_TRUE(store(location(), options_, "f", 1, 100, error)) << error;
  options_.rate_limits = Rate_Limits(0, 1000);
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect(location(), options_));
  ASSERT_TRUE(client.open("f", 1, 0, 0));
  EXPECT_LT(seconds([&] { EXPECT_TRUE(client.close()); }), 1.0);
}

TEST_F(Streams, give_a_limited_writer_control_back_within_a_fraction_of_a_second)
{
  options_.rate_limits = Rate_Limits(100 * 1024, 0);
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect(location(), options_));
  ASSERT_TRUE(client.open("f", 2, 0, 0));
  Piece_Maker maker(1);
  double longest = 0;
  for (unsigned i = 0; i < 16; ++i)
    longest = std::max(longest, seconds([&] { ASSERT_TRUE(client.write(maker.next().data(), PIECE)); }));
  EXPECT_LT(longest, 0.5);
  EXPECT_LT(seconds([&] { EXPECT_TRUE(client.close()); }), 1.0);
  EXPECT_TRUE(client.remove("f"));
}

TEST_F(Streams, work_side_by_side)
{
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < 8; ++i) {
    threads.emplace_back([this, i] {
      Client_IO_Base::Options options = options_;
      options.compression_method = i % 4;
      options.compression_workers = 2;
      std::string error;
      const std::string name = "f" + std::to_string(i);
      for (unsigned round = 0; round < 3; ++round) {
        EXPECT_TRUE(store(location(), options, name, i + round, 600 + i, error)) << error;
        EXPECT_TRUE(verify(location(), options, name, i + round, 600 + i, error)) << error;
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
}

TEST_F(Streams, exclude_each_other_on_one_name_and_leave_one_whole_file)
{
  std::vector<std::thread> threads;
  std::atomic<unsigned> stored{0};
  for (unsigned i = 0; i < 8; ++i) {
    threads.emplace_back([this, i, &stored] {
      std::string error;
      for (unsigned round = 0; round < 10; ++round) {
        if (store(location(), options_, "f", i, 100, error))
          ++stored;
        else
          EXPECT_NE(std::string::npos, error.find("writing this file")) << error;
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_GT(stored, 0u);
  unsigned whole = 0;
  std::string error;
  for (unsigned i = 0; i < 8; ++i)
    whole += verify(location(), options_, "f", i, 100, error) ? 1 : 0;
  EXPECT_EQ(1u, whole) << error;
}

/// Runs the work in a child process and returns its peak memory in KiB, or -1 when the work failed.
long peak_kib(const std::function<bool()>& work)
{
  const pid_t child = ::fork();
  if (child == 0)
    ::_exit(work() ? 0 : 1);
  int status = 0;
  rusage usage;
  if (child < 0 || ::wait4(child, &status, 0, &usage) != child || status != 0)
    return -1;
  return usage.ru_maxrss;
}

TEST_F(Streams, need_little_memory_for_any_method_level_and_size)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "sanitizers use memory of their own";
#endif
  const struct {
    Compression_Method method;
    int level;
    unsigned workers;
    unsigned pieces;
  } cases[] = {{0, 0, 1, 12000}, {1, 9, 1, 600},  {2, 12, 1, 1000}, {3, 1, 1, 12000},
               {3, 1, 4, 12000}, {3, 6, 4, 2000}, {3, 19, 1, 400},  {3, 19, 4, 1200}};
  const long idle = peak_kib([] { return true; });
  ASSERT_GT(idle, 0);
  for (const auto& each : cases) {
    SCOPED_TRACE(std::string(compression_value_to_name(each.method)) + " level " +
                 std::to_string(each.level) + ", " + std::to_string(each.workers) + " workers");
    options_.compression_method = each.method;
    options_.compression_level = each.level;
    options_.compression_workers = each.workers;
    std::string error;
    const long writing = peak_kib([&] { return store(location(), options_, "f", 1, each.pieces, error); });
    const long reading = peak_kib([&] { return verify(location(), options_, "f", 1, each.pieces, error); });
    ASSERT_GT(writing, 0);
    ASSERT_GT(reading, 0);
    RecordProperty("writing_kib", static_cast<int>(writing - idle));
    std::printf("%u level %d, %u workers: %ld KiB writing, %ld KiB reading\n", each.method, each.level,
                each.workers, writing - idle, reading - idle);
    EXPECT_LT(writing - idle, 64 * 1024);
    EXPECT_LT(reading - idle, 32 * 1024);
  }
}
} // namespace
