#include "oscar/logical_catalog.h"

#include "json/json_util.h"

#include <gtest/gtest.h>

using namespace oscar;
using json_spirit::Array;
using json_spirit::Value;

namespace
{
Value parsed(const std::string& text)
{
  Value value;
  std::string error;
  EXPECT_TRUE(kestrel::read_json(text, value, error)) << error;
  return value;
}

const std::string GOOD_ROW = R"({"uuid": "u1", "definition_uuid": "d1", "pool_uuid": "p1", "seq": 3,
  "backup_files": [{"database": "DB1", "schema": "S", "table": "T", "file": "/x/DB1_DB1/a.dump"}]})";

std::string chosen_uuid(const Array& rows, const Restore_Job_Source& source)
{
  const json_spirit::Object* const row = choose_logical_row(rows, source);
  return row ? json_spirit::find_value(*row, "uuid").get_str() : "none";
}

Logical_Backup::File file(const char* database, const char* schema, const char* table, const char* path)
{
  Logical_Backup::File file;
  file.database = database;
  file.schema = schema;
  file.table = table;
  file.file = path;
  return file;
}

std::string chosen_file(const Logical_Backup& backup, const std::string& database,
                        const std::string& schema = "", const std::string& table = "",
                        const std::string& path = "")
{
  struct Restore_Job_Source::original object;
  object.database = database;
  object.schema = schema;
  object.table = table;
  object.backup_file = path;
  const Oscar_Backup_File* const found = choose_backup_file(backup, object);
  return found ? found->file : "none";
}
} // namespace

TEST(Logical_Catalog, refuses_a_row_whose_record_is_damaged)
{
  json_spirit::Object row = parsed(GOOD_ROW).get_obj();
  row.emplace_back("unreadable", "the stored field tablespaces is not readable");
  try {
    read_logical_backup(row);
    FAIL() << "the row was taken";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(
        "the record of backup u1 is damaged: the stored field tablespaces is not readable. Put back a "
        "saved copy of the catalog",
        error.what());
  }
}

TEST(Logical_Catalog, reads_a_row)
{
  const Logical_Backup backup = read_logical_backup(parsed(GOOD_ROW).get_obj());
  EXPECT_EQ("u1", backup.uuid);
  EXPECT_EQ("d1", backup.definition_uuid);
  EXPECT_EQ("p1", backup.pool_uuid);
  EXPECT_EQ(3u, backup.seq);
  EXPECT_EQ("", backup.host_uuid);
  ASSERT_EQ(1u, backup.files.size());
  EXPECT_EQ("DB1", backup.files[0].database);
  EXPECT_EQ("S", backup.files[0].schema);
  EXPECT_EQ("T", backup.files[0].table);
  EXPECT_EQ("/x/DB1_DB1/a.dump", backup.files[0].file);
}

TEST(Logical_Catalog, keeps_a_number_of_64_bits)
{
  json_spirit::Object row = parsed(GOOD_ROW).get_obj();
  kestrel::set_value(row, "seq", static_cast<unsigned long long>(~0ull));
  EXPECT_EQ(~0ull, read_logical_backup(row).seq);
}

TEST(Logical_Catalog, refuses_a_row_of_every_wrong_shape)
{
  for (const char* const key : {"uuid", "definition_uuid", "pool_uuid", "seq", "backup_files"})
    for (const char* const wrong :
         {"null", "true", "1.5", "-1", "{}", "[1]", "[{}]", "[[]]", "\"text\"",
          "[{\"database\": 1, \"file\": \"f\"}]", "[{\"database\": \"d\"}]", "[{\"file\": \"f\"}]",
          "[{\"database\": \"d\", \"file\": \"f\", \"schema\": 1}]"}) {
      json_spirit::Object row = parsed(GOOD_ROW).get_obj();
      kestrel::set_value(row, key, parsed(wrong));
      const bool fits =
          std::string(wrong) == "\"text\"" && std::string(key) != "seq" && std::string(key) != "backup_files";
      if (fits)
        EXPECT_NO_THROW(read_logical_backup(row)) << key << " = " << wrong;
      else
        EXPECT_THROW(read_logical_backup(row), std::runtime_error) << key << " = " << wrong;
    }
}

TEST(Logical_Catalog, names_the_grade_of_an_object)
{
  struct Restore_Job_Source::original object;
  object.database = "DB1";
  EXPECT_STREQ("database", object_grade(object));
  object.table = "T";
  EXPECT_STREQ("database", object_grade(object)) << "a table counts only with its schema";
  object.schema = "S";
  EXPECT_STREQ("table", object_grade(object));
  object.table.clear();
  EXPECT_STREQ("schema", object_grade(object));
}

