#pragma once

#include <string>
#include <sys/stat.h>
#include <sys/types.h>

namespace kestrel
{
/// The file calls of everything that must survive a failing disk, so that tests can fail each one of them.
/// Every call is the system call of the same name: -1 (or a count) and errno. No call is repeated on EINTR
/// except open.
/// Threads: any.
class File_System
{
public:
  virtual ~File_System();
  /// O_CLOEXEC is added.
  virtual int open(const char* path, int flags, mode_t mode = 0);
  virtual ssize_t read(int fd, void* buffer, size_t count);
  virtual ssize_t write(int fd, const void* buffer, size_t count);
  virtual ssize_t pread(int fd, void* buffer, size_t count, off_t offset);
  virtual ssize_t pwrite(int fd, const void* buffer, size_t count, off_t offset);
  virtual int fsync(int fd);
  virtual int close(int fd);
  virtual int rename(const char* from, const char* to);
  virtual int unlink(const char* path);
  virtual int mkdir(const char* path, mode_t mode);
  virtual int fstat(int fd, struct stat* status);
  virtual int stat(const char* path, struct stat* status);
  /// Makes the names in a directory durable: opens it, fsyncs it, closes it.
  virtual int fsync_directory(const char* path);
};

/// The file system in use: the real one, unless a Scoped_File_System replaced it.
File_System& file_system();

/// Puts another file system in place for the whole process until the scope ends. For tests; the replacement
/// is not owned and must outlive the scope.
class Scoped_File_System
{
public:
  explicit Scoped_File_System(File_System& replacement);
  ~Scoped_File_System();
  Scoped_File_System(const Scoped_File_System&) = delete;
  Scoped_File_System& operator=(const Scoped_File_System&) = delete;

private:
  File_System* previous_;
};
} // namespace kestrel
