#include "storage/side_file.h"

#include "base/checksum.h"

#include <gtest/gtest.h>

namespace
{
using kestrel::parse_side_file;
using kestrel::Side_File;
using kestrel::side_file_text;

Side_File example()
{
  Side_File side;
  side.method = COMPRESSION_ZSTD;
  side.original_size = 18446744073709551615ull;
  side.original_checksum = "0123456789abcdef0123456789abcdef";
  side.storage_size = 5000000000ull;
  side.storage_checksum = "fedcba9876543210fedcba9876543210";
  side.time = 1700000000;
  return side;
}

/// Seals a text the way the writer does.
std::string sealed(const std::string& members)
{
  return members + ",\"side_file_checksum\":\"" + kestrel::xxh3_128_hex(members.data(), members.size()) +
         "\"}\n";
}

std::string error_of(const std::string& text)
{
  Side_File side = example();
  std::string error;
  EXPECT_FALSE(parse_side_file(text, side, error)) << text;
  EXPECT_EQ(example().original_size, side.original_size);
  return error;
}

TEST(Side_File, is_read_as_it_was_written)
{
  Side_File side;
  std::string error;
  ASSERT_TRUE(parse_side_file(side_file_text(example()), side, error)) << error;
  EXPECT_EQ(example().method, side.method);
  EXPECT_EQ(example().original_size, side.original_size);
  EXPECT_EQ(example().original_checksum, side.original_checksum);
  EXPECT_EQ(example().storage_size, side.storage_size);
  EXPECT_EQ(example().storage_checksum, side.storage_checksum);
  EXPECT_EQ(example().time, side.time);
}

TEST(Side_File, keeps_its_format)
{
  const std::string members = "{\"version\":1,\"method\":\"zstd\",\"original_size\":18446744073709551615,"
                              "\"storage_size\":5000000000,\"checksum_kind\":\"xxh3-128\","
                              "\"original_checksum\":\"0123456789abcdef0123456789abcdef\","
                              "\"storage_checksum\":\"fedcba9876543210fedcba9876543210\",\"time\":1700000000";
  EXPECT_EQ(sealed(members), side_file_text(example()));
}

TEST(Side_File, may_carry_keys_of_later_releases)
{
  std::string text = side_file_text(example());
  text = text.substr(0, text.find(",\"side_file_checksum\""));
  Side_File side;
  std::string error;
  EXPECT_TRUE(parse_side_file(sealed(text + ",\"record\":{\"side_file_checksum\":[1,2]}"), side, error))
      << error;
}

TEST(Side_File, is_refused_with_any_bit_flipped)
{
  const std::string text = side_file_text(example());
  for (size_t bit = 0; bit < text.size() * 8; ++bit) {
    std::string flipped = text;
    flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ (1 << bit % 8));
    ASSERT_EQ("it is damaged or incomplete", error_of(flipped)) << bit;
  }
}

TEST(Side_File, is_refused_when_it_is_cut_or_longer)
{
  const std::string text = side_file_text(example());
  for (size_t size = 0; size < text.size(); ++size)
    ASSERT_EQ("it is damaged or incomplete", error_of(text.substr(0, size))) << size;
  EXPECT_EQ("it is damaged or incomplete", error_of(text + "\n"));
  EXPECT_EQ("it is damaged or incomplete", error_of(text + text));
}

TEST(Side_File, is_refused_with_a_newer_format_an_unknown_method_or_missing_keys)
{
  const std::string text = side_file_text(example());
  const std::string members = text.substr(0, text.find(",\"side_file_checksum\""));
  const auto with = [&](const std::string& from, const std::string& to) {
    std::string changed = members;
    changed.replace(changed.find(from), from.size(), to);
    return error_of(sealed(changed));
  };
  EXPECT_EQ("it has a newer format; read it with a newer release", with("\"version\":1", "\"version\":2"));
  EXPECT_NE(std::string::npos, with("zstd", "none2").find("method \"none2\""));
  EXPECT_NE("", with("original_size", "original_sise"));
  EXPECT_NE("", with("5000000000", "\"5\""));
  EXPECT_NE("", with("5000000000", "-5"));
  EXPECT_EQ("its checksums are of an unknown kind", with("xxh3-128", "xxh3-064"));
  EXPECT_EQ("its checksums are of an unknown kind", with("fedc", "FEDC"));
  EXPECT_NE("", error_of(sealed("[")));
  EXPECT_NE("", error_of(sealed("")));
}
} // namespace
