#include "oscar/oscar_catalog_queries.h"

#include "base/charset.h"
#include "base/ignore_result.h"
#include "base/natoi.h"
#include "base/snprintf_t.h"
#include "oscar/guarded_regex.h"
#include "oscar/oscar_argument_check.h"
#include "oscar/oscar_cmd_handler.h"
#include "oscar/oscar_query_handler.h"

#include <ace/Log_Msg.h>
#include <boost/algorithm/string.hpp>

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace
{
// "INFO_SCHEM" is what the views report: the name is cut there.
const char* const oscar_sys_schema[] = {
    "(null)\\ROOT", "DIRECTORIES", "INFO_SCHEM", "PUBLIC",    "REPLICATION",     "STAGENT", "SYSAUDIT",
    "SYSDBA",       "SYSFTSDBA",   "SYSMONITOR", "SYSSECURE", "SYS_GLOBAL_TEMP", "WMSYS"};

// A missing value becomes an empty one, which the query handler reports.
std::string text_of(const char* value)
{
  return value ? value : "";
}

std::string tool_path(const char* oscar_home, const char* tool)
{
  return std::string(oscar_home) + "/bin/" + tool;
}

// Runs a version probe. VERSION is in the local code page until the tool has ended with success.
bool run_probe(const char* oscar_home, const char* command, Text_Process_Handler& handler,
               std::string& version)
{
  ACE_Process_Options opts(true, 1024, 16384, 512, 128);
  kestrel::ignore_result(set_process_opts(oscar_home, command, opts),
                         "without a command line the run itself fails");
  if (handler.call(6, opts) != 0)
    return false;
  version = Local_String(version).to_utf8();
  return true;
}

// False when the row is to be skipped; the reason is logged.
bool read_node(const Oscar_Query_Handler& query, const std::vector<std::string>& row, const char* instance,
               Oscar_Node_Info& node)
{
  if (row.size() != 3 || row[0].empty()) {
    ACE_ERROR((LM_ERROR, "Error node info, %s\n", query.output().c_str()));
    return false;
  }
  const std::string id = boost::trim_copy(row[0]);
  const char* stop = nullptr;
  const int node_id = natoi<int>(id.c_str(), &stop);
  const int error = errno;
  if (stop != id.c_str() + id.size()) {
    ACE_ERROR((LM_WARNING, "node id contains non-digit: %s\n", id.c_str()));
    return false;
  }
  if (error == ERANGE || node_id < 1) {
    ACE_ERROR((LM_WARNING, "node id integer overflow: %s\n", id.c_str()));
    return false;
  }
  node.node_id = node_id;
  node.host = boost::trim_copy(row[1]);
  node.status = boost::trim_copy(row[2]);
  node.instance = instance;
  return true;
}
} // namespace

Version_Line_Handler::Version_Line_Handler(std::string& ver, bool full)
    : Text_Process_Handler(0, 60), ver_(ver), full_(full)
{
}

Version_Line_Handler::~Version_Line_Handler() = default;

int Version_Line_Handler::handle_stdout_line(const char* line, unsigned int length)
{
  boost::cmatch groups;
  if (oscar::guarded_regex_search(line, line + length, groups, RE_VERSION_LINE))
    ver_ = groups[full_ ? 0 : 1].str();
  return 0;
}

Osrimp_Version_Line_Handler::Osrimp_Version_Line_Handler(std::string& ver)
    : Text_Process_Handler(0, 60), ver_(ver)
{
}

Osrimp_Version_Line_Handler::~Osrimp_Version_Line_Handler() = default;

int Osrimp_Version_Line_Handler::handle_stdout_line(const char* line, unsigned int length)
{
  boost::cmatch groups;
  if (!oscar::guarded_regex_search(line, line + length, groups, RE_OSRIMP_VERSION_LINE))
    return 0;
  ver_ = groups[1].str();
  return -1;
}

bool get_version(const char* oscar_home, unsigned short port, const char* instance, std::string& version,
                 bool full_version)
{
  if (!OSCAR_TEXT_GIVEN(oscar_home) || !OSCAR_TEXT_GIVEN(instance))
    return false;
  const snprintf_t<4096> command("%s -p %u -d %s -c \"select version()\"",
                                 tool_path(oscar_home, "isql").c_str(), static_cast<unsigned>(port),
                                 instance);
  Version_Line_Handler handler(version, full_version);
  return run_probe(oscar_home, command.c_str(), handler, version);
}

bool get_isql_version(const char* oscar_home, std::string& version, bool full_version)
{
  if (!OSCAR_TEXT_GIVEN(oscar_home))
    return false;
  const snprintf_t<4096> command("%s --version", tool_path(oscar_home, "isql").c_str());
  Version_Line_Handler handler(version, full_version);
  return run_probe(oscar_home, command.c_str(), handler, version);
}

