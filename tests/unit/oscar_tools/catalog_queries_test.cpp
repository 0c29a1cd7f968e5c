#include "oscar/oscar_cmd_handler.h"
#include "support/fault_process_api.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <cerrno>

using kestrel_test::Fault_Process_Api;
using kestrel_test::Log_Capture;

namespace
{
typedef std::vector<std::string> Row;

// The arguments that isql was to get from the statement, the connection checked.
Row argv_of(const Fault_Process_Api& api)
{
  const std::vector<kestrel::Spawn_Request> requests = api.requests();
  EXPECT_EQ(requests.size(), 1u);
  return requests.empty() ? Row() : requests[0].argv;
}

Row isql_argv(const std::string& host, const std::string& sql)
{
  return {"/opt/db/bin/isql", "-Usysdba/secret", "-h" + host, "-dDB1", "-p2003", "-c", sql};
}
} // namespace

TEST(Is_Sys_Schema, knows_the_schemas_that_the_database_brings_along)
{
  for (const char* name :
       {"(null)\\ROOT", "DIRECTORIES", "INFO_SCHEM", "PUBLIC", "REPLICATION", "STAGENT", "SYSAUDIT", "SYSDBA",
        "SYSFTSDBA", "SYSMONITOR", "SYSSECURE", "SYS_GLOBAL_TEMP", "WMSYS"})
    EXPECT_TRUE(is_sys_schema(name)) << name;
}

TEST(Is_Sys_Schema, compares_whole_names_with_their_case)
{
  for (const char* name : {"sysdba", "Public", "INFO_SCHEMA", "INFO_SCHE", "SYSDBA ", "", "ROOT",
                           "(null)ROOT", "root", "\\ROOTS", "/ROOT"})
    EXPECT_FALSE(is_sys_schema(name)) << name;
}

TEST(Is_Sys_Schema, knows_the_root_schemas_in_any_case)
{
  for (const char* name : {"Sales\\root", "Sales\\ROOT", "\\ROOT", "\\rOOt", "(null)\\\\ROOT"})
    EXPECT_TRUE(is_sys_schema(name)) << name;
}

TEST(Version_Probes, run_the_tools_with_their_fixed_arguments)
{
  Log_Capture log;
  std::string version = "kept";
  {
    Fault_Process_Api api;
    api.fail_all(ENOENT);
    EXPECT_FALSE(get_version("/opt/db", 2003, "DB1", version, true));
    EXPECT_EQ(argv_of(api), (Row{"/opt/db/bin/isql", "-p", "2003", "-d", "DB1", "-c", "select version()"}));
  }
  {
    Fault_Process_Api api;
    api.fail_all(ENOENT);
    EXPECT_FALSE(get_isql_version("/opt/db", version, true));
    EXPECT_EQ(argv_of(api), (Row{"/opt/db/bin/isql", "--version"}));
  }
  {
    Fault_Process_Api api;
    api.fail_all(ENOENT);
    EXPECT_FALSE(get_osrimp_version("/opt/db", version));
    EXPECT_EQ(argv_of(api), (Row{"/opt/db/bin/osrimp", "-v"}));
  }
  EXPECT_EQ(version, "kept");
  EXPECT_EQ(log.lines().size(), 0u);
}

TEST(Version_Probes, check_their_arguments)
{
  Log_Capture log;
  Fault_Process_Api api;
  std::string version;
  for (const char* missing : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_FALSE(get_version(missing, 2003, "DB1", version, true));
    log.expect(LM_EMERGENCY, ", oscar_home is NULL or \"\":\n");
    EXPECT_FALSE(get_version("/opt/db", 2003, missing, version, true));
    log.expect(LM_EMERGENCY, ", instance is NULL or \"\":\n");
    EXPECT_FALSE(get_isql_version(missing, version, true));
    log.expect(LM_EMERGENCY, ", oscar_home is NULL or \"\":\n");
    EXPECT_FALSE(get_osrimp_version(missing, version));
    log.expect(LM_EMERGENCY, ", oscar_home is NULL or \"\":\n");
  }
  EXPECT_EQ(api.requests().size(), 0u);
}

