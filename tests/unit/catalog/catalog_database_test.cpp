#include "catalog/catalog_database.h"

#include "catalog/catalog_fields.h"
#include "catalog/sql_back_end.h"
#include "catalog_fixture.h"
#include "support/fault_file_system.h"

#include <algorithm>
#include <fstream>
#include <set>
#include <soci/sqlite3/soci-sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

using kestrel::Catalog_Database;
using kestrel::Catalog_Error;
using kestrel::Catalog_Place;

class Catalog_Database_Test : public Catalog_Fixture
{
protected:
  /// Every operation must fail with these texts and leave the file as it is.
  void expect_damage(const std::string& text)
  {
    const std::string before = read_all();
    json_spirit::Value result("untouched");
    EXPECT_FALSE(view({}, result));
    EXPECT_EQ("untouched", result.get_str());
    log_.expect(LM_ERROR, text);
    EXPECT_FALSE(commit(make_set("new")));
    log_.expect(LM_ERROR, catalog_path());
    EXPECT_EQ(before, read_all());
  }
  static void commit_hundred()
  {
    std::vector<Oscar_Brcmd_Backup_Set> sets;
    for (int i = 0; i < 100; ++i)
      sets.push_back(make_set("b" + std::to_string(i)));
    commit_many(sets);
  }
  std::string read_all() const
  {
    std::ifstream file(catalog_path(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  void write_catalog(const std::string& content)
  {
    root_.write("var/opt/tarnvik/kestrel3/agent/catalog.db", content);
  }
  static std::string open_error(const Catalog_Place& place)
  {
    try {
      Catalog_Database database(place);
    } catch (const Catalog_Error& error) {
      return error.what();
    }
    return std::string();
  }
};

TEST_F(Catalog_Database_Test, is_durable_and_checks_references)
{
  Catalog_Database database(kestrel::default_catalog_place());
  EXPECT_TRUE(database.created());
  std::string mode;
  int synchronous = 0, foreign_keys = 0, timeout = 0;
  database.session() << "PRAGMA journal_mode", soci::into(mode);
  database.session() << "PRAGMA synchronous", soci::into(synchronous);
  database.session() << "PRAGMA foreign_keys", soci::into(foreign_keys);
  database.session() << "PRAGMA busy_timeout", soci::into(timeout);
  EXPECT_EQ("wal", mode);
  EXPECT_EQ(2, synchronous);
  EXPECT_EQ(1, foreign_keys);
  EXPECT_EQ(2000, timeout);
  EXPECT_THROW(database.session() << "INSERT INTO backup_set_piece VALUES (77, 0, 'x', 1)", soci::soci_error);
  struct stat status;
  ASSERT_EQ(0, ::stat(catalog_path().c_str(), &status));
  EXPECT_EQ(0u, status.st_mode & 0007u) << "others may not read it";
  EXPECT_FALSE(Catalog_Database(kestrel::default_catalog_place()).created());
}

TEST_F(Catalog_Database_Test, every_field_has_a_column)
{
  Catalog_Database database(kestrel::default_catalog_place());
  std::set<std::string> columns;
  soci::rowset<std::string> names =
      (database.session().prepare << "SELECT name FROM pragma_table_info('backup_set')");
  for (const std::string& name : names)
    columns.insert(name);
  for (const kestrel::Catalog_Field& field : kestrel::catalog_fields())
    EXPECT_EQ(1u, columns.erase(field.name)) << field.name;
  EXPECT_EQ((std::set<std::string>{"id", "catalog"}), columns) << "columns that no row shows";
}

TEST_F(Catalog_Database_Test, every_index_has_its_statistics)
{
  Catalog_Database database(kestrel::default_catalog_place());
  std::set<std::string> indexes;
  soci::rowset<std::string> names =
      (database.session().prepare << "SELECT i.name || ' ' || count(*) FROM sqlite_master i, "
                                     "pragma_index_info(i.name) c WHERE i.type = 'index' "
                                     "AND i.tbl_name LIKE 'backup_set%' GROUP BY i.name");
  for (const std::string& name : names)
    indexes.insert(name);
  for (const kestrel::Index_Statistics& index : kestrel::catalog_index_statistics()) {
    const std::string rows = index.rows;
    EXPECT_EQ(1u,
              indexes.erase(index.index + (" " + std::to_string(std::count(rows.begin(), rows.end(), ' ')))))
        << index.index << " must exist and have this number of columns";
  }
  EXPECT_TRUE(indexes.empty()) << *indexes.begin();
}

TEST_F(Catalog_Database_Test, a_path_with_odd_characters_works)
{
  Catalog_Place place;
  place.path = root_.make_dir("a b'c=d;e%f\xc3\xa4") + "/catalog.db";
  EXPECT_EQ("", open_error(place));
  EXPECT_EQ("", open_error(place));
  EXPECT_TRUE(kestrel_test::exists(place.path));
  place.path = root_.make_dir("a\"b") + "/catalog.db";
  EXPECT_NE(std::string::npos, open_error(place).find("quotation mark"));
}

TEST_F(Catalog_Database_Test, refuses_an_empty_file)
{
  ASSERT_TRUE(commit(make_set("b1")));
  write_catalog("");
  expect_damage("is empty (0 bytes). The file is damaged: move it away");
}

TEST_F(Catalog_Database_Test, refuses_a_file_of_another_kind)
{
  write_catalog(std::string(20000, 'x'));
  expect_damage("The file is damaged: move it away");
}

TEST_F(Catalog_Database_Test, refuses_a_database_of_another_program)
{
  ASSERT_TRUE(rows({}).empty());
  {
    soci::session other(soci::sqlite3, "db=" + (root_ / "other.db"));
    other << "CREATE TABLE t (x INTEGER)";
  }
  write_catalog(kestrel_test::read_file(root_ / "other.db"));
  expect_damage("is a database, but not a catalog of this program");
  {
    soci::session other(soci::sqlite3, "db=" + (root_ / "other.db"));
    other << "CREATE TABLE schema_version (version INTEGER)";
    other << "INSERT INTO schema_version VALUES (1)";
  }
  write_catalog(kestrel_test::read_file(root_ / "other.db"));
  expect_damage("is a database, but not a catalog of this program");
}

TEST_F(Catalog_Database_Test, reports_a_truncated_file)
{
  commit_hundred();
  const std::string whole = read_all();
  ASSERT_GT(whole.size(), 50000u);
  for (const size_t part : {whole.size() / 2, whole.size() - 4096, size_t(4096), size_t(100), size_t(10)}) {
    write_catalog(whole.substr(0, part));
    expect_damage("The file is damaged: move it away");
  }
  write_catalog(whole);
  EXPECT_EQ(100u, rows({}).size());
}

TEST_F(Catalog_Database_Test, reports_a_page_of_rubbish)
{
  commit_hundred();
  const std::string whole = read_all();
  unsigned reported = 0;
  for (size_t page = 4096; page + 4096 <= whole.size(); page += 4096) {
    write_catalog(std::string(whole).replace(page, 4096, std::string(4096, '\xa5')));
    json_spirit::Value result;
    if (!view({{"sort", "start_time"}}, result)) {
      ++reported;
      log_.expect(LM_ERROR, "The file is damaged");
    } else // the page was of an index that this query does not use
      EXPECT_EQ(100u, json_spirit::find_value(result.get_obj(), "rows").get_array().size());
  }
  EXPECT_GT(reported, 5u);
}

TEST_F(Catalog_Database_Test, reports_a_path_that_cannot_be_used)
{
  ASSERT_EQ(0, ::mkdir((root_.make_dir("var/opt/tarnvik/kestrel3/agent") + "/catalog.db").c_str(), 0700));
  json_spirit::Value result;
  EXPECT_FALSE(view({}, result));
  log_.expect(LM_ERROR, "Check that its directory exists and that this user may read and write it");
  Catalog_Place place;
  place.path = root_ / "nowhere/catalog.db";
  EXPECT_NE(std::string::npos, open_error(place).find(place.path));
}

TEST_F(Catalog_Database_Test, does_not_begin_anew_beside_the_log_of_a_lost_catalog)
{
  root_.write("var/opt/tarnvik/kestrel3/agent/catalog.db-wal", "whatever");
  json_spirit::Value result;
  EXPECT_FALSE(view({}, result));
  log_.expect(LM_ERROR, "is missing, but its log " + catalog_path() + "-wal is there");
  EXPECT_FALSE(kestrel_test::exists(catalog_path()));
}

TEST_F(Catalog_Database_Test, a_leftover_of_an_interrupted_creation_is_replaced)
{
  for (const char* suffix : {".new", ".new-wal", ".new-shm", ".new-journal"})
    root_.write("var/opt/tarnvik/kestrel3/agent/catalog.db" + std::string(suffix), "rubbish");
  ASSERT_TRUE(commit(make_set("b1")));
  EXPECT_FALSE(kestrel_test::exists(catalog_path() + ".new"));
}

TEST_F(Catalog_Database_Test, creation_survives_every_failing_call)
{
  unsigned failures = 0;
  for (const char* kind : {"open", "rename", "fsync_directory", "unlink", "stat", "close"}) {
    bool met = true;
    for (unsigned number = 1; met; ++number) {
      ASSERT_LT(number, 100u);
      ::unlink(catalog_path().c_str());
      std::string error;
      {
        kestrel_test::Fault_File_System faults;
        faults.fail(kind, number, EROFS);
        error = open_error(kestrel::default_catalog_place());
        met = faults.met();
      }
      failures += !error.empty();
      EXPECT_EQ("", open_error(kestrel::default_catalog_place())) << kind << number;
      EXPECT_TRUE(rows({}).empty());
    }
  }
  EXPECT_GT(failures, 5u);
}

TEST_F(Catalog_Database_Test, refuses_a_catalog_of_a_newer_release)
{
  ASSERT_TRUE(commit(make_set("b1")));
  {
    Catalog_Database database(kestrel::default_catalog_place());
    database.session() << "UPDATE schema_version SET version = 99";
  }
  expect_damage("was written by a newer release (schema 99, this program knows up to " +
                std::to_string(kestrel::catalog_migrations().size()) + "). Update this program");
}
