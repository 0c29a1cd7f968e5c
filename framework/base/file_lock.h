#pragma once

#include "base/descriptor.h"

#include <string>

namespace kestrel
{
/// An exclusive lock between processes and between threads, kept on a file (flock). The file is created (mode
/// 0600) and stays; its content means nothing. Never remove it: a process that waits on the removed file
/// would not exclude one that locks the new one.
/// Threads: one owner each; two File_Lock objects exclude each other also inside one process.
/// Crash:   the kernel frees the lock with the process.
class File_Lock
{
public:
  File_Lock() {}

  /// Waits for the lock without limit, so hold it for short work only. False with errno; already held: true.
  [[nodiscard]] bool lock(const std::string& path);
  /// As lock, but false with EWOULDBLOCK when somebody else holds it.
  [[nodiscard]] bool try_lock(const std::string& path);
  void unlock() { file_.reset(); }
  bool locked() const { return file_.get() >= 0; }

private:
  bool acquire(const std::string& path, int operation);

  Auto_Fd file_;
};
} // namespace kestrel
