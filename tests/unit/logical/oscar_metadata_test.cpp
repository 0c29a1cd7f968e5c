#include "oscar/oscar_metadata.h"

#include "support/log_capture.h"

#include <gtest/gtest.h>

using json_spirit::Value;
using oscar::Oscar_Metadata;

namespace
{
const char NOT_OBJECT[] = "metadata_ is not object!\n";

Oscar_Metadata object()
{
  Oscar_Metadata metadata;
  metadata.metadata(json_spirit::Object());
  return metadata;
}
} // namespace

TEST(Oscar_Metadata, gives_back_what_was_set)
{
  Oscar_Metadata metadata = object();
  EXPECT_TRUE(metadata.set_dbinstance("DB1"));
  EXPECT_TRUE(metadata.set_tablespaces({Value("TS1"), Value("TS2")}));
  std::string instance;
  std::vector<Value> tablespaces;
  EXPECT_TRUE(metadata.get_dbinstance(instance));
  EXPECT_TRUE(metadata.get_tablespaces(tablespaces));
  EXPECT_EQ("DB1", instance);
  EXPECT_EQ((std::vector<Value>{"TS1", "TS2"}), tablespaces);
}

TEST(Oscar_Metadata, replaces_what_was_set_before)
{
  Oscar_Metadata metadata = object();
  EXPECT_TRUE(metadata.set_tablespaces({Value("TS1"), Value("TS2")}));
  EXPECT_TRUE(metadata.set_tablespaces({Value("TS3")}));
  EXPECT_TRUE(metadata.set_dbinstance("A"));
  EXPECT_TRUE(metadata.set_dbinstance("B"));
  std::vector<Value> tablespaces;
  std::string instance;
  EXPECT_TRUE(metadata.get_tablespaces(tablespaces));
  EXPECT_TRUE(metadata.get_dbinstance(instance));
  EXPECT_EQ((std::vector<Value>{"TS3"}), tablespaces);
  EXPECT_EQ("B", instance);
  EXPECT_EQ(2u, metadata.metadata().get_obj().size());
}

TEST(Oscar_Metadata, has_the_two_keys_of_the_record)
{
  Oscar_Metadata metadata = object();
  EXPECT_TRUE(metadata.set_dbinstance("DB1"));
  EXPECT_TRUE(metadata.set_tablespaces({}));
  const json_spirit::Object& record = metadata.metadata().get_obj();
  EXPECT_EQ(Value("DB1"), json_spirit::find_value(record, "dbinstance"));
  EXPECT_EQ(Value(json_spirit::Array()), json_spirit::find_value(record, "tablespaces"));
}

TEST(Oscar_Metadata, refuses_everything_until_it_is_an_object)
{
  for (const Value& wrong : {Value(), Value("text"), Value(1), Value(json_spirit::Array())}) {
    kestrel_test::Log_Capture log;
    Oscar_Metadata metadata;
    metadata.metadata(wrong);
    std::string instance = "kept";
    std::vector<Value> tablespaces = {"kept"};
    EXPECT_FALSE(metadata.get_dbinstance(instance));
    EXPECT_FALSE(metadata.set_dbinstance("DB1"));
    EXPECT_FALSE(metadata.get_tablespaces(tablespaces));
    EXPECT_FALSE(metadata.set_tablespaces({}));
    EXPECT_EQ("kept", instance);
    EXPECT_EQ(1u, tablespaces.size());
    EXPECT_EQ(wrong, metadata.metadata());
    for (int i = 0; i < 4; ++i)
      log.expect(LM_EMERGENCY, NOT_OBJECT);
    EXPECT_EQ(4u, log.count("Unexpected error in /builds/7/rpm/src/backup/oscar/oscar_metadata:"));
  }
}

TEST(Oscar_Metadata, reports_the_line_of_each_operation)
{
  kestrel_test::Log_Capture log;
  Oscar_Metadata metadata;
  std::string instance;
  EXPECT_FALSE(metadata.get_dbinstance(instance));
  EXPECT_FALSE(metadata.set_dbinstance("DB1"));
  ASSERT_EQ(2u, log.lines().size());
  EXPECT_NE(log.lines()[0].text, log.lines()[1].text);
  log.expect(LM_EMERGENCY, NOT_OBJECT);
  log.expect(LM_EMERGENCY, NOT_OBJECT);
}

TEST(Oscar_Metadata, does_not_give_a_missing_or_ill_typed_value)
{
  Oscar_Metadata metadata = object();
  std::string instance = "kept";
  std::vector<Value> tablespaces = {"kept"};
  EXPECT_FALSE(metadata.get_dbinstance(instance));
  EXPECT_FALSE(metadata.get_tablespaces(tablespaces));
  json_spirit::Object wrong;
  wrong.emplace_back("dbinstance", 7);
  wrong.emplace_back("tablespaces", "TS1");
  metadata.metadata(wrong);
  EXPECT_FALSE(metadata.get_dbinstance(instance));
  EXPECT_FALSE(metadata.get_tablespaces(tablespaces));
  EXPECT_EQ("kept", instance);
  EXPECT_EQ(1u, tablespaces.size());
}
