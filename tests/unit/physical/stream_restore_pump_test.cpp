#include "oscar/stream_pump.h"

#include "base/checksum.h"
#include "base/descriptor.h"
#include "pump_fakes.h"
#include "support/clocks.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <thread>

using namespace kestrel_test;
using oscar::Stream_Progress;
using oscar::Stream_Restore_Pump;

namespace
{
/// Feeds a stored file into a pipe that a thread reads to its end.
struct Restore_Run {
  bool operator()(const std::string& stored) { return (*this)(stored, Memory_Source(stored)); }
  bool operator()(const std::string& stored, Memory_Source source)
  {
    kestrel::Auto_Fd reader, writer;
    if (kestrel::make_pipe(reader, writer) != 0)
      return false;
    std::thread tool([&] {
      char block[4096];
      ssize_t count;
      while ((count = read_write_trait::read(reader.get(), block, sizeof block)) > 0)
        fed.append(block, static_cast<size_t>(count));
    });
    Stream_Progress progress(total ? total : stored.size());
    const bool ok = Stream_Restore_Pump(host, source, progress).pump(writer.get(), expected);
    writer.reset();
    tool.join();
    return ok;
  }

  Fake_Clock clock;
  Fake_Pump_Host host;
  Stream_Restore_Pump::Expected expected;
  uint64_t total = 0;
  std::string fed;
  Log_Capture log;
};

const std::vector<int> ALERT_14(1, 14);
const std::vector<int> ALERT_16(1, 16);
const std::vector<int> ALERT_17(1, 17);
} // namespace

TEST(Stream_Restore_Pump, feeds_the_info_block_and_then_the_whole_file)
{
  for (const size_t image_bytes :
       {size_t(0), size_t(1), size_t(7000), size_t(8192), size_t(8193), size_t(1000003)}) {
    Restore_Run run;
    const std::string info = "/x=1\n";
    const std::string stored = make_stream(info, pattern(image_bytes));
    run.expected.bytes = stored.size();
    run.expected.checksum = kestrel::xxh3_128_hex(stored.data(), stored.size());
    ASSERT_TRUE(run(stored)) << image_bytes;
    EXPECT_TRUE(stored.substr(0, 512 + info.size()) + stored == run.fed) << image_bytes;
    EXPECT_EQ(3000, run.clock.slept_msec());
    EXPECT_TRUE(run.host.alerts.empty());
  }
}

TEST(Stream_Restore_Pump, accepts_every_info_length_that_fits_its_block)
{
  for (uint32_t length = 512; length <= 8192; length = length == 530 ? 8180 : length + 1) {
    Restore_Run run;
    const std::string stored = make_stream(std::string(length - 512, 'i'), "image");
    ASSERT_TRUE(run(stored)) << length;
    EXPECT_TRUE(stored.substr(0, length) + stored == run.fed) << length;
  }
}

TEST(Stream_Restore_Pump, refuses_an_info_length_outside_its_block)
{
  std::vector<uint32_t> lengths = {8193u,       8194u,       9000u,       0x10000u,
                                   0x7fffffffu, 0x80000000u, 0xfffffe00u, 0xffffffffu};
  for (uint32_t length = 0; length < 512; length += 7)
    lengths.push_back(length);
  lengths.push_back(511);
  for (const uint32_t length : lengths) {
    Restore_Run run;
    ASSERT_FALSE(run(make_stream(length, "", pattern(20000)))) << length;
    run.log.expect_exactly(LM_ERROR, "Failed to read backup info data: bad sector\n");
    EXPECT_EQ(ALERT_16, run.host.alerts);
    EXPECT_TRUE(run.fed.empty());
  }
}

TEST(Stream_Restore_Pump, fails_on_every_short_head)
{
  for (size_t bytes = 0; bytes < 512; bytes += bytes < 500 ? 37 : 1) {
    Restore_Run run;
    ASSERT_FALSE(run(make_stream("", "").substr(0, bytes))) << bytes;
    run.log.expect_exactly(LM_ERROR, "Failed to read backup info head: bad sector\n");
    EXPECT_EQ(ALERT_16, run.host.alerts);
  }
}

TEST(Stream_Restore_Pump, fails_on_short_info_data)
{
  Restore_Run run;
  EXPECT_FALSE(run(make_stream(600, "too short", "")));
  run.log.expect_exactly(LM_ERROR, "Failed to read backup info data: bad sector\n");
  EXPECT_EQ(ALERT_16, run.host.alerts);
}

TEST(Stream_Restore_Pump, fails_when_the_file_cannot_be_opened_again)
{
  Restore_Run run;
  const std::string stored = make_stream("/x=1\n", pattern(100));
  Memory_Source source(stored);
  source.fail_reopen = true;
  EXPECT_FALSE(run(stored, source));
  run.log.expect_exactly(LM_ERROR, "Failed to open file db1_full.zst: bad sector\n");
  EXPECT_EQ(ALERT_14, run.host.alerts);
  EXPECT_EQ(0, run.clock.slept_msec());
}

