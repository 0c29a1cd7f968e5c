#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kestrel
{
class Console;
class Session;
struct Command_Line;

/// What a command does. Which of the functions are there says how the command can be given; each returns the
/// exit code of the process.
struct Command_Actions {
  /// In this process, on this host.
  std::function<int(Session&)> embedded = {};
  /// Without module, catalog or a session at a server: the command does everything itself.
  std::function<int(const Command_Line&)> standalone = {};
  /// Through the backup server that --server names, with the sign-in kept for it.
  std::function<int(Console&)> served = {};
};

/// What the user asked for, checked for form only.
struct Command_Line {
  std::string command; ///< its words: "pool add"
  Command_Actions actions;
  std::string root;
  std::string server;        ///< URL of a backup server; empty: this host alone
  bool server_given = false; ///< on the command line, not by KESTREL_SERVER
  std::string ca_file;
  bool local = false; ///< use this host's own catalog and pools although it is enrolled at a server
  bool json = false;
  bool verbose = false;
  bool quiet = false;

  std::string instance; ///< backup, backups, login; for "latest" also show, verify, restore
  /// show, restore, import: one BACKUP; verify: any number; export: OBJECTs
  std::vector<std::string> names;
  std::string user;
  std::string password_file;
  std::string pool; ///< pool commands, backup, restore
  std::string path;
  bool make_default = false;
  std::string level = "full";
  std::string compression = "zstd";
  std::optional<int> compression_level;
  uint64_t rate_limit_bytes_per_second = 0;
  bool all = false;     ///< verify: said for clearness; naming no backup means the same
  uint64_t limit = 100; ///< backups, agent history: newest N; 0 = all
  bool assume_yes = false;
  bool dependents = false; ///< delete: also what builds on it
  bool keep_file = false;  ///< delete: the record only
  std::string original;    ///< import: the object in the export
  std::string target;      ///< import: what it becomes
  std::string file;        ///< run, job define

  std::string host;               ///< of a server: where the instance is
  std::vector<std::string> hosts; ///< job define, job run and the like
  std::string place;              ///< browse: HOST/INSTANCE/DATABASE/SCHEMA as far as it is given
  std::string definition;         ///< nodes: of this job only
  std::string role;               ///< user add
  bool disabled = false;          ///< job define
  bool wait = false;              ///< job run
  bool follow = false;            ///< job log
};

/// Parses the words of the command line. Prints help, version or the error itself.
/// Returns true when there is a command to run; otherwise `exit_code` is what the process must end with
/// (0 after help and version, 2 after a usage error).
bool parse_command_line(int argc, char** argv, Command_Line& line, int& exit_code);

/// Carries the command out. Returns the exit code of the process.
int run_command(const Command_Line& line);
} // namespace kestrel
