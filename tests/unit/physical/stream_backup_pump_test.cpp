#include "oscar/stream_pump.h"

#include "base/checksum.h"
#include "base/descriptor.h"
#include "pump_fakes.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <pthread.h>
#include <thread>
#include <unistd.h>

using namespace kestrel_test;
using oscar::Pumped_Stream;
using oscar::Stream_Backup_Pump;

namespace
{
/// Pumps a stream that a thread writes into a pipe. size: what the info text is said to give.
struct Backup_Run {
  bool operator()(const std::string& stream, uint64_t size = 1000000)
  {
    kestrel::Auto_Fd reader, writer;
    if (kestrel::make_pipe(reader, writer) != 0)
      return false;
    std::thread tool([&] {
      read_write_trait::write_n(writer.get(), stream.data(), stream.size());
      writer.reset();
    });
    const bool ok = pump(reader.get(), size);
    reader.reset();
    tool.join();
    return ok;
  }
  bool pump(int fd, uint64_t size)
  {
    Stream_Backup_Pump pump(host, sink, [this, size](const char* data, unsigned len) {
      info.assign(data, len);
      return size;
    });
    return pump.pump(fd, "/run/x_fifo", pumped);
  }

  Fake_Pump_Host host;
  Memory_Sink sink;
  Pumped_Stream pumped;
  std::string info;
  Log_Capture log;
};

const std::vector<int> ALERT_16(1, 16);
const std::vector<int> ALERT_17(1, 17);
} // namespace

TEST(Stream_Backup_Pump, stores_the_stream_byte_for_byte)
{
  for (const size_t image_bytes :
       {size_t(0), size_t(1), size_t(8191), size_t(8192), size_t(8193), size_t(1000003)}) {
    Backup_Run run;
    const std::string stream = make_stream("/x=1\n", pattern(image_bytes));
    ASSERT_TRUE(run(stream));
    EXPECT_TRUE(stream == run.sink.stored) << image_bytes;
    EXPECT_EQ("/x=1\n", run.info);
    EXPECT_EQ(stream.size(), run.pumped.bytes);
    EXPECT_EQ(kestrel::xxh3_128_hex(stream.data(), stream.size()), run.pumped.checksum);
    EXPECT_TRUE(run.host.alerts.empty());
  }
}

TEST(Stream_Backup_Pump, tells_a_stored_stream_that_differs)
{
  Pumped_Stream pumped;
  EXPECT_FALSE(pumped.is_stored_as(0, "")) << "nothing was compared";
  pumped.bytes = 10;
  pumped.checksum = "abc";
  EXPECT_TRUE(pumped.is_stored_as(10, "abc"));
  EXPECT_FALSE(pumped.is_stored_as(9, "abc"));
  EXPECT_FALSE(pumped.is_stored_as(10, "abd"));
  EXPECT_FALSE(pumped.is_stored_as(10, ""));
}

TEST(Stream_Backup_Pump, accepts_every_info_length_around_its_limits)
{
  for (uint32_t length = 512; length < 8300; length = length == 530 ? 8180 : length + 1) {
    Backup_Run run;
    const std::string stream = make_stream(std::string(length - 512, 'i'), "image");
    ASSERT_TRUE(run(stream)) << length;
    EXPECT_TRUE(stream == run.sink.stored) << length;
    EXPECT_EQ(length - 512, run.info.size());
    if (length > 8192)
      run.log.expect(LM_WARNING, "can be stored but not restored");
  }
}

TEST(Stream_Backup_Pump, refuses_every_info_length_below_the_head)
{
  for (uint32_t length = 0; length < 512; ++length) {
    Backup_Run run;
    ASSERT_FALSE(run(make_stream(length, "", pattern(1000)))) << length;
    run.log.expect_exactly(LM_ERROR, "Failed to get backup info data, errno=22, Invalid argument\n");
    EXPECT_EQ(ALERT_16, run.host.alerts);
  }
}

TEST(Stream_Backup_Pump, fails_on_a_claimed_length_that_never_comes)
{
  for (const uint32_t length : {0x7fffffffu, 0x80000000u, 0xfffffffeu, 0xffffffffu}) {
    Backup_Run run;
    ASSERT_FALSE(run(make_stream(length, "short", "")));
    run.log.expect(LM_ERROR, "Failed to get backup info data, errno=");
    EXPECT_EQ(ALERT_16, run.host.alerts);
  }
}

TEST(Stream_Backup_Pump, fails_on_every_short_head)
{
  for (size_t bytes = 0; bytes < 512; bytes += bytes < 500 ? 37 : 1) {
    Backup_Run run;
    ASSERT_FALSE(run(make_stream("", "").substr(0, bytes))) << bytes;
    run.log.expect_exactly(LM_ERROR, "Failed to get backup info head, errno=0, Success\n");
    EXPECT_EQ(ALERT_16, run.host.alerts);
    EXPECT_EQ(0u, run.sink.writes);
  }
}

