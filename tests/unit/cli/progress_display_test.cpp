#include "cli/progress_display.h"

#include "support/clocks.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
class Progress_Display_Test : public testing::Test
{
protected:
  Progress_Display_Test() : stream_(std::fopen((dir_ / "out").c_str(), "w")) {}
  ~Progress_Display_Test() override { std::fclose(stream_); }
  std::string shown()
  {
    std::fflush(stream_);
    return read_file(dir_ / "out");
  }

  Fake_Clock clock_;
  Temp_Dir dir_;
  std::FILE* stream_;
};
} // namespace

TEST_F(Progress_Display_Test, writes_one_plain_line_for_every_tenth)
{
  Progress_Display display(stream_, Progress_Display::Mode::lines, "DB1");
  for (uint64_t done = 0; done <= 1000; done += 5) {
    display.update(done * 1024, 1000 * 1024);
    clock_.advance_msec(100);
  }
  const std::string text = shown();
  EXPECT_EQ(10, std::count(text.begin(), text.end(), '\n')) << text;
  EXPECT_NE(std::string::npos, text.find("DB1: 10% of 1000.0 KiB  50.0 KiB/s  18 s left\n")) << text;
  EXPECT_NE(std::string::npos, text.find("DB1: 100% of 1000.0 KiB  50.0 KiB/s\n")) << text;
}

TEST_F(Progress_Display_Test, shows_no_more_than_everything_when_the_announced_total_was_too_small)
{
  Progress_Display display(stream_, Progress_Display::Mode::lines, "DB1");
  display.update(0, 10);
  clock_.advance_msec(1000);
  display.update(50, 10);
  EXPECT_EQ("DB1: 100% of 10 B  50 B/s\n", shown());
}

TEST_F(Progress_Display_Test, draws_a_bar_at_most_ten_times_a_second_and_wipes_it)
{
  {
    Progress_Display display(stream_, Progress_Display::Mode::bar, "DB1");
    display.update(0, 100);
    for (int step = 0; step < 9; ++step) {
      clock_.advance_msec(10);
      display.update(1, 100);
    }
    const std::string drawn = shown();
    EXPECT_EQ(1, std::count(drawn.begin(), drawn.end(), '\r'));
    clock_.advance_msec(100);
    display.update(50, 100);
  }
  const std::string text = shown();
  EXPECT_NE(std::string::npos, text.find("[####################....................]  50%")) << text;
  EXPECT_EQ("\r\033[K", text.substr(text.size() - 4));
}

TEST_F(Progress_Display_Test, keeps_notes_apart_from_the_bar)
{
  Progress_Display display(stream_, Progress_Display::Mode::bar, "DB1");
  display.update(1, 100);
  display.note("canceling");
  EXPECT_NE(std::string::npos, shown().find("\r\033[Kcanceling\n")) << shown();
}

TEST_F(Progress_Display_Test, says_nothing_when_quiet)
{
  {
    Progress_Display display(stream_, Progress_Display::Mode::quiet, "DB1");
    display.update(50, 100);
    display.note("text");
  }
  EXPECT_EQ("", shown());
}

TEST_F(Progress_Display_Test, draws_no_bar_into_a_file)
{
  EXPECT_EQ(Progress_Display::Mode::lines, progress_mode_of(stream_));
}
