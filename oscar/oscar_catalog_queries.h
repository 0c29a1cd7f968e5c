#pragma once

#include "process/text_process_handler.h"

#include <string>
#include <vector>

/// One fixed question each to an OSCAR instance, through isql, or to a tool about its version.
///
/// Limits:    schema names enter the SQL as they stand. Malformed rows are skipped (some with a message), not
///            fatal.
/// Threads:   no state; any thread. Every function blocks until its tool has ended.
/// Ownership: all arguments are only read, results are copied out.
/// Errors:    false: the tool failed or the answer is unusable, logged here; lists are appended to, and keep
///            what they held on failure.
/// Crash:     leaves no files; the child dies with this process.

/// One node of an OSCAR cluster, as the database reports it.
class Oscar_Query_Handler;

struct Oscar_Node_Info {
  int node_id; // at least 1
  std::string host;
  std::string status;
  std::string instance; // the instance that was asked
};

/// Finds the version in the output of isql; the last line that has one wins.
class Version_Line_Handler : public Text_Process_Handler
{
public:
  /// VER is not owned and must outlive the handler.
  Version_Line_Handler(std::string& ver, bool full);
  ~Version_Line_Handler() override;
  int handle_stdout_line(const char* line, unsigned int length) override;

private:
  std::string& ver_;
  bool full_;
};

/// Finds the version in the output of osrimp; the first line that names the tool wins and ends the reading.
class Osrimp_Version_Line_Handler : public Text_Process_Handler
{
public:
  /// VER is not owned and must outlive the handler.
  explicit Osrimp_Version_Line_Handler(std::string& ver);
  ~Osrimp_Version_Line_Handler() override;
  int handle_stdout_line(const char* line, unsigned int length) override;

private:
  std::string& ver_;
};

/// Version of the server that listens on PORT. FULL_VERSION asks for the whole text instead of the build
/// alone. VERSION keeps what it held when no line names a version; that is no failure.
[[nodiscard]] bool get_version(const char* oscar_home, unsigned short port, const char* instance,
                               std::string& version, bool full_version);

/// Version of the installed isql; VERSION as for get_version.
[[nodiscard]] bool get_isql_version(const char* oscar_home, std::string& version, bool full_version);

/// Version of the installed osrimp; false when it names none and VERSION was empty.
[[nodiscard]] bool get_osrimp_version(const char* oscar_home, std::string& version);

/// Whether the database keeps its archive log. ARCHIVELOG is written on success only.
[[nodiscard]] bool get_log_mode(const char* oscar_home, const char* instance, const char* username,
                                const char* password, unsigned short port, bool& archivelog);
/// The same through the caller's query, so that another thread can end an isql that hangs.
[[nodiscard]] bool get_log_mode(Oscar_Query_Handler& query, bool& archivelog);

/// True for the schemas that OSCAR brings along and for the root schemas of all databases.
[[nodiscard]] bool is_sys_schema(const std::string& name);

/// Appends the user schemas, in the order of the database.
[[nodiscard]] bool get_oscar_schemas(const char* oscar_home, const char* instance, const char* username,
                                     const char* password, unsigned short port,
                                     std::vector<std::string>& schemas);

/// Appends the tables of SCHEMA, views and other kinds included.
[[nodiscard]] bool get_oscar_tables(const char* oscar_home, const char* instance, const char* username,
                                    const char* password, unsigned short port, const char* schema,
                                    std::vector<std::string>& tables);

/// Appends the tablespaces that users made.
[[nodiscard]] bool get_user_tablespaces(const char* oscar_home, const char* instance, const char* username,
                                        const char* password, unsigned short port,
                                        std::vector<std::string>& tablespaces);
/// The same through the caller's query, so that another thread can end an isql that hangs.
[[nodiscard]] bool get_user_tablespaces(Oscar_Query_Handler& query, std::vector<std::string>& tablespaces);

/// Appends the nodes of the cluster that answers at VIRTUAL_ADDRESS.
[[nodiscard]] bool get_cluster_nodes_info(const char* oscar_home, const char* instance, const char* username,
                                          const char* password, unsigned short port,
                                          const char* virtual_address, std::vector<Oscar_Node_Info>& nodes);
