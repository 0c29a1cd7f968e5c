#pragma once

#include "archive/action_handler.h"
#include "base/secure_allocator.h"

#include <ace/Log_Msg_Callback.h>

#include <memory>
#include <string>
#include <vector>

struct Oscar_Cmd_Login;

namespace oscar
{
/// What an export or import asks of the job that it works for.
class Logical_Job_Host
{
public:
  virtual ~Logical_Job_Host();
  /// The next object's turn: number from 1.
  virtual void begin_object(const Backup_File& object, size_t number, size_t total) = 0;
  /// Runs a tool to its end, as execute_oscar_cmd does for a tool whose lines are logged (to `callback` too,
  /// unless it is empty); -1, too, when the job is canceled.
  virtual int run_tool(const char* oscar_home, const char* command, const Oscar_Cmd_Login& login,
                       std::shared_ptr<ACE_Log_Msg_Callback> callback) = 0;
};
} // namespace oscar

/// One dump file as the catalog lists it.
struct Oscar_Backup_File {
  std::string database;
  std::string schema;
  std::string table;
  std::string file;
};

/// What an export needs. Text fields are UTF-8.
struct Backup_Input {
  Backup_Input() = default;
  ~Backup_Input() { kestrel::wipe(password); }
  Backup_Input(const Backup_Input&) = delete;
  Backup_Input& operator=(const Backup_Input&) = delete;

  std::string oscar_home;
  std::string instance; // what the tools get behind -d
  std::string username;
  secure_string password;
  std::vector<Backup_File> files; // in this order
  std::shared_ptr<ACE_Log_Msg_Callback> log_msg_callback;
  oscar::Logical_Job_Host* host = nullptr; // not owned; null: the tools are run without a job
};

/// What an import needs.
struct Restore_Input {
  Restore_Input() = default;
  ~Restore_Input() { kestrel::wipe(password); }
  Restore_Input(const Restore_Input&) = delete;
  Restore_Input& operator=(const Restore_Input&) = delete;

  std::string original_database;
  std::string restore_as_database; // the target instance
  std::string restore_as_schema;   // may be empty
  std::string restore_as_table;    // may be empty
  std::string backup_file;         // the dump file, already fetched
  std::string oscar_home;
  std::string username;
  secure_string password;
  unsigned short port = 0; // of the time when the job began; restore() looks it up again
  std::shared_ptr<ACE_Log_Msg_Callback> log_msg_callback;
  oscar::Logical_Job_Host* host = nullptr; // not owned; null: the tools are run without a job
};

/// Exports every object of `input` into its dump file with osrexp; the directories of the files must exist.
///
/// The names stand in the command lines as they are: a blank ends an argument there, so the export of such an
/// object fails for want of its file.
/// Threads:   no state; blocks until the last tool has ended.
/// Errors:    false, logged, at the first file that fails; those behind it are not exported. A tool that ends
///            with a status other than 0 but leaves its file has done its work; one that leaves none has not,
///            whatever it says.
/// Crash:     leaves dump files, whole and half ones.
[[nodiscard]] bool backup(Backup_Input const* input);

/// Imports one dump file with osrimp. The target schema decides the level: none imports the whole file, also
/// when a table is named.
/// Errors:    false, logged; here every status of the tool but 0 is a failure. What the tool had imported by
///            then is the tool's affair.
[[nodiscard]] bool restore(Restore_Input const* input);
