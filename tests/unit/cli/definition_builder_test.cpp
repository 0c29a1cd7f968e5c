#include "cli/definition_builder.h"

#include "json/json_util.h"

#include <gtest/gtest.h>

using namespace kestrel;

namespace
{
const Host_Identity identity = {"11111111-1111-4111-8111-111111111111", "22222222-2222-4222-8222-222222222222"};
const char* const instance_uuid = "33333333-3333-4333-8333-333333333333";

json_spirit::Object parse(const std::string& text)
{
  json_spirit::Value value;
  std::string error;
  EXPECT_TRUE(read_json(text, value, error)) << error;
  return value.get_obj();
}
} // namespace

TEST(Definition_Builder, makes_a_backup_definition_of_the_whole_instance)
{
  Backup_Request request;
  request.instance_name = "DB1";
  request.instance_uuid = instance_uuid;
  request.pool_id = "pool";
  request.level = "full";
  request.compression = "lz4";
  request.compression_level = 3;
  request.rate_limit_bytes_per_second = 1000;
  const json_spirit::Object definition = parse(backup_definition(identity, request));
  EXPECT_EQ("backup", required<std::string>(definition, "type"));
  EXPECT_EQ("full", required<std::string>(definition, "subtype"));
  EXPECT_EQ("DB1", required<std::string>(definition, "name"));
  EXPECT_EQ(identity.user_id, required<std::string>(definition, "uid"));
  EXPECT_EQ(identity.host_id, required<std::string>(definition, "host_id"));
  EXPECT_EQ("pool", required<std::string>(required<json_spirit::Object>(definition, "target"), "id"));
  const json_spirit::Object source = required<json_spirit::Object>(definition, "source");
  EXPECT_EQ(instance_uuid, required<std::string>(source, "id"));
  EXPECT_EQ("oscar/DB1", required<json_spirit::Array>(source, "entries").at(0).get_str());
  EXPECT_EQ(1000u, required<uint64_t>(required<json_spirit::Object>(definition, "rate_limits"), "write"));
  EXPECT_EQ(3, required<int>(required<json_spirit::Object>(definition, "options"), "compression_level"));
}

TEST(Definition_Builder, keeps_slashes_and_percent_signs_of_a_name_inside_one_segment)
{
  Backup_Request request;
  request.instance_name = "A/B%C";
  const json_spirit::Object source =
      required<json_spirit::Object>(parse(backup_definition(identity, request)), "source");
  EXPECT_EQ("oscar/A%2FB%25C", required<json_spirit::Array>(source, "entries").at(0).get_str());
}

TEST(Definition_Builder, gives_every_backup_of_an_instance_the_same_definition_id)
{
  Backup_Request request;
  request.instance_uuid = instance_uuid;
  const std::string first = required<std::string>(parse(backup_definition(identity, request)), "id");
  request.compression = "none";
  EXPECT_EQ(first, required<std::string>(parse(backup_definition(identity, request)), "id"));
  request.instance_uuid = identity.host_id;
  EXPECT_NE(first, required<std::string>(parse(backup_definition(identity, request)), "id"));
}

TEST(Definition_Builder, names_backup_instance_and_pool_of_a_restore)
{
  Restore_Request request;
  request.instance_name = "DB1";
  request.resource_uuid = instance_uuid;
  request.backup_id = "b1";
  request.pool_id = "pool";
  json_spirit::Object definition = parse(restore_definition(identity, request));
  json_spirit::Object source = required<json_spirit::Object>(definition, "source");
  EXPECT_EQ("restore", required<std::string>(definition, "type"));
  EXPECT_EQ("b1", required<std::string>(source, "catalog_id"));
  EXPECT_EQ("DB1", required<std::string>(source, "name"));
  EXPECT_TRUE(json_spirit::find_value(source, "pool_uuid").is_null());
  request.pool_override = "other";
  source = required<json_spirit::Object>(parse(restore_definition(identity, request)), "source");
  EXPECT_EQ("other", required<std::string>(source, "pool_uuid"));
}