TEST(Stream_Restore_Pump, fails_on_a_read_error_at_every_block)
{
  const std::string stored = make_stream("/x=1\n", pattern(50000));
  for (size_t at = 0; at < stored.size() + 8192; at += 8192) {
    Restore_Run run;
    Memory_Source source(stored);
    source.fail_at = at;
    ASSERT_FALSE(run(stored, source)) << at;
    run.log.expect_exactly(LM_ERROR, "Failed to read backup data: bad sector\n");
    EXPECT_EQ(ALERT_16, run.host.alerts);
    EXPECT_LT(run.fed.size(), 517 + stored.size()) << "the tool got a whole stream that was not verified";
  }
}

TEST(Stream_Restore_Pump, keeps_the_last_block_of_a_file_that_is_not_the_one_in_the_catalog)
{
  const std::string stored = make_stream("/x=1\n", pattern(50000));
  {
    Restore_Run run;
    run.expected.bytes = stored.size() + 1;
    EXPECT_FALSE(run(stored));
    run.log.expect(LM_ERROR, "file db1_full.zst gave 50517 bytes, the catalog says 50518");
    EXPECT_EQ(ALERT_16, run.host.alerts);
    EXPECT_LT(run.fed.size(), 517 + stored.size());
  }
  Restore_Run run;
  run.expected.bytes = stored.size();
  run.expected.checksum = std::string(32, '0');
  EXPECT_FALSE(run(stored));
  run.log.expect(LM_ERROR, "the catalog says 00000000000000000000000000000000");
  EXPECT_EQ(ALERT_16, run.host.alerts);
  EXPECT_LT(run.fed.size(), 517 + stored.size());
}

TEST(Stream_Restore_Pump, stops_when_the_job_is_canceled)
{
  Restore_Run run;
  run.host.cancel_after = 3;
  const std::string stored = make_stream("/x=1\n", pattern(100000));
  EXPECT_FALSE(run(stored));
  run.log.expect_exactly(LM_INFO, "Job(def-1) has been canceled.\n");
  EXPECT_TRUE(run.host.alerts.empty());
  EXPECT_LT(run.fed.size(), 517 + stored.size());
}

TEST(Stream_Restore_Pump, reports_a_tool_that_reads_nothing)
{
  Fake_Clock clock;
  Log_Capture log;
  Fake_Pump_Host host;
  Memory_Source source(make_stream("/x=1\n", pattern(100)));
  Stream_Progress progress(100);
  kestrel::Auto_Fd reader, writer;
  ASSERT_EQ(0, kestrel::make_pipe(reader, writer));
  reader.reset();
  EXPECT_FALSE(
      Stream_Restore_Pump(host, source, progress).pump(writer.get(), Stream_Restore_Pump::Expected()));
  log.expect_exactly(LM_ERROR, "Failed to write backup info to fifo, errno=32, Broken pipe\n");
  EXPECT_EQ(ALERT_17, host.alerts);
}

TEST(Stream_Restore_Pump, reports_a_tool_that_stops_reading)
{
  Fake_Clock clock;
  Log_Capture log;
  Fake_Pump_Host host;
  Memory_Source source(make_stream("/x=1\n", pattern(3000000)));
  Stream_Progress progress(100);
  kestrel::Auto_Fd reader, writer;
  ASSERT_EQ(0, kestrel::make_pipe(reader, writer));
  std::thread tool([&reader] {
    std::string block(100000, '\0');
    read_write_trait::read_n(reader.get(), &block[0], block.size());
    reader.reset();
  });
  EXPECT_FALSE(
      Stream_Restore_Pump(host, source, progress).pump(writer.get(), Stream_Restore_Pump::Expected()));
  tool.join();
  log.expect_exactly(LM_ERROR, "Failed to write backup data to fifo, errno=32, Broken pipe\n");
  EXPECT_EQ(ALERT_17, host.alerts);
}

TEST(Stream_Restore_Pump, reports_progress_without_the_separate_info_block)
{
  Restore_Run run;
  const std::string stored = make_stream("/x=1\n", pattern(100000));
  run.total = stored.size() * 2;
  ASSERT_TRUE(run(stored));
  ASSERT_FALSE(run.host.percents.empty());
  EXPECT_EQ(50, run.host.percents.back());
  EXPECT_EQ(stored.size(), run.host.last_done);
}

TEST(Stream_Restore_Pump, carries_progress_on_over_several_files)
{
  Fake_Clock clock;
  Fake_Pump_Host host;
  const std::string stored = make_stream("/x=1\n", pattern(100000));
  Stream_Progress progress(stored.size() * 3);
  for (int i = 0; i < 3; ++i) {
    Memory_Source source(stored);
    kestrel::Auto_Fd reader, writer;
    ASSERT_EQ(0, kestrel::make_pipe(reader, writer));
    std::thread tool([&reader] {
      char block[4096];
      while (read_write_trait::read(reader.get(), block, sizeof block) > 0) {
      }
    });
    EXPECT_TRUE(
        Stream_Restore_Pump(host, source, progress).pump(writer.get(), Stream_Restore_Pump::Expected()));
    writer.reset();
    tool.join();
  }
  for (size_t i = 1; i < host.percents.size(); ++i)
    EXPECT_LT(host.percents[i - 1], host.percents[i]);
  EXPECT_GT(host.percents.back(), 90);
}
