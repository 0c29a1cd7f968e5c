#include "oscar/brcmd_set_record.h"

#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <limits>

using kestrel_test::Log_Capture;
using oscar::fill_brcmd_backup_set;

namespace
{
typedef std::map<std::string, json_spirit::Value> Values;

const char* const TEXT_KEYS[] = {
    "uid",  "definition_uuid", "name", "agent",     "host_uuid",      "resource_uuid", "uri",
    "type", "backup_file",     "uuid", "backup_id", "last_backup_id", "pool_uuid",     "last_full_backup_id"};
const char* const NUMBER_KEYS[] = {
    "backup_set_size", "backup_lsn",           "backup_scn",           "last_backup_lsn",
    "last_backup_scn", "last_full_backup_lsn", "last_full_backup_scn", "backup_set_storage_size"};

Values complete_values()
{
  Values values;
  for (const char* const key : TEXT_KEYS)
    values[key] = std::string("the ") + key;
  uint64_t number = 100;
  for (const char* const key : NUMBER_KEYS)
    values[key] = number++;
  values["type"] = "incr";
  return values;
}

bool fill(const Values& values, Oscar_Brcmd_Backup_Set& set)
{
  return fill_brcmd_backup_set(values, "source-1", 1000, 2000, set);
}
} // namespace

TEST(Set_Record, carries_every_value)
{
  Oscar_Brcmd_Backup_Set set;
  ASSERT_TRUE(fill(complete_values(), set));
  EXPECT_EQ("the uid", set.uid());
  EXPECT_EQ("the definition_uuid", set.definition_uuid());
  EXPECT_EQ("the name", set.name());
  EXPECT_EQ("the agent", set.agent());
  EXPECT_EQ("the host_uuid", set.host_uuid());
  EXPECT_EQ("the resource_uuid", set.resource_uuid());
  EXPECT_EQ("the uri", set.uri());
  EXPECT_EQ("incr", set.type());
  EXPECT_EQ("the backup_file", set.backup_file());
  EXPECT_EQ("the uuid", set.uuid());
  EXPECT_EQ("the backup_id", set.backup_id());
  EXPECT_EQ("the last_backup_id", set.last_backup_id());
  EXPECT_EQ("the last_full_backup_id", set.last_full_backup_id());
  EXPECT_EQ(100u, set.backup_set_size());
  EXPECT_EQ(100u, set.total_size());
  EXPECT_EQ(101u, set.backup_lsn());
  EXPECT_EQ(102u, set.backup_scn());
  EXPECT_EQ(103u, set.last_backup_lsn());
  EXPECT_EQ(104u, set.last_backup_scn());
  EXPECT_EQ(105u, set.last_full_backup_lsn());
  EXPECT_EQ(106u, set.last_full_backup_scn());
  EXPECT_EQ("oscar_brcmd_backup_set", set.catalog_type());
  EXPECT_FALSE(set.minor_resource_id().empty());
  EXPECT_EQ(1000, set.start_time());
  EXPECT_EQ(2000, set.end_time());

  const kestrel::Backup_Record record = set.record();
  ASSERT_EQ(1u, record.storages.size());
  EXPECT_EQ("the pool_uuid", record.storages[0].pool_uuid);
  EXPECT_EQ(107u, record.storages[0].size);
  ASSERT_EQ(1u, record.pieces.size());
  EXPECT_EQ("the backup_file", record.pieces[0].name);
  EXPECT_EQ(0u, record.pieces[0].size);
}

TEST(Set_Record, refers_to_the_full_set_of_its_chain)
{
  Oscar_Brcmd_Backup_Set incremental;
  ASSERT_TRUE(fill(complete_values(), incremental));
  EXPECT_EQ("the last_full_backup_id", incremental.full_backup_id());

  Values values = complete_values();
  values["type"] = "full";
  Oscar_Brcmd_Backup_Set full;
  ASSERT_TRUE(fill(values, full));
  EXPECT_EQ("the uuid", full.full_backup_id());
}

TEST(Set_Record, fails_when_a_key_is_missing)
{
  for (const auto& value : complete_values()) {
    Log_Capture log;
    Values values = complete_values();
    values.erase(value.first);
    Oscar_Brcmd_Backup_Set set;
    EXPECT_FALSE(fill(values, set)) << value.first;
    log.expect(LM_ERROR, "Failed to build oscar brcmd backup set: key \"" + value.first + "\"");
  }
}

TEST(Set_Record, fails_when_a_key_has_another_type)
{
  for (const auto& value : complete_values()) {
    const bool is_text = value.second.type() == json_spirit::str_type;
    const json_spirit::Value wrong_values[] = {
        json_spirit::Value(), json_spirit::Value(true), json_spirit::Value(json_spirit::Array()),
        json_spirit::Value(1.5), is_text ? json_spirit::Value(1) : json_spirit::Value("1")};
    for (const json_spirit::Value& wrong : wrong_values) {
      Log_Capture log;
      Values values = complete_values();
      values[value.first] = wrong;
      Oscar_Brcmd_Backup_Set set;
      EXPECT_FALSE(fill(values, set)) << value.first;
      log.expect(LM_ERROR, "Failed to build oscar brcmd backup set: key \"" + value.first + "\"");
    }
  }
}

TEST(Set_Record, does_not_read_the_text_times)
{
  Values values = complete_values();
  values["start_time"] = 5;
  values["end_time"] = json_spirit::Array();
  Oscar_Brcmd_Backup_Set set;
  EXPECT_TRUE(fill(values, set));
}

TEST(Set_Record, keeps_numbers_above_the_signed_range)
{
  Values values = complete_values();
  values["backup_scn"] = std::numeric_limits<uint64_t>::max();
  Oscar_Brcmd_Backup_Set set;
  ASSERT_TRUE(fill(values, set));
  EXPECT_EQ(std::numeric_limits<uint64_t>::max(), set.backup_scn());
}

TEST(Set_Record, does_without_a_minor_id)
{
  Log_Capture log;
  Oscar_Brcmd_Backup_Set set;
  EXPECT_TRUE(fill_brcmd_backup_set(complete_values(), "", 1000, 2000, set));
  log.expect_exactly(LM_ERROR, "Failed to compute minor resource id for resource '' and backup type "
                               "'oscar_brcmd_backup_set'\n");
  EXPECT_EQ("", set.minor_resource_id());
  EXPECT_EQ(1u, set.record().pieces.size());
}