TEST(Catalog_Queries, archive_log_mode_is_asked_with_one_statement)
{
  Log_Capture log;
  Fault_Process_Api api;
  api.fail_all(ENOENT);
  bool archivelog = true;
  EXPECT_FALSE(get_log_mode("/opt/db", "DB1", "sysdba", "secret", 2003, archivelog));
  EXPECT_TRUE(archivelog);
  EXPECT_EQ(argv_of(api), isql_argv("localhost", "select archivemode from v_sys_database_info"));
  log.expect_exactly(LM_ERROR, "Failed to get log mode.\n");
}

TEST(Catalog_Queries, schemas_are_asked_with_one_statement)
{
  Log_Capture log;
  Fault_Process_Api api;
  api.fail_all(ENOENT);
  Row schemas = {"kept"};
  EXPECT_FALSE(get_oscar_schemas("/opt/db", "DB1", "sysdba", "secret", 2003, schemas));
  EXPECT_EQ(schemas, Row{"kept"});
  EXPECT_EQ(argv_of(api), isql_argv("localhost", "select TABLE_SCHEM from v_sys_schemas"));
  log.expect_exactly(LM_ERROR, "Failed to get oscar schemas, \n");
}

TEST(Catalog_Queries, tables_are_asked_with_the_schema_as_it_stands)
{
  Log_Capture log;
  Fault_Process_Api api;
  api.fail_all(ENOENT);
  Row tables;
  EXPECT_FALSE(get_oscar_tables("/opt/db", "DB1", "sysdba", "secret", 2003, "O'Neil 5%", tables));
  EXPECT_EQ(argv_of(api),
            isql_argv("localhost", "select TABLE_SCHEM,TABLE_NAME,TABLE_TYPE from v_sys_tables where "
                                   "TABLE_SCHEM='O'Neil 5%'"));
  log.expect_exactly(LM_ERROR, "Failed to get oscar O'Neil 5% tables \n");
}

TEST(Catalog_Queries, tablespaces_are_asked_with_one_statement)
{
  Log_Capture log;
  Fault_Process_Api api;
  api.fail_all(ENOENT);
  Row tablespaces;
  EXPECT_FALSE(get_user_tablespaces("/opt/db", "DB1", "sysdba", "secret", 2003, tablespaces));
  EXPECT_EQ(argv_of(api),
            isql_argv("localhost", "select tsname from sys_tablespace where tsname not in ('SYSTEM', "
                                   "'AUDIT', 'CDC') and tskind not in ('u', 't')"));
  log.expect_exactly(LM_ERROR, "\n");
}

TEST(Catalog_Queries, cluster_nodes_are_asked_at_the_virtual_address)
{
  Log_Capture log;
  Fault_Process_Api api;
  api.fail_all(ENOENT);
  std::vector<Oscar_Node_Info> nodes;
  EXPECT_FALSE(get_cluster_nodes_info("/opt/db", "DB1", "sysdba", "secret", 2003, "10.0.0.5", nodes));
  EXPECT_EQ(argv_of(api), isql_argv("10.0.0.5", "select NODE_ID,ADDRESS,STATUS from v_sys_ha_slave_info"));
  log.expect_exactly(LM_ERROR, "Failed to get oscar cluster nodes, \n");
}

TEST(Catalog_Queries, a_missing_value_fails_the_query)
{
  Log_Capture log;
  Fault_Process_Api api;
  bool archivelog = false;
  EXPECT_FALSE(get_log_mode("/opt/db", "DB1", "sysdba", nullptr, 2003, archivelog));
  log.expect_exactly(LM_ERROR, "Lack of connection parameter.\n");
  log.expect_exactly(LM_ERROR, "Failed to get log mode.\n");
  EXPECT_EQ(api.requests().size(), 0u);
}
