#include "oscar/backup_job_options_parser.h"

#include "parse_document.h"

#include <limits>

using kestrel_test::generated;
using kestrel_test::parse;

namespace
{
struct Parsed : oscar::Backup_Job_Options_Parser {
  explicit Parsed(const std::string& text) : code(parse(*this, text)) {}
  const oscar::Backup_Job_Options& options() { return *document(); }
  int code;
};
} // namespace

TEST(Backup_Job_Options, an_empty_document_means_no_compression_and_level_1)
{
  Parsed parsed("{}");
  EXPECT_EQ(parsed.code, 0);
  EXPECT_EQ(parsed.options().compression(), 0u);
  EXPECT_EQ(parsed.options().compression_level(), 1);
  EXPECT_EQ(generated(parsed), R"({"compression_level":1})");
}

TEST(Backup_Job_Options, takes_method_and_level)
{
  Parsed parsed(R"({"compression":"zstd","compression_level":7})");
  EXPECT_EQ(parsed.code, 0);
  EXPECT_EQ(parsed.options().compression(), COMPRESSION_ZSTD);
  EXPECT_EQ(parsed.options().compression_level(), 7);
  EXPECT_EQ(generated(parsed), R"({"compression":"zstd","compression_level":7})");
}

TEST(Backup_Job_Options, an_unknown_method_means_no_compression)
{
  Parsed parsed(R"({"compression":"fast"})");
  EXPECT_EQ(parsed.code, 0);
  EXPECT_EQ(parsed.options().compression(), 0u);
}

TEST(Backup_Job_Options, the_level_is_the_digits_before_anything_else)
{
  EXPECT_EQ(Parsed(R"({"compression_level":3.9})").options().compression_level(), 3);
  EXPECT_EQ(Parsed(R"({"compression_level":2e3})").options().compression_level(), 2);
  EXPECT_EQ(Parsed(R"({"compression_level":-4})").options().compression_level(), -4);
  EXPECT_EQ(Parsed(R"({"compression_level":99999999999})").options().compression_level(),
            std::numeric_limits<int>::max());
}

TEST(Backup_Job_Options, a_value_of_the_other_kind_is_accepted_and_ignored)
{
  Parsed parsed(R"({"compression":3,"compression_level":"9"})");
  EXPECT_EQ(parsed.code, 0);
  EXPECT_EQ(parsed.options().compression(), 0u);
  EXPECT_EQ(parsed.options().compression_level(), 1);
}

TEST(Backup_Job_Options, a_value_of_an_unknown_key_belongs_to_the_known_key_before_it)
{
  Parsed parsed(R"({"x":5,"compression_level":2,"y":6})");
  EXPECT_EQ(parsed.code, 0);
  EXPECT_EQ(parsed.options().compression_level(), 6);
}

TEST(Backup_Job_Options, values_below_the_top_object_are_refused)
{
  EXPECT_EQ(Parsed(R"({"x":{"y":1}})").code, 9);
  EXPECT_EQ(Parsed(R"({"x":{"y":"1"}})").code, 9);
  EXPECT_EQ(Parsed(R"({"x":["1"]})").code, 9);
  EXPECT_EQ(Parsed(R"({"x":[1]})").code, 9);
}

TEST(Backup_Job_Options, booleans_nulls_and_empty_containers_are_ignored)
{
  Parsed parsed(R"({"compression":null,"compression_level":true,"x":{},"y":[[],{}]})");
  EXPECT_EQ(parsed.code, 0);
  EXPECT_EQ(generated(parsed), R"({"compression_level":1})");
}

TEST(Backup_Job_Options, values_of_a_top_level_that_is_no_object_are_ignored_or_refused)
{
  EXPECT_EQ(Parsed(R"(["zstd",1])").code, 0);
  EXPECT_EQ(Parsed("1").code, 9);
}

TEST(Backup_Job_Options, ends_and_keys_without_an_open_container_are_refused)
{
  oscar::Backup_Job_Options_Parser map_end;
  EXPECT_FALSE(map_end.handle_end_map_i());
  EXPECT_EQ(map_end.error(), 3);
  oscar::Backup_Job_Options_Parser array_end;
  EXPECT_FALSE(array_end.handle_end_array_i());
  EXPECT_EQ(array_end.error(), 3);
  oscar::Backup_Job_Options_Parser key;
  EXPECT_FALSE(key.handle_map_key_i("x", 1));
  EXPECT_EQ(key.error(), 3);
}