TEST(Definition_Builder, makes_an_export_of_every_object)
{
  Export_Request request;
  request.instance_name = "DB1";
  request.instance_uuid = instance_uuid;
  request.pool_id = "pool";
  request.objects = {{"DB1", "DB1", "", ""}, {"DB1", "DB1", "a/b", ""}, {"DB1", "DB1", "S", "T"}};
  request.compression = "zstd";
  request.rate_limit_bytes_per_second = 5;
  const json_spirit::Object definition = parse(export_definition(identity, request));
  EXPECT_EQ("backup", required<std::string>(definition, "type"));
  EXPECT_EQ("export", required<std::string>(definition, "subtype"));
  const json_spirit::Object source = required<json_spirit::Object>(definition, "source");
  EXPECT_EQ(instance_uuid, required<std::string>(source, "id")) << "jobs on one instance exclude each other by it";
  EXPECT_EQ((json_spirit::Array{"oscar/DB1/DB1", "oscar/DB1/DB1/a%2Fb", "oscar/DB1/DB1/S/T"}),
            required<json_spirit::Array>(source, "entries"));
  EXPECT_EQ(5u, required<uint64_t>(required<json_spirit::Object>(definition, "rate_limits"), "write"));

  Backup_Request backup;
  backup.instance_uuid = instance_uuid;
  EXPECT_NE(required<std::string>(parse(backup_definition(identity, backup)), "id"),
            required<std::string>(definition, "id"))
      << "the numbers of exports count by definition";
}

TEST(Definition_Builder, makes_an_import_with_every_name)
{
  Import_Request request;
  request.target_uuid = "44444444-4444-4444-8444-444444444444";
  request.resource_uuid = instance_uuid;
  request.export_id = "export-1";
  request.pool_id = "pool";
  request.original = {"DB1", "DB1", "S", "T"};
  request.dump_file = "/dump/DB1_DB1/a.dump";
  request.target = {"DB2", "DB2", "S2", "T2"};
  const json_spirit::Object definition = parse(import_definition(identity, request));
  EXPECT_EQ("restore", required<std::string>(definition, "type"));
  EXPECT_EQ("import", required<std::string>(definition, "subtype"));
  const json_spirit::Object source = required<json_spirit::Object>(definition, "source");
  EXPECT_EQ(instance_uuid, required<std::string>(source, "id"));
  EXPECT_EQ("DB2", required<std::string>(source, "name"));
  EXPECT_EQ("export-1", required<std::string>(source, "catalog_id"));
  const json_spirit::Object original = required<json_spirit::Object>(source, "original");
  EXPECT_EQ("DB1", required<std::string>(original, "database"));
  EXPECT_EQ("S", required<std::string>(original, "schema"));
  EXPECT_EQ("T", required<std::string>(original, "table"));
  EXPECT_EQ("/dump/DB1_DB1/a.dump", required<std::string>(original, "backup_file"));
  const json_spirit::Object target = required<json_spirit::Object>(source, "restore_as");
  EXPECT_EQ("DB2", required<std::string>(target, "database"));
  EXPECT_EQ("S2", required<std::string>(target, "schema"));
  EXPECT_EQ("T2", required<std::string>(target, "table"));
}

TEST(Definition_Builder, leaves_the_names_of_a_whole_database_out)
{
  Import_Request request;
  request.original = {"DB1", "DB1", "", ""};
  request.target = {"DB2", "DB2", "", ""};
  const json_spirit::Object source =
      required<json_spirit::Object>(parse(import_definition(identity, request)), "source");
  for (const char* const key : {"original", "restore_as"}) {
    const json_spirit::Object names = required<json_spirit::Object>(source, key);
    EXPECT_TRUE(json_spirit::find_value(names, "schema").is_null());
    EXPECT_TRUE(json_spirit::find_value(names, "table").is_null());
  }
}
