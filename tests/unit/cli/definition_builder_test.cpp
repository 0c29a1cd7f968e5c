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
