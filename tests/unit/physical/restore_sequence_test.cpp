#include "oscar/brcmd_restore_sequence.h"

#include "json/json_util.h"

#include <gtest/gtest.h>

#include <limits>

using oscar::read_restore_sequence;
using oscar::Restore_Set;

namespace
{
std::vector<Restore_Set> read(const std::string& json, uint64_t& total, const std::string& pool = "")
{
  json_spirit::Value value;
  std::string error;
  if (!kestrel::read_json(json, value, error))
    throw std::logic_error(error);
  return read_restore_sequence(value, pool, total);
}

const char ROW[] = "{\"backup_set_size\":10,\"pool_uuid\":\"p\",\"uri\":\"u\",\"backup_file\":\"f\"}";
} // namespace

TEST(Restore_Sequence, keeps_the_order_and_adds_the_sizes)
{
  uint64_t total = 0;
  const std::vector<Restore_Set> sets = read(
      "{\"rows\":[{\"backup_set_size\":5000000000,\"pool_uuid\":\"p1\",\"uri\":\"u1\",\"backup_file\":\"f1\","
      "\"pump_checksum\":\"c1\",\"original_checksum\":\"o1\"},"
      "{\"backup_set_size\":7,\"pool_uuid\":\"p2\",\"uri\":\"u2\",\"backup_file\":\"f2\",\"pump_checksum\":"
      "\"\","
      "\"original_checksum\":\"o2\",\"further\":[1]}," +
          std::string(ROW) + "]}",
      total);
  ASSERT_EQ(3u, sets.size());
  EXPECT_EQ(5000000017u, total);
  EXPECT_EQ("f1", sets[0].backup_file);
  EXPECT_EQ(5000000000u, sets[0].backup_set_size);
  EXPECT_EQ("p1", sets[0].pool_uuid);
  EXPECT_EQ("u1", sets[0].uri);
  EXPECT_EQ("c1", sets[0].checksum);
  EXPECT_EQ("f2", sets[1].backup_file);
  EXPECT_EQ("o2", sets[1].checksum);
  EXPECT_EQ("", sets[2].checksum);
}

TEST(Restore_Sequence, takes_a_given_pool_for_every_row)
{
  uint64_t total = 0;
  const std::vector<Restore_Set> sets = read(
      "{\"rows\":[" + std::string(ROW) + ",{\"backup_set_size\":1,\"uri\":\"u\",\"backup_file\":\"f\"}]}",
      total, "mine");
  EXPECT_EQ("mine", sets[0].pool_uuid);
  EXPECT_EQ("mine", sets[1].pool_uuid);
}

TEST(Restore_Sequence, has_no_size_without_rows)
{
  uint64_t total = 1;
  EXPECT_TRUE(read("{\"rows\":[]}", total).empty());
  EXPECT_EQ(0u, total);
}

TEST(Restore_Sequence, does_not_wrap_the_sum)
{
  uint64_t total = 0;
  const std::string row =
      "{\"backup_set_size\":18446744073709551615,\"pool_uuid\":\"p\",\"uri\":\"u\",\"backup_file\":\"f\"}";
  read("{\"rows\":[" + row + "," + row + "]}", total);
  EXPECT_EQ(std::numeric_limits<uint64_t>::max(), total);
}

TEST(Restore_Sequence, refuses_answers_of_another_shape)
{
  const char* const answers[] = {
      "[]",
      "{}",
      "{\"rows\":{}}",
      "{\"rows\":[1]}",
      "{\"rows\":[{}]}",
      "{\"rows\":[{\"backup_set_size\":\"10\",\"pool_uuid\":\"p\",\"uri\":\"u\",\"backup_file\":\"f\"}]}",
      "{\"rows\":[{\"pool_uuid\":\"p\",\"uri\":\"u\",\"backup_file\":\"f\"}]}",
      "{\"rows\":[{\"backup_set_size\":10,\"uri\":\"u\",\"backup_file\":\"f\"}]}",
      "{\"rows\":[{\"backup_set_size\":10,\"pool_uuid\":\"p\",\"backup_file\":\"f\"}]}",
      "{\"rows\":[{\"backup_set_size\":10,\"pool_uuid\":\"p\",\"uri\":\"u\"}]}",
      "{\"rows\":[{\"backup_set_size\":10,\"pool_uuid\":1,\"uri\":\"u\",\"backup_file\":\"f\"}]}",
  };
  for (const char* const answer : answers) {
    uint64_t total = 77;
    EXPECT_THROW(read(answer, total), std::runtime_error) << answer;
    EXPECT_EQ(77u, total) << answer;
  }
}
