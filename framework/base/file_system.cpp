#include "base/file_system.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace kestrel
{
namespace
{
File_System& real_file_system()
{
  // Never destroyed: worker threads may still write while the process ends.
  static File_System* const instance = new File_System;
  return *instance;
}

std::atomic<File_System*> replacement_file_system{nullptr};
} // namespace

File_System::~File_System() {}

int File_System::open(const char* path, int flags, mode_t mode)
{
  int fd;
  do
    fd = ::open(path, flags | O_CLOEXEC, mode);
  while (fd < 0 && errno == EINTR);
  return fd;
}

ssize_t File_System::read(int fd, void* buffer, size_t count)
{
  return ::read(fd, buffer, count);
}

ssize_t File_System::write(int fd, const void* buffer, size_t count)
{
  return ::write(fd, buffer, count);
}

ssize_t File_System::pread(int fd, void* buffer, size_t count, off_t offset)
{
  return ::pread(fd, buffer, count, offset);
}

ssize_t File_System::pwrite(int fd, const void* buffer, size_t count, off_t offset)
{
  return ::pwrite(fd, buffer, count, offset);
}

int File_System::fsync(int fd)
{
  return ::fsync(fd);
}

int File_System::close(int fd)
{
  return ::close(fd);
}

int File_System::rename(const char* from, const char* to)
{
  return ::rename(from, to);
}

int File_System::unlink(const char* path)
{
  return ::unlink(path);
}

int File_System::mkdir(const char* path, mode_t mode)
{
  return ::mkdir(path, mode);
}

int File_System::fstat(int fd, struct stat* status)
{
  return ::fstat(fd, status);
}

int File_System::stat(const char* path, struct stat* status)
{
  return ::stat(path, status);
}

int File_System::fsync_directory(const char* path)
{
  const int fd = ::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0)
    return -1;
  const int result = ::fsync(fd);
  const int error = errno;
  ::close(fd);
  errno = error;
  return result;
}

File_System& file_system()
{
  File_System* const replacement = replacement_file_system.load(std::memory_order_acquire);
  return replacement ? *replacement : real_file_system();
}

Scoped_File_System::Scoped_File_System(File_System& replacement)
    : previous_(replacement_file_system.exchange(&replacement))
{
}

Scoped_File_System::~Scoped_File_System()
{
  replacement_file_system.store(previous_);
}
} // namespace kestrel