TEST(Stream_Backup_Pump, fails_on_short_info_data)
{
  const std::string stream = make_stream(std::string(100, 'i'), "");
  for (size_t missing = 1; missing <= 100; missing += 33) {
    Backup_Run run;
    ASSERT_FALSE(run(stream.substr(0, stream.size() - missing)));
    run.log.expect_exactly(LM_ERROR, "Failed to get backup info data, errno=0, Success\n");
    EXPECT_EQ(ALERT_16, run.host.alerts);
  }
}

TEST(Stream_Backup_Pump, fails_when_the_info_gives_no_size)
{
  Backup_Run run;
  EXPECT_FALSE(run(make_stream("nothing\n", "image"), 0));
  run.log.expect_exactly(LM_ERROR, "Invalid backup set size\n");
  EXPECT_EQ(ALERT_16, run.host.alerts);
}

TEST(Stream_Backup_Pump, reports_each_write_that_storage_refuses)
{
  const char* const texts[] = {"Failed to write backup info head to storage: disk on fire\n",
                               "Failed to write backup info data to storage: disk on fire\n",
                               "Failed to write to storage: disk on fire.\n"};
  for (unsigned k = 1; k <= 3; ++k) {
    Backup_Run run;
    run.sink.fail_write = k;
    EXPECT_FALSE(run(make_stream("/x=1\n", pattern(100))));
    run.log.expect_exactly(LM_ERROR, texts[k - 1]);
    EXPECT_EQ(ALERT_17, run.host.alerts);
    EXPECT_FALSE(run.sink.discarded);
  }
}

TEST(Stream_Backup_Pump, reports_a_read_that_fails)
{
  Backup_Run run;
  const kestrel::Auto_Fd directory(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  EXPECT_FALSE(run.pump(directory.get(), 1));
  run.log.expect_exactly(LM_ERROR, "Failed to get backup info head, errno=21, Is a directory\n");
  EXPECT_EQ(ALERT_16, run.host.alerts);
}

TEST(Stream_Backup_Pump, removes_the_file_of_a_canceled_backup)
{
  Backup_Run run;
  run.host.cancel_after = 4; // head, info, two blocks
  EXPECT_FALSE(run(make_stream("/x=1\n", pattern(100000))));
  run.log.expect_exactly(LM_INFO, "Job(def-1) has been canceled.\n");
  EXPECT_TRUE(run.sink.discarded);
  EXPECT_TRUE(run.host.alerts.empty());
  EXPECT_EQ(0u, run.log.count("Failed to remove"));
}

TEST(Stream_Backup_Pump, tells_when_the_file_of_a_canceled_backup_stays)
{
  Backup_Run run;
  run.host.cancel_after = 2;
  run.sink.fail_discard = true;
  EXPECT_FALSE(run(make_stream("/x=1\n", pattern(100000))));
  run.log.expect_exactly(LM_ERROR, "Failed to remove backup file: disk on fire\n");
  run.log.expect_exactly(LM_INFO, "Job(def-1) has been canceled.\n");
}

TEST(Stream_Backup_Pump, does_not_see_a_cancel_at_the_end_of_the_stream)
{
  Backup_Run run;
  run.host.cancel_after = 2; // after the info data, when only the end is left
  EXPECT_TRUE(run(make_stream("/x=1\n", "")));
  EXPECT_FALSE(run.sink.discarded);
}

TEST(Stream_Backup_Pump, reports_progress_below_100_and_with_head_and_info_counted)
{
  Backup_Run run;
  const std::string stream = make_stream("/x=1\n", pattern(100000));
  ASSERT_TRUE(run(stream, 200000));
  ASSERT_FALSE(run.host.percents.empty());
  for (size_t i = 1; i < run.host.percents.size(); ++i)
    EXPECT_LT(run.host.percents[i - 1], run.host.percents[i]);
  EXPECT_GT(run.host.percents.front(), 0);
  EXPECT_EQ(static_cast<int>(stream.size() * 100 / 200000), run.host.percents.back());
  EXPECT_EQ(200000u, run.host.last_total);
}

TEST(Stream_Backup_Pump, repeats_a_read_that_a_signal_interrupted)
{
  struct sigaction action = {}, previous = {};
  static std::atomic<int> signals;
  signals = 0;
  action.sa_handler = [](int) { ++signals; };
  ASSERT_EQ(0, ::sigaction(SIGUSR1, &action, &previous));
  kestrel::Auto_Fd reader, writer;
  ASSERT_EQ(0, kestrel::make_pipe(reader, writer));
  const std::string stream = make_stream("/x=1\n", pattern(3000));
  const pthread_t pumping = ::pthread_self();
  std::thread tool([&] {
    for (const char c : stream) {
      ::pthread_kill(pumping, SIGUSR1);
      read_write_trait::write_n(writer.get(), &c, 1);
    }
    writer.reset();
  });
  Backup_Run run;
  EXPECT_TRUE(run.pump(reader.get(), 1000));
  tool.join();
  ::sigaction(SIGUSR1, &previous, nullptr);
  EXPECT_GT(signals, 0);
  EXPECT_TRUE(stream == run.sink.stored);
}