TEST(Logical_Catalog, takes_the_row_that_the_job_names)
{
  const Array rows = parsed(R"([7, {"uuid": "new", "seq": 2, "definition_uuid": "a"},
    {"uuid": "old", "seq": 1, "definition_uuid": "a"}, {"uuid": "other", "seq": 1, "definition_uuid": "b"},
    {"uuid": 5, "seq": "1"}])")
                         .get_array();
  Restore_Job_Source source;
  EXPECT_EQ("new", chosen_uuid(rows, source));
  source.seq(1);
  EXPECT_EQ("old", chosen_uuid(rows, source));
  source.backup_definition_id("b");
  EXPECT_EQ("other", chosen_uuid(rows, source));
  source.catalog_id("new");
  EXPECT_EQ("new", chosen_uuid(rows, source)) << "the catalog id goes before the number";
}

TEST(Logical_Catalog, takes_no_other_row_for_the_one_that_is_not_there)
{
  const Array rows = parsed(R"([{"uuid": "new", "seq": 2, "definition_uuid": "a"}])").get_array();
  Restore_Job_Source source;
  source.catalog_id("gone");
  EXPECT_EQ("none", chosen_uuid(rows, source));
  source.catalog_id("");
  source.seq(9);
  EXPECT_EQ("none", chosen_uuid(rows, source));
  source.seq(2);
  source.backup_definition_id("b");
  EXPECT_EQ("none", chosen_uuid(rows, source));
  EXPECT_EQ("none", chosen_uuid({}, Restore_Job_Source()));
}

TEST(Logical_Catalog, takes_the_newest_row_that_holds_the_object)
{
  const auto row = [](const char* uuid, int seq, const char* table) {
    json_spirit::Object row = parsed(GOOD_ROW).get_obj();
    kestrel::set_value(row, "uuid", uuid);
    kestrel::set_value(row, "seq", seq);
    kestrel::set_value(row, "backup_files",
                       parsed(std::string(R"([{"database": "DB1", "schema": "S", "file": "f", "table": ")") +
                              table + "\"}]"));
    return row;
  };
  Array rows = {row("newest", 3, "OTHER"), row("newer", 2, "T"), row("old", 1, "T")};
  Restore_Job_Source source;
  source.original().database = "DB1";
  source.original().schema = "S";
  source.original().table = "T";
  EXPECT_EQ("newer", chosen_uuid(rows, source));
  source.seq(1);
  EXPECT_EQ("old", chosen_uuid(rows, source));
  source.seq(3);
  EXPECT_EQ("none", chosen_uuid(rows, source));
  source.catalog_id("newest");
  EXPECT_EQ("newest", chosen_uuid(rows, source)) << "what it lacks is told later";
  source.catalog_id("");
  source.seq(0);
  source.original().table = "GONE";
  EXPECT_EQ("none", chosen_uuid(rows, source));
  kestrel::set_value(rows[0].get_obj(), "backup_files", Value());
  EXPECT_EQ("newest", chosen_uuid(rows, source)) << "nobody knows what it holds";
}

TEST(Logical_Catalog, takes_the_file_of_the_object)
{
  Logical_Backup backup;
  backup.files = {file("DB1", "", "", "db"), file("DB1", "S", "", "schema"), file("DB1", "S", "A", "a"),
                  file("DB1", "S", "B", "b"), file("DB2", "S", "B", "other")};
  EXPECT_EQ("db", chosen_file(backup, "DB1"));
  EXPECT_EQ("db", chosen_file(backup, "DB1", "", "B")) << "a table counts only with its schema";
  EXPECT_EQ("schema", chosen_file(backup, "DB1", "S"));
  EXPECT_EQ("b", chosen_file(backup, "DB1", "S", "B"));
  EXPECT_EQ("other", chosen_file(backup, "DB2", "S", "B"));
  EXPECT_EQ("none", chosen_file(backup, "DB1", "S", "C"));
  EXPECT_EQ("none", chosen_file(backup, "DB2"));
  EXPECT_EQ("a", chosen_file(backup, "DB1", "S", "B", "a")) << "a named file goes first";
  EXPECT_EQ("b", chosen_file(backup, "DB1", "S", "B", "gone"));
}

TEST(Logical_Catalog, takes_an_entry_without_schema_and_table_for_any_object_of_its_database)
{
  const Logical_Backup backup =
      read_logical_backup(parsed(R"({"uuid": "u1", "definition_uuid": "d1", "pool_uuid": "p1", "seq": 3,
                 "backup_files": [{"database": "DB1", "file": "first"}, {"database": "DB1", "file": "second"}]})")
                              .get_obj());
  EXPECT_EQ("first", chosen_file(backup, "DB1", "S", "T"));
  EXPECT_EQ("none", chosen_file(backup, "DB2", "S", "T"));
}
