#include "oscar/utils.h"
#include "support/fault_process_api.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

#include <cerrno>

using json_spirit::Value;
using kestrel::write_json;
using kestrel_test::Fault_Process_Api;
using kestrel_test::Log_Capture;
using kestrel_test::Temp_Dir;

namespace
{
const char* const Missing[] = {nullptr, ""};

std::shared_ptr<Instance> instance_at(const std::string& oscar_home)
{
  auto instance = std::make_shared<Instance>();
  instance->options["oscar_home"] = oscar_home;
  return instance;
}
} // namespace

TEST(Test_Login_Instance, checks_its_arguments_in_order)
{
  for (const char* missing : Missing) {
    Log_Capture log;
    EXPECT_FALSE(test_login_instance(missing, missing, missing, missing, nullptr));
    EXPECT_FALSE(test_login_instance("/opt/db", missing, missing, missing, nullptr));
    EXPECT_FALSE(test_login_instance("/opt/db", "DB1", missing, missing, nullptr));
    EXPECT_FALSE(test_login_instance("/opt/db", "DB1", "u", missing, nullptr));
    EXPECT_EQ(log.lines().size(), 4u);
    for (const char* name : {"oscar_home", "instance", "username", "password"})
      log.expect(LM_EMERGENCY, std::string(", ") + name + " is NULL or \"\":\n");
  }
}

TEST(Test_Login_Instance, needs_a_port)
{
  Log_Capture log;
  Fault_Process_Api api;
  const Temp_Dir home;
  home.write("admin/DB1.conf", "");
  EXPECT_FALSE(test_login_instance(home.path().c_str(), "DB1", "u", "p", nullptr));
  log.expect_exactly(LM_ERROR, "Failed to get port.\n");
  EXPECT_EQ(api.requests().size(), 0u);
}

TEST(Test_Login_Instance, lists_with_the_login_and_hides_it_in_the_log)
{
  Log_Capture log;
  Fault_Process_Api api;
  api.fail_all(ENOENT);
  const Temp_Dir home;
  home.write("admin/DB1.conf", "port = 2010\n");
  std::string error = "untouched";
  for (const char* password : {"secret", "se/cret", "s'ecre't", "secr%set"}) {
    EXPECT_FALSE(test_login_instance(home.path().c_str(), "DB1", "sysdba", password, &error));
    EXPECT_EQ(api.requests().back().argv,
              (std::vector<std::string>{home / "bin/isql", std::string("-Usysdba/") + password, "-dDB1",
                                        "-p2010", "-l"}));
    log.expect_exactly(LM_INFO,
                       "Oscar command:\n\"" + (home / "bin/isql") + "\" -Usysdba/*** -dDB1 -p2010 -l\n");
    EXPECT_FALSE(log.contains(password));
  }
  EXPECT_EQ(error, "untouched");
}

TEST(Test_Login_Instance, a_password_with_a_blank_is_split_but_never_shown)
{
  Log_Capture log;
  Fault_Process_Api api;
  api.fail_all(ENOENT);
  const Temp_Dir home;
  EXPECT_FALSE(test_login_instance(home.path().c_str(), "DB1", "sysdba", "my secret word", nullptr));
  ASSERT_EQ(api.requests().size(), 1u);
  EXPECT_EQ(api.requests()[0].argv, (std::vector<std::string>{home / "bin/isql", "-Usysdba/my", "secret",
                                                              "word", "-dDB1", "-p2003", "-l"}));
  EXPECT_FALSE(log.contains("secret"));
  EXPECT_FALSE(log.contains("word"));
}

TEST(Test_Login_Instance, an_odd_quote_swallows_the_rest_but_the_log_hides_it)
{
  Log_Capture log;
  Fault_Process_Api api;
  api.fail_all(ENOENT);
  const Temp_Dir home;
  EXPECT_FALSE(test_login_instance(home.path().c_str(), "DB1", "sysdba", "se'cret", nullptr));
  ASSERT_EQ(api.requests().size(), 1u);
  EXPECT_LT(api.requests()[0].argv.size(), 5u) << "the login cannot work, so such a password is never stored";
  EXPECT_FALSE(log.contains("cret"));
}

TEST(Get_Database_Info, checks_its_arguments_in_order)
{
  for (const char* missing : Missing) {
    Log_Capture log;
    Value value = 5;
    EXPECT_FALSE(get_database_info(nullptr, missing, missing, missing, value));
    EXPECT_FALSE(get_database_info(nullptr, "DB1", missing, missing, value));
    EXPECT_FALSE(get_database_info(nullptr, "DB1", "u", missing, value));
    EXPECT_EQ(log.lines().size(), 3u);
    for (const char* name : {"instance", "username", "password"})
      log.expect(LM_EMERGENCY, std::string(", ") + name + " is NULL or \"\":\n");
    EXPECT_EQ(value, Value(5));
  }
}

TEST(Get_Database_Info, an_unknown_instance_leaves_the_value_alone)
{
  Log_Capture log;
  Value value = 5;
  EXPECT_FALSE(get_database_info(nullptr, "DB1", "u", "p", value));
  log.expect_exactly(LM_ERROR, "Failed to invoke get_database_info, empty inst, instance DB1.\n");
  EXPECT_EQ(value, Value(5));
}