bool get_osrimp_version(const char* oscar_home, std::string& version)
{
  if (!OSCAR_TEXT_GIVEN(oscar_home))
    return false;
  const snprintf_t<4096> command("%s -v", tool_path(oscar_home, "osrimp").c_str());
  Osrimp_Version_Line_Handler handler(version);
  return run_probe(oscar_home, command.c_str(), handler, version) && !version.empty();
}

bool get_log_mode(const char* oscar_home, const char* instance, const char* username, const char* password,
                  unsigned short port, bool& archivelog)
{
  Oscar_Query_Handler query(text_of(oscar_home), text_of(instance), text_of(username), text_of(password),
                            port, "localhost");
  return get_log_mode(query, archivelog);
}

bool get_log_mode(Oscar_Query_Handler& query, bool& archivelog)
{
  if (!query.select("select archivemode from v_sys_database_info")) {
    ACE_ERROR((LM_ERROR, "Failed to get log mode.\n"));
    return false;
  }
  const Oscar_Query_Handler::Result_type& rows = query.result();
  if (rows.size() != 1 || rows[0].size() != 1) {
    ACE_ERROR((LM_ERROR, "%s\n", query.output().c_str()));
    return false;
  }
  archivelog = rows[0][0] == "ARCHIVELOG";
  return true;
}

bool is_sys_schema(const std::string& name)
{
  const auto known = std::find(std::begin(oscar_sys_schema), std::end(oscar_sys_schema), name);
  return known != std::end(oscar_sys_schema) || boost::iends_with(name, "\\ROOT");
}

bool get_oscar_schemas(const char* oscar_home, const char* instance, const char* username,
                       const char* password, unsigned short port, std::vector<std::string>& schemas)
{
  Oscar_Query_Handler query(text_of(oscar_home), text_of(instance), text_of(username), text_of(password),
                            port, "localhost");
  if (!query.select("select TABLE_SCHEM from v_sys_schemas")) {
    ACE_ERROR((LM_ERROR, "Failed to get oscar schemas, %s\n", query.output().c_str()));
    return false;
  }
  schemas.reserve(schemas.size() + query.result().size());
  for (const std::vector<std::string>& row : query.result()) {
    if (row.size() != 1 || row[0].empty())
      continue;
    std::string name = boost::trim_copy(row[0]);
    if (!is_sys_schema(name))
      schemas.push_back(std::move(name));
  }
  return true;
}

bool get_oscar_tables(const char* oscar_home, const char* instance, const char* username,
                      const char* password, unsigned short port, const char* schema,
                      std::vector<std::string>& tables)
{
  Oscar_Query_Handler query(text_of(oscar_home), text_of(instance), text_of(username), text_of(password),
                            port, "localhost");
  const snprintf_t<4096> sql(
      "select TABLE_SCHEM,TABLE_NAME,TABLE_TYPE from v_sys_tables where TABLE_SCHEM='%s'", schema);
  if (!query.select(sql.c_str())) {
    ACE_ERROR((LM_ERROR, "Failed to get oscar %s tables %s\n", schema, query.output().c_str()));
    return false;
  }
  for (const std::vector<std::string>& row : query.result()) {
    if (row.size() >= 3)
      tables.push_back(boost::trim_copy(row[1]));
  }
  return true;
}

bool get_user_tablespaces(const char* oscar_home, const char* instance, const char* username,
                          const char* password, unsigned short port, std::vector<std::string>& tablespaces)
{
  Oscar_Query_Handler query(text_of(oscar_home), text_of(instance), text_of(username), text_of(password),
                            port, "localhost");
  return get_user_tablespaces(query, tablespaces);
}

bool get_user_tablespaces(Oscar_Query_Handler& query, std::vector<std::string>& tablespaces)
{
  if (!query.select("select tsname from sys_tablespace where tsname not in ('SYSTEM', 'AUDIT', 'CDC')"
                    " and tskind not in ('u', 't')")) {
    ACE_ERROR((LM_ERROR, "%s\n", query.output().c_str()));
    return false;
  }
  for (const std::vector<std::string>& row : query.result())
    tablespaces.push_back(row[0]);
  return true;
}

bool get_cluster_nodes_info(const char* oscar_home, const char* instance, const char* username,
                            const char* password, unsigned short port, const char* virtual_address,
                            std::vector<Oscar_Node_Info>& nodes)
{
  Oscar_Query_Handler query(text_of(oscar_home), text_of(instance), text_of(username), text_of(password),
                            port, text_of(virtual_address));
  if (!query.select("select NODE_ID,ADDRESS,STATUS from v_sys_ha_slave_info")) {
    ACE_ERROR((LM_ERROR, "Failed to get oscar cluster nodes, %s\n", query.output().c_str()));
    return false;
  }
  nodes.reserve(nodes.size() + query.result().size());
  for (const std::vector<std::string>& row : query.result()) {
    Oscar_Node_Info node;
    if (read_node(query, row, instance, node))
      nodes.push_back(std::move(node));
  }
  return true;
}
