#include "cli/object_path.h"

#include <gtest/gtest.h>

using namespace kestrel;

namespace
{
Object_Path parsed(const std::string& text)
{
  Object_Path path;
  std::string error;
  EXPECT_TRUE(parse_object_path(text, path, error)) << error;
  return path;
}

std::string refused(const std::string& text)
{
  Object_Path path = {"kept", "", "", ""};
  std::string error;
  EXPECT_FALSE(parse_object_path(text, path, error)) << text;
  EXPECT_EQ("kept", path.instance);
  return error;
}

std::string completion_error(const std::string& text)
{
  Object_Path path = parsed(text);
  std::string error;
  EXPECT_FALSE(complete_object("DB1", path, error)) << text;
  return error;
}
} // namespace

TEST(Object_Path, has_one_to_four_names)
{
  const Object_Path path = parsed("DB1/DB1/SALES/ORDERS");
  EXPECT_EQ("DB1", path.instance);
  EXPECT_EQ("DB1", path.database);
  EXPECT_EQ("SALES", path.schema);
  EXPECT_EQ("ORDERS", path.table);
  EXPECT_EQ("", parsed("DB1").database);
  EXPECT_EQ("", parsed("DB1/DB1/SALES").table);
}

TEST(Object_Path, is_read_back_from_its_text)
{
  for (const char* const text :
       {"DB1", "DB1/DB1", "DB1/DB1/S", "DB1/DB1/S/T", "DB1/DB1/a%2Fb/100%25", "D/D/Täble/x"})
    EXPECT_EQ(text, object_text(parsed(text)));
  EXPECT_EQ("a/b", parsed("DB1/DB1/a%2Fb").schema);
}

TEST(Object_Path, refuses_too_many_and_empty_names)
{
  for (const char* const text : {"", "/", "DB1/", "DB1//S", "//DB1", "a/b/c/d/e"})
    EXPECT_EQ("'" + std::string(text) +
                  "' names no object; write INSTANCE/DATABASE/SCHEMA/TABLE as far as it is wanted",
              refused(text));
}

TEST(Object_Path, names_its_level)
{
  EXPECT_STREQ("database", object_level(parsed("DB1")));
  EXPECT_STREQ("database", object_level(parsed("DB1/DB1")));
  EXPECT_STREQ("schema", object_level(parsed("DB1/DB1/S")));
  EXPECT_STREQ("table", object_level(parsed("DB1/DB1/S/T")));
}

TEST(Object_Path, is_completed_in_the_instances_own_spelling)
{
  for (const char* const text : {"db1/Db1/S", "DB1/DB1/S"}) {
    Object_Path path = parsed(text);
    std::string error;
    EXPECT_TRUE(complete_object("DB1", path, error)) << error;
    EXPECT_EQ("DB1/DB1/S", object_text(path));
  }
  Object_Path path = parsed("db1");
  std::string error;
  EXPECT_TRUE(complete_object("DB1", path, error)) << error;
  EXPECT_EQ("DB1/DB1", object_text(path));
}

TEST(Object_Path, of_another_instance_or_database_is_refused)
{
  EXPECT_NE(std::string::npos, completion_error("DB2/DB2/S").find("one call takes objects of one instance"));
  EXPECT_NE(std::string::npos, completion_error("DB1/OTHER").find("there is no database OTHER in DB1"));
}

TEST(Object_Path, with_a_name_that_the_tools_cannot_be_given_is_refused)
{
  for (const char* const text : {"DB1/DB1/a b", "DB1/DB1/S/a%2Fb", "DB1/DB1/S/a\"b", "DB1/DB1/it's"})
    EXPECT_NE(std::string::npos, completion_error(text).find("OSCAR's tools have no way to take it")) << text;
  for (const char* const text : {"DB1/DB1/\"Quoted\"", "DB1/DB1/S/Mixed_Case$1"}) {
    Object_Path path = parsed(text);
    std::string error;
    EXPECT_TRUE(complete_object("DB1", path, error)) << error;
  }
}