TEST(Get_Database_Info, an_instance_without_home_leaves_a_partial_answer)
{
  Log_Capture log;
  Value value = 5;
  EXPECT_FALSE(get_database_info(std::make_shared<Instance>(), "DB1", "u", "p", value));
  log.expect_exactly(LM_ERROR, "Failed to get oscar home, instance DB1.\n");
  EXPECT_EQ(write_json(value), "[{\"database\":\"DB1\"}]");
}

TEST(Get_Database_Info, a_login_that_cannot_be_tried_is_an_unopened_database)
{
  Log_Capture log;
  Fault_Process_Api api;
  api.fail_all(ENOENT);
  const Temp_Dir home;
  Value value;
  EXPECT_TRUE(get_database_info(instance_at(home.path()), "DB1", "u", "p", value));
  EXPECT_EQ(write_json(value), "[{\"database\":\"DB1\",\"status\":\"unopened\"}]");
}

TEST(Get_Schemas_Info, checks_its_arguments_in_order)
{
  for (const char* missing : Missing) {
    Log_Capture log;
    Value value = 5;
    EXPECT_FALSE(get_schemas_info(nullptr, missing, missing, missing, missing, value));
    EXPECT_FALSE(get_schemas_info(nullptr, "DB1", missing, missing, missing, value));
    EXPECT_FALSE(get_schemas_info(nullptr, "DB1", "d", missing, missing, value));
    EXPECT_FALSE(get_schemas_info(nullptr, "DB1", "d", "u", missing, value));
    EXPECT_EQ(log.lines().size(), 4u);
    for (const char* name : {"instance", "db", "username", "password"})
      log.expect(LM_EMERGENCY, std::string(", ") + name + " is NULL or \"\":\n");
    EXPECT_EQ(value, Value(5));
  }
}

TEST(Get_Schemas_Info, names_the_database_in_its_failures)
{
  Log_Capture log;
  Fault_Process_Api api;
  api.fail_all(ENOENT);
  const Temp_Dir home;
  home.write("admin/NOPORT.conf", "");
  Value value = 5;
  EXPECT_FALSE(get_schemas_info(nullptr, "DB1", "d", "u", "p", value));
  log.expect_exactly(LM_ERROR, "Failed to invoke get_schemas_info, empty inst, database d.\n");
  EXPECT_FALSE(get_schemas_info(std::make_shared<Instance>(), "DB1", "d", "u", "p", value));
  log.expect_exactly(LM_ERROR, "Failed to get oscar home, database d.\n");
  EXPECT_FALSE(get_schemas_info(instance_at(home.path()), "NOPORT", "d", "u", "p", value));
  log.expect_exactly(LM_ERROR, "Failed to get port, database d.\n");
  EXPECT_FALSE(get_schemas_info(instance_at(home.path()), "DB1", "d", "u", "p", value));
  log.expect_exactly(LM_ERROR, "Failed to get oscar schemas, \n");
  log.expect_exactly(LM_ERROR, "Failed to get schemas of database: d.\n");
  EXPECT_EQ(value, Value(5));
}

TEST(Get_Tables_Info, checks_its_arguments_in_order)
{
  for (const char* missing : Missing) {
    Log_Capture log;
    Value value = 5;
    EXPECT_FALSE(get_tables_info(nullptr, missing, missing, missing, missing, missing, value));
    EXPECT_FALSE(get_tables_info(nullptr, "DB1", missing, missing, missing, missing, value));
    EXPECT_FALSE(get_tables_info(nullptr, "DB1", "d", missing, missing, missing, value));
    EXPECT_FALSE(get_tables_info(nullptr, "DB1", "d", "s", missing, missing, value));
    EXPECT_FALSE(get_tables_info(nullptr, "DB1", "d", "s", "u", missing, value));
    EXPECT_EQ(log.lines().size(), 5u);
    for (const char* name : {"instance", "db", "schema", "username", "password"})
      log.expect(LM_EMERGENCY, std::string(", ") + name + " is NULL or \"\":\n");
    EXPECT_EQ(value, Value(5));
  }
}

TEST(Get_Tables_Info, names_database_and_schema_in_its_failures)
{
  Log_Capture log;
  Fault_Process_Api api;
  api.fail_all(ENOENT);
  const Temp_Dir home;
  home.write("admin/NOPORT.conf", "");
  Value value = 5;
  EXPECT_FALSE(get_tables_info(nullptr, "DB1", "d", "s", "u", "p", value));
  log.expect_exactly(LM_ERROR, "Failed to invoke get_tables_info, empty instdatabase: d, schema: s.\n");
  EXPECT_FALSE(get_tables_info(std::make_shared<Instance>(), "DB1", "d", "s", "u", "p", value));
  log.expect_exactly(LM_ERROR, "Failed to get oscar homedatabase: d, schema: s.\n");
  EXPECT_FALSE(get_tables_info(instance_at(home.path()), "NOPORT", "d", "s", "u", "p", value));
  log.expect_exactly(LM_ERROR, "Failed to get portdatabase: d, schema: s.\n");
  EXPECT_FALSE(get_tables_info(instance_at(home.path()), "DB1", "d", "s", "u", "p", value));
  log.expect_exactly(LM_ERROR, "Failed to get oscar s tables \n");
  log.expect_exactly(LM_ERROR, "Failed to get tables of database: d, schema: s.\n");
  EXPECT_EQ(value, Value(5));
}
