#include "oscar/oscar_argument_check.h"
#include "oscar/oscar_cmd_handler.h"
#include "oscar/utils.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

namespace
{
using json_spirit::Pair;

json_spirit::Value to_array_value(const std::vector<std::string>& names)
{
  json_spirit::Value value;
  json_spirit::to_new_array(value) += names;
  return value;
}

// What an open database tells about itself.
bool add_open_database(std::shared_ptr<Instance> inst, const std::string& oscar_home, const char* instance,
                       const char* username, const char* password, json_spirit::Object& database)
{
  unsigned short port = 0;
  if (!get_instance_port(oscar_home.c_str(), instance, port)) {
    ACE_ERROR((LM_ERROR, "Failed to get port, instance %s.\n", instance));
    return false;
  }
  bool archivelog = false;
  if (!get_log_mode(oscar_home.c_str(), instance, username, password, port, archivelog)) {
    ACE_ERROR((LM_ERROR, "Failed to get archive mode, instance %s.\n", instance));
    return false;
  }
  database.push_back(Pair("archivelog", archivelog));
  std::string version;
  if (!get_from_instance_options(inst, "version", version)) {
    ACE_ERROR((LM_ERROR, "Failed to get version, instance %s.\n", instance));
    return false;
  }
  database.push_back(Pair("version", version));
  return true;
}
} // namespace

bool get_database_info(std::shared_ptr<Instance> inst, const char* instance, const char* username,
                       const char* password, json_spirit::Value& value)
{
  if (!OSCAR_TEXT_GIVEN(instance) || !OSCAR_TEXT_GIVEN(username) || !OSCAR_TEXT_GIVEN(password))
    return false;
  if (!inst) {
    ACE_ERROR((LM_ERROR, "Failed to invoke get_database_info, empty inst, instance %s.\n", instance));
    return false;
  }
  json_spirit::Object& database = json_spirit::append_new_object(json_spirit::to_new_array(value));
  database.push_back(Pair("database", instance));

  std::string oscar_home;
  if (!get_from_instance_options(inst, "oscar_home", oscar_home)) {
    ACE_ERROR((LM_ERROR, "Failed to get oscar home, instance %s.\n", instance));
    return false;
  }
  if (!test_login_instance(oscar_home.c_str(), instance, username, password, nullptr)) {
    database.push_back(Pair("status", "unopened"));
    return true;
  }
  database.push_back(Pair("status", "open"));
  return add_open_database(inst, oscar_home, instance, username, password, database);
}

bool get_schemas_info(std::shared_ptr<Instance> inst, const char* instance, const char* db,
                      const char* username, const char* password, json_spirit::Value& val)
{
  if (!OSCAR_TEXT_GIVEN(instance) || !OSCAR_TEXT_GIVEN(db) || !OSCAR_TEXT_GIVEN(username) ||
      !OSCAR_TEXT_GIVEN(password))
    return false;
  if (!inst) {
    ACE_ERROR((LM_ERROR, "Failed to invoke get_schemas_info, empty inst, database %s.\n", db));
    return false;
  }
  std::string oscar_home;
  if (!get_from_instance_options(inst, "oscar_home", oscar_home)) {
    ACE_ERROR((LM_ERROR, "Failed to get oscar home, database %s.\n", db));
    return false;
  }
  unsigned short port = 0;
  if (!get_instance_port(oscar_home.c_str(), instance, port)) {
    ACE_ERROR((LM_ERROR, "Failed to get port, database %s.\n", db));
    return false;
  }
  std::vector<std::string> names;
  if (!get_oscar_schemas(oscar_home.c_str(), instance, username, password, port, names)) {
    ACE_ERROR((LM_ERROR, "Failed to get schemas of database: %s.\n", db));
    return false;
  }
  val = to_array_value(names);
  return true;
}

bool get_tables_info(std::shared_ptr<Instance> inst, const char* instance, const char* db, const char* schema,
                     const char* username, const char* password, json_spirit::Value& val)
{
  if (!OSCAR_TEXT_GIVEN(instance) || !OSCAR_TEXT_GIVEN(db) || !OSCAR_TEXT_GIVEN(schema) ||
      !OSCAR_TEXT_GIVEN(username) || !OSCAR_TEXT_GIVEN(password))
    return false;
  if (!inst) {
    ACE_ERROR(
        (LM_ERROR, "Failed to invoke get_tables_info, empty instdatabase: %s, schema: %s.\n", db, schema));
    return false;
  }
  std::string oscar_home;
  if (!get_from_instance_options(inst, "oscar_home", oscar_home)) {
    ACE_ERROR((LM_ERROR, "Failed to get oscar homedatabase: %s, schema: %s.\n", db, schema));
    return false;
  }
  unsigned short port = 0;
  if (!get_instance_port(oscar_home.c_str(), instance, port)) {
    ACE_ERROR((LM_ERROR, "Failed to get portdatabase: %s, schema: %s.\n", db, schema));
    return false;
  }
  std::vector<std::string> names;
  if (!get_oscar_tables(oscar_home.c_str(), instance, username, password, port, schema, names)) {
    ACE_ERROR((LM_ERROR, "Failed to get tables of database: %s, schema: %s.\n", db, schema));
    return false;
  }
  val = to_array_value(names);
  return true;
}
