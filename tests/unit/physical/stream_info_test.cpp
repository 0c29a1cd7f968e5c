#include "oscar/stream_info.h"

#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <unistd.h>

using kestrel_test::Temp_Dir;
using oscar::stream_backup_set_size;

namespace
{
uint64_t size_of(const std::string& info)
{
  return stream_backup_set_size(info.data(), static_cast<unsigned>(info.size()));
}
} // namespace

TEST(Stream_Info, reads_the_length_as_big_endian)
{
  const unsigned char head[] = {0x01, 0x02, 0x03, 0x04, 0xff};
  EXPECT_EQ(0x01020304u, oscar::stream_info_length(head));
  const unsigned char largest[] = {0xff, 0xff, 0xff, 0xff};
  EXPECT_EQ(0xffffffffu, oscar::stream_info_length(largest));
}

TEST(Stream_Info, adds_the_sizes_of_files_that_exist)
{
  Temp_Dir dir;
  const std::string a = dir.write("a", "x");
  const std::string b = dir.write("b with blanks", "x");
  EXPECT_EQ(123u, size_of(a + "=100\n" + b + "=23\n"));
}

TEST(Stream_Info, counts_a_last_line_without_a_line_end)
{
  Temp_Dir dir;
  EXPECT_EQ(9u, size_of(dir.write("a", "") + "=9"));
}

TEST(Stream_Info, skips_lines_that_name_no_regular_file)
{
  Temp_Dir dir;
  const std::string file = dir.write("a", "");
  EXPECT_EQ(0u, size_of(""));
  EXPECT_EQ(0u, size_of("\n\n\n"));
  EXPECT_EQ(0u, size_of("comment without the sign\n"));
  EXPECT_EQ(0u, size_of("=100\n"));
  EXPECT_EQ(0u, size_of(dir / "missing" + "=100\n"));
  EXPECT_EQ(0u, size_of(dir.path() + "=100\n"));
  EXPECT_EQ(0u, size_of("/dev/null=100\n"));
  EXPECT_EQ(7u, size_of("# comment\n" + dir.path() + "=100\n" + file + "=7\n" + dir / "missing" + "=100"));
}

TEST(Stream_Info, follows_a_link_to_a_file)
{
  Temp_Dir dir;
  const std::string file = dir.write("a", "");
  ASSERT_EQ(0, ::symlink(file.c_str(), (dir / "link").c_str()));
  EXPECT_EQ(5u, size_of(dir / "link" + "=5\n"));
}

TEST(Stream_Info, takes_the_path_before_the_first_sign)
{
  Temp_Dir dir;
  const std::string file = dir.write("a", "");
  dir.write("a=5", "");
  EXPECT_EQ(5u, size_of(file + "=5=6\n"));
}

TEST(Stream_Info, parses_the_number_up_to_the_first_other_character)
{
  Temp_Dir dir;
  const std::string file = dir.write("a", "");
  EXPECT_EQ(12u, size_of(file + "=+12\n"));
  EXPECT_EQ(12u, size_of(file + "=12 bytes\n"));
  EXPECT_EQ(12u, size_of(file + "=12\r\n"));
  EXPECT_EQ(0u, size_of(file + "=-12\n"));
  EXPECT_EQ(0u, size_of(file + "= 12\n"));
  EXPECT_EQ(0u, size_of(file + "=\n"));
  EXPECT_EQ(0u, size_of(file + "=x\n"));
}

TEST(Stream_Info, keeps_sizes_beyond_32_bits)
{
  Temp_Dir dir;
  const std::string file = dir.write("a", "");
  EXPECT_EQ(5000000000u, size_of(file + "=5000000000\n"));
}

TEST(Stream_Info, stays_at_the_largest_value_on_overflow)
{
  Temp_Dir dir;
  const std::string file = dir.write("a", "");
  const uint64_t largest = std::numeric_limits<uint64_t>::max();
  EXPECT_EQ(largest, size_of(file + "=99999999999999999999\n"));
  EXPECT_EQ(largest, size_of(file + "=18446744073709551615\n" + file + "=1\n"));
}

TEST(Stream_Info, does_not_cut_a_path_at_a_zero_byte)
{
  Temp_Dir dir;
  const std::string file = dir.write("a", "");
  EXPECT_EQ(0u, size_of(file + std::string(1, '\0') + "b=5\n"));
}
