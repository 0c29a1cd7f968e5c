#pragma once

#include "agent/embedded_host.h"
#include "cli/command_context.h"

#include <string>

namespace kestrel
{
/// One command being carried out on this host, with module, catalog and storage in this process.
/// Threads: main thread, except note().
class Session : public Command_Context
{
public:
  explicit Session(const Command_Line& line) : Command_Context(line) {}

  [[nodiscard]] bool start();
  Embedded_Host& host() { return host_; }

  std::string instance_name(const std::string& resource_uuid) override;
  bool knows_instance(const std::string& resource_uuid, std::string& name) override;
  /// Has a look at what runs on this host when it is not registered.
  [[nodiscard]] bool find_instance(const std::string& name, Known_Instance& instance) override;
  [[nodiscard]] bool find_instance_of(const std::string& resource_uuid, Known_Instance& instance) override;
  [[nodiscard]] bool find_pool(const std::string& id_or_name, Pool_Info& pool, std::string& error) override;
  Host_Identity identity_for(const Known_Instance& instance) override;
  [[nodiscard]] bool check_stored(const Backup_Entry& backup, const std::string& pool_id,
                                  std::string& problem) override;
  [[nodiscard]] bool delete_stored(const Stored_Reference& backup, bool keep_file,
                                   std::string& problem) override;
  Job_Report run_document(const Known_Instance& instance, const std::string& document,
                          const Job_Words& words) override;
  std::string fallback_reason(const Job_Run_Result& run) override;

private:
  /// On an enrolled host: a second catalog would hold backups that the server and its consoles never see.
  /// False after fail().
  bool allowed_beside_server(const std::string& url);
  bool find_registered(const std::string& name, Known_Instance& instance, std::string& error);

  Embedded_Host host_;
};

/// The commands of one host. Each returns the exit code of the process.
int run_instances(Session& session);
int run_login(Session& session);
int run_pool_add(Session& session);
int run_pool_list(Session& session);
int run_pool_remove(Session& session);
int run_verify(Session& session);
int run_definition_file(Session& session);

/// The commands that work the same with and without a backup server.
int run_backup(Command_Context& context);
int run_backups(Command_Context& context);
int run_show(Command_Context& context);
int run_restore(Command_Context& context);
int run_delete(Command_Context& context);
int run_export(Command_Context& context);
int run_import(Command_Context& context);
} // namespace kestrel
