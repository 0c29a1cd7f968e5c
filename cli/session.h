#pragma once

#include "agent/embedded_host.h"
#include "cli/command_line.h"
#include "cli/exit_code.h"
#include "json/value.h"

#include <atomic>
#include <string>

namespace kestrel
{
/// One command being carried out: the host, and how results, remarks and failures reach the user. Results go to the
/// standard output, everything else to the standard error output.
/// Threads: main thread, except note().
class Session
{
public:
  explicit Session(const Command_Line& line) : line_(line) {}

  [[nodiscard]] bool start();
  Embedded_Host& host() { return host_; }
  const Command_Line& line() const { return line_; }

  /// With --json the value, else the text (with its line ends).
  void result(const json_spirit::Object& json, const std::string& text);
  /// A remark; shown unless --quiet or --json.
  void note(const std::string& text);
  /// The one line that ends a failure: `what` failed and why, and what to do next. Returns `code`.
  int fail(const std::string& what, int code = EXIT_CODE_FAILED, const std::string& log_path = std::string());

  /// The code of the last fail().
  int last_code() const { return last_code_; }

  /// Name of the instance with this uuid, or a shortened uuid when it is not registered any more.
  std::string instance_name(const std::string& resource_uuid);
  /// Looks an instance up by name, in the case given or in upper case, after a look at what runs on this host when it
  /// is not registered. False after fail().
  [[nodiscard]] bool find_instance(const std::string& name, Instance_Registry::Entry& entry);
  /// Uuid of the named instance; "" for an empty name. False after fail().
  [[nodiscard]] bool resource_of(const std::string& name, std::string& resource_uuid);

private:
  bool find_registered(const std::string& name, Instance_Registry::Entry& entry, std::string& error);

  const Command_Line& line_;
  Embedded_Host host_;
  int last_code_ = EXIT_CODE_DONE;
};

/// While it lives, SIGINT and SIGTERM do not end the process but set a flag that jobs poll.
class Cancel_Signals
{
public:
  Cancel_Signals();
  ~Cancel_Signals();
  Cancel_Signals(const Cancel_Signals&) = delete;
  Cancel_Signals& operator=(const Cancel_Signals&) = delete;
  static bool requested();
};

/// The commands. Each returns the exit code of the process.
int run_instances(Session& session);
int run_login(Session& session);
int run_pool_add(Session& session);
int run_pool_list(Session& session);
int run_pool_remove(Session& session);
int run_backup(Session& session);
int run_backups(Session& session);
int run_show(Session& session);
int run_verify(Session& session);
int run_restore(Session& session);
int run_export(Session& session);
int run_import(Session& session);
int run_definition_file(Session& session);
} // namespace kestrel
