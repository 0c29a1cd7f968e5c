#pragma once

#include <string>

namespace kestrel_test
{
/// SQLite's own file layer, except that chosen calls fail. The default of the process while it lives; one at
/// a time. Kinds: "open", "read", "write", "sync", "truncate", "delete", "shm" (mapping the shared memory of
/// the log). Threads: making, ending and setting by one; files by any.
class Fault_Vfs
{
public:
  Fault_Vfs();
  ~Fault_Vfs();
  Fault_Vfs(const Fault_Vfs&) = delete;
  Fault_Vfs& operator=(const Fault_Vfs&) = delete;

  /// The number-th call of this kind from now on (from 1), and with `for_ever` all later ones, give this
  /// result code.
  void fail(const std::string& kind, unsigned number, int result, bool for_ever = false);
  /// From now on no call fails.
  void heal();
  /// Only the files opened from now on whose path has this part meet faults; at first all do.
  void only(const std::string& part);
  /// Database files open read-only, as on a file system that is mounted so.
  void read_only(bool value);
  /// True once a set fault was met.
  bool met() const;
};
} // namespace kestrel_test
