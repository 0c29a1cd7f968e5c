#include "storage/compression.h"

#include <gtest/gtest.h>

#include <string>

namespace
{
TEST(Compression, names_values_and_suffixes_belong_together)
{
  const struct {
    Compression_Method method;
    const char* name;
    const char* suffix;
  } expected[] = {{0, "none", ""}, {1, "zlib", ".gz"}, {2, "lz4", ".lz4"}, {3, "zstd", ".zst"}};
  for (const auto& row : expected) {
    EXPECT_EQ(row.method,
              compression_name_to_value(row.name, static_cast<unsigned>(std::string(row.name).size())));
    EXPECT_STREQ(row.name, compression_value_to_name(row.method));
    EXPECT_STREQ(row.suffix, compression_value_to_suffix(row.method));
    EXPECT_EQ(row.method, compression_to_mtf(row.method));
    EXPECT_TRUE(kestrel::is_compression_method(row.method));
  }
}

TEST(Compression, compares_exactly_the_given_bytes)
{
  EXPECT_EQ(3u, compression_name_to_value("zstd\",", 4));
  EXPECT_EQ(0u, compression_name_to_value("zstdx", 5));
  EXPECT_EQ(0u, compression_name_to_value("zst", 3));
  EXPECT_EQ(0u, compression_name_to_value("ZSTD", 4));
  EXPECT_EQ(0u, compression_name_to_value("", 0));
  EXPECT_EQ(0u, compression_name_to_value(nullptr, 0));
}

TEST(Compression, takes_an_unknown_number_as_none)
{
  EXPECT_STREQ("none", compression_value_to_name(4));
  EXPECT_STREQ("", compression_value_to_suffix(4));
  EXPECT_EQ(0u, compression_to_mtf(4));
  EXPECT_FALSE(kestrel::is_compression_method(4));
}

TEST(Compression, clamps_levels_to_what_the_method_offers)
{
  using kestrel::effective_compression_level;
  EXPECT_EQ(0, effective_compression_level(COMPRESSION_NONE, 5));
  EXPECT_EQ(6, effective_compression_level(COMPRESSION_ZLIB, 0));
  EXPECT_EQ(9, effective_compression_level(COMPRESSION_ZLIB, 100));
  EXPECT_EQ(1, effective_compression_level(COMPRESSION_ZLIB, -3));
  EXPECT_EQ(1, effective_compression_level(COMPRESSION_LZ4, 0));
  EXPECT_EQ(12, effective_compression_level(COMPRESSION_LZ4, 13));
  EXPECT_EQ(3, effective_compression_level(COMPRESSION_ZSTD, 0));
  EXPECT_EQ(1, effective_compression_level(COMPRESSION_ZSTD, -1));
  EXPECT_EQ(19, effective_compression_level(COMPRESSION_ZSTD, 22));
  EXPECT_EQ(7, effective_compression_level(COMPRESSION_ZSTD, 7));
  EXPECT_EQ(0, effective_compression_level(9, 7));
}
} // namespace
