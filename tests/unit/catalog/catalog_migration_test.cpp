#include "catalog/catalog_database.h"
#include "catalog/sql_back_end.h"
#include "catalog_fixture.h"

#include <algorithm>

using kestrel::Catalog_Database;
using kestrel::Catalog_Error;
using kestrel::Catalog_Migrations;
using kestrel::Catalog_Place;

/// Older schemas, on whichever kind of database the fixture uses.
class Catalog_Migration : public Catalog_Fixture
{
protected:
  static Catalog_Migrations first_steps(size_t count)
  {
    const Catalog_Migrations& all = kestrel::catalog_migrations();
    return Catalog_Migrations(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(count));
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
  static int version_of(soci::session& session)
  {
    int version = -1;
    session << "SELECT version FROM schema_version", soci::into(version);
    return version;
  }
  /// Every column and every index of the catalog's tables, in the database's own words.
  static std::vector<std::string> schema_of(soci::session& session)
  {
    const bool on_server = session.get_backend_name() == "postgresql";
    const char* const query =
        on_server
            ? "SELECT table_name || ' ' || column_name || ' ' || data_type || ' ' || is_nullable || ' ' || "
              "CASE WHEN column_default LIKE 'nextval%' THEN 'nextval' ELSE coalesce(column_default, '') END "
              "FROM information_schema.columns WHERE table_schema = current_schema() UNION ALL "
              "SELECT replace(indexdef, schemaname || '.', '') FROM pg_indexes WHERE schemaname = "
              "current_schema()"
            : "SELECT m.name || ' ' || c.name || ' ' || c.type || ' ' || c.\"notnull\" || ' ' || "
              "coalesce(c.dflt_value, '') FROM sqlite_master m, pragma_table_info(m.name) c "
              "WHERE m.type = 'table' AND m.name NOT LIKE 'sqlite%' UNION ALL "
              "SELECT sql FROM sqlite_master WHERE type = 'index' AND sql IS NOT NULL";
    std::vector<std::string> lines;
    soci::rowset<std::string> found = (session.prepare << query);
    for (const std::string& line : found)
      lines.push_back(line);
    std::sort(lines.begin(), lines.end());
    return lines;
  }
};

TEST_F(Catalog_Migration, every_older_schema_becomes_the_one_of_a_new_catalog)
{
  std::vector<std::string> wanted;
  {
    const Server_Schema another(root_);
    Catalog_Place place = kestrel::default_catalog_place();
    place.path = root_ / "new.db";
    Catalog_Database database(place);
    wanted = schema_of(database.session());
  }
  ASSERT_GT(wanted.size(), 50u);
  const size_t newest = kestrel::catalog_migrations().size();
  for (size_t version = 1; version < newest; ++version) {
    const Server_Schema another(root_);
    Catalog_Place place = kestrel::default_catalog_place();
    place.path = root_ / (std::to_string(version) + ".db");
    const Catalog_Migrations older = first_steps(version);
    place.migrations = &older;
    {
      Catalog_Database database(place);
      ASSERT_EQ(static_cast<int>(version), version_of(database.session()));
      ASSERT_NE(wanted, schema_of(database.session()));
    }
    place.migrations = &kestrel::catalog_migrations();
    Catalog_Database database(place);
    EXPECT_EQ(static_cast<int>(newest), version_of(database.session()));
    EXPECT_EQ(wanted, schema_of(database.session())) << "from schema " << version;
    log_.expect(LM_NOTICE, "was brought from schema " + std::to_string(version) + " to");
  }
}

TEST_F(Catalog_Migration, an_archive_belongs_to_one_set_after_all_steps)
{
  Catalog_Place place = kestrel::default_catalog_place();
  const Catalog_Migrations older = first_steps(1);
  place.migrations = &older;
  const std::string set =
      "INSERT INTO backup_set (catalog, uuid, seq, minor_resource_id, pool_uuid) VALUES ('oscar', ";
  {
    Catalog_Database database(place);
    database.session() << set + "'u1', 1, 'm', 'p')";
    database.session() << set + "'u2', 0, 'm', 'p')";
  }
  Catalog_Database database(kestrel::default_catalog_place());
  log_.expect(LM_NOTICE, "was brought from schema 1 to");
  EXPECT_THROW(database.session() << set + "'u3', 1, 'm', 'p')", soci::soci_error);
  EXPECT_NO_THROW(database.session() << set + "'u4', 0, 'm', 'p')") << "0 is no number";
}

TEST_F(Catalog_Migration, brings_an_older_schema_up_to_date)
{
  ASSERT_TRUE(commit(make_set("b1")));
  kestrel::Catalog_Migrations migrations = kestrel::catalog_migrations();
  const int before = static_cast<int>(migrations.size());
  migrations.push_back(
      {"ALTER TABLE backup_set ADD COLUMN note TEXT", "CREATE TABLE note_kind (id {id}, kind TEXT)"});
  migrations.push_back({"UPDATE backup_set SET note = 'old'"});
  Catalog_Place place = kestrel::default_catalog_place();
  place.migrations = &migrations;
  {
    Catalog_Database database(place);
    std::string note;
    database.session() << "SELECT note FROM backup_set", soci::into(note);
    EXPECT_EQ("old", note);
    EXPECT_EQ(before + 2, version_of(database.session()));
  }
  log_.expect(LM_NOTICE,
              "was brought from schema " + std::to_string(before) + " to " + std::to_string(before + 2));
  EXPECT_EQ("", open_error(place)) << "and only once";
}

TEST_F(Catalog_Migration, of_the_first_release_keeps_its_files)
{
  const kestrel::Catalog_Migrations first(kestrel::catalog_migrations().begin(),
                                          kestrel::catalog_migrations().begin() + 1);
  Catalog_Place place = kestrel::default_catalog_place();
  place.migrations = &first;
  {
    Catalog_Database database(place);
    database.session() << "INSERT INTO backup_set (catalog, uuid, seq) VALUES ('oscar', 'u1', 1)";
    database.session() << "INSERT INTO backup_set_file (set_id, position, database_name, schema_name, "
                          "table_name, file_name, grade) SELECT id, 0, 'DB', '', '', '/f', 'database' FROM "
                          "backup_set";
  }
  const json_spirit::Array found = rows({{"database", "DB"}, {"with_files", true}}, "oscar");
  ASSERT_EQ(1u, found.size());
  const json_spirit::Array& files = json_spirit::find_value(found[0].get_obj(), "backup_files").get_array();
  ASSERT_EQ(1u, files.size());
  EXPECT_EQ("/f", json_spirit::find_value(files[0].get_obj(), "file").get_str());
  EXPECT_EQ(0u, json_spirit::find_value(files[0].get_obj(), "size").get_uint64());
  log_.expect(LM_NOTICE, "was brought from schema 1 to");
}

TEST_F(Catalog_Migration, a_migration_that_fails_half_way_is_not_visible)
{
  ASSERT_TRUE(commit(make_set("b1")));
  kestrel::Catalog_Migrations migrations = kestrel::catalog_migrations();
  migrations.push_back(
      {"ALTER TABLE backup_set ADD COLUMN note TEXT", "UPDATE backup_set SET name = 'changed'"});
  migrations.push_back({"CREATE TABLE broken (id {id}", "SELECT 1"});
  Catalog_Place place = kestrel::default_catalog_place();
  place.migrations = &migrations;
  EXPECT_NE(std::string::npos, open_error(place).find(place.name()));
  EXPECT_EQ("nightly", texts(rows({}), "name"));
  Catalog_Database database(kestrel::default_catalog_place());
  EXPECT_EQ(static_cast<int>(kestrel::catalog_migrations().size()), version_of(database.session()));
  EXPECT_THROW(database.session() << "SELECT note FROM backup_set", soci::soci_error);
}
