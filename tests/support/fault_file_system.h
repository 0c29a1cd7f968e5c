#pragma once

#include "base/file_system.h"

#include <atomic>
#include <map>
#include <mutex>
#include <string>

namespace kestrel_test
{
/// The real file system, except that chosen calls fail. Installed process-wide while it lives. Kinds of
/// calls: "open", "read", "write", "pread", "pwrite", "fsync", "close", "rename", "unlink", "mkdir", "fstat",
/// "stat", "fsync_directory", and "any" for all of them together.
/// Threads: any.
class Fault_File_System : public kestrel::File_System
{
public:
  Fault_File_System();

  /// The number-th call of this kind from now on (from 1) fails with this errno, once; with `for_ever` all
  /// later ones too. A failing close does close. Replaces what was set for the kind.
  void fail(const std::string& kind, unsigned number, int error, bool for_ever = false);
  /// The number-th write (or pwrite) from now on takes only half of its bytes, if it has more than one.
  void shorten_write(unsigned number);
  void clear_faults();

  /// Calls of this kind so far, failed ones included.
  unsigned count(const std::string& kind) const;
  /// True once a set fault was met.
  bool met() const;

  int open(const char* path, int flags, mode_t mode = 0) override;
  ssize_t read(int fd, void* buffer, size_t count) override;
  ssize_t write(int fd, const void* buffer, size_t count) override;
  ssize_t pread(int fd, void* buffer, size_t count, off_t offset) override;
  ssize_t pwrite(int fd, const void* buffer, size_t count, off_t offset) override;
  int fsync(int fd) override;
  int close(int fd) override;
  int rename(const char* from, const char* to) override;
  int unlink(const char* path) override;
  int mkdir(const char* path, mode_t mode) override;
  int fstat(int fd, struct stat* status) override;
  int stat(const char* path, struct stat* status) override;
  int fsync_directory(const char* path) override;

private:
  struct Fault {
    unsigned left = 0;
    int error = 0;
    bool for_ever = false;
  };

  bool fails(const char* kind);
  bool fault_met(const std::string& kind);
  bool shortened();

  mutable std::mutex mutex_;
  std::map<std::string, Fault> faults_;
  std::map<std::string, unsigned> counts_;
  unsigned short_write_ = 0;
  bool met_ = false;
  kestrel::Scoped_File_System scope_;
};
} // namespace kestrel_test
