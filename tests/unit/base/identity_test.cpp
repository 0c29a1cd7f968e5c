#include "base/checksum.h"
#include "base/uuid.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>

TEST(Checksum, agrees_with_the_published_algorithm)
{
  // The value that the command xxh128sum prints for no bytes.
  EXPECT_EQ("99aa06d3014798d86001c324468d497f", kestrel::Xxh3_128().hex());
  EXPECT_EQ("99aa06d3014798d86001c324468d497f", kestrel::xxh3_128_hex("", 0));
}

TEST(Checksum, does_not_depend_on_how_the_data_comes)
{
  std::string data;
  for (int i = 0; i < 100000; ++i)
    data += static_cast<char>(i * 7);
  const std::string whole = kestrel::xxh3_128_hex(data.data(), data.size());
  kestrel::Xxh3_128 sum;
  for (size_t at = 0, step = 1; at < data.size(); at += step, step = step * 2 + 1) {
    step = std::min(step, data.size() - at);
    sum.update(data.data() + at, step);
  }
  EXPECT_EQ(whole, sum.hex());
  EXPECT_EQ(32u, whole.size());
  sum.update("x", 1);
  EXPECT_NE(whole, sum.hex());
  sum.reset();
  sum.update(data.data(), data.size());
  sum.update(nullptr, 0);
  EXPECT_EQ(whole, sum.hex());
}

TEST(Uuid, makes_different_ones_each_time)
{
  std::set<std::string> made;
  for (int i = 0; i < 1000; ++i) {
    const std::string uuid = kestrel::make_uuid();
    EXPECT_TRUE(kestrel::is_uuid(uuid)) << uuid;
    EXPECT_EQ('4', uuid[14]);
    made.insert(uuid);
  }
  EXPECT_EQ(1000u, made.size());
}

TEST(Uuid, gives_a_name_the_same_one_for_ever)
{
  EXPECT_EQ(kestrel::name_uuid("oscar/DB1"), kestrel::name_uuid("oscar/DB1"));
  EXPECT_NE(kestrel::name_uuid("oscar/DB1"), kestrel::name_uuid("oscar/DB2"));
  EXPECT_TRUE(kestrel::is_uuid(kestrel::name_uuid("")));
  // Stored in catalogs: a change would lose what belongs together.
  EXPECT_EQ("99aa06d3-0147-88d8-a001-c324468d497f", kestrel::name_uuid(""));
}

TEST(Uuid, knows_the_shape)
{
  EXPECT_TRUE(kestrel::is_uuid("00000000-0000-0000-0000-000000000000"));
  EXPECT_TRUE(kestrel::is_uuid("ABCDEF01-2345-6789-abcd-ef0123456789"));
  for (const char* text :
       {"", "..", "ABCDEF01-2345-6789-abcd-ef012345678", "ABCDEF01-2345-6789-abcd-ef01234567890",
        "ABCDEF0--2345-6789-abcd-ef0123456789", "GBCDEF01-2345-6789-abcd-ef0123456789",
        "ABCDEF01 2345-6789-abcd-ef0123456789", "{BCDEF01-2345-6789-abcd-ef0123456789"})
    EXPECT_FALSE(kestrel::is_uuid(text)) << text;
  EXPECT_FALSE(kestrel::is_uuid(std::string("ABCDEF01-2345-6789-abcd-ef012345678\0", 36)));
}

TEST(Uuid, converts_between_text_and_bytes)
{
  unsigned char bytes[16];
  EXPECT_EQ(0, uuid_string_to_binary("00112233-4455-6677-8899-AABBCCDDEEFF", bytes));
  for (unsigned i = 0; i < 16; ++i)
    EXPECT_EQ(i * 0x11, bytes[i]);
  EXPECT_EQ("00112233-4455-6677-8899-aabbccddeeff", uuid_binary_to_string(bytes));
}

TEST(Uuid, gives_zeros_for_text_that_is_none)
{
  for (const char* text : {"00112233-4455-6677-8899-aabbccddeefx", "", "no"}) {
    unsigned char bytes[16];
    ::memset(bytes, 0xff, sizeof bytes);
    EXPECT_EQ(-1, uuid_string_to_binary(text, bytes));
    for (unsigned char byte : bytes)
      EXPECT_EQ(0, byte);
  }
  unsigned char bytes[16];
  EXPECT_EQ(-1, uuid_string_to_binary(nullptr, bytes));
}
