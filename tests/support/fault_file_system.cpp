#include "support/fault_file_system.h"

#include <cerrno>

namespace kestrel_test
{
Fault_File_System::Fault_File_System() : scope_(*this) {}

void Fault_File_System::fail(const std::string& kind, unsigned number, int error, bool for_ever)
{
  std::lock_guard<std::mutex> guard(mutex_);
  Fault fault;
  fault.left = number;
  fault.error = error;
  fault.for_ever = for_ever;
  faults_[kind] = fault;
}

void Fault_File_System::shorten_write(unsigned number)
{
  std::lock_guard<std::mutex> guard(mutex_);
  short_write_ = number;
}

void Fault_File_System::clear_faults()
{
  std::lock_guard<std::mutex> guard(mutex_);
  faults_.clear();
  short_write_ = 0;
}

unsigned Fault_File_System::count(const std::string& kind) const
{
  std::lock_guard<std::mutex> guard(mutex_);
  const auto found = counts_.find(kind);
  return found == counts_.end() ? 0 : found->second;
}

bool Fault_File_System::met() const
{
  std::lock_guard<std::mutex> guard(mutex_);
  return met_;
}

bool Fault_File_System::fault_met(const std::string& kind)
{
  ++counts_[kind];
  const auto found = faults_.find(kind);
  if (found == faults_.end() || found->second.left == 0 || --found->second.left > 0)
    return false;
  errno = found->second.error;
  met_ = true;
  if (found->second.for_ever)
    found->second.left = 1;
  return true;
}

bool Fault_File_System::fails(const char* kind)
{
  std::lock_guard<std::mutex> guard(mutex_);
  const bool own = fault_met(kind);
  const int error = errno;
  const bool any = fault_met("any");
  if (own)
    errno = error;
  return own || any;
}

bool Fault_File_System::shortened()
{
  std::lock_guard<std::mutex> guard(mutex_);
  if (short_write_ == 0 || --short_write_ > 0)
    return false;
  met_ = true;
  return true;
}

int Fault_File_System::open(const char* path, int flags, mode_t mode)
{
  return fails("open") ? -1 : File_System::open(path, flags, mode);
}

ssize_t Fault_File_System::read(int fd, void* buffer, size_t count)
{
  return fails("read") ? -1 : File_System::read(fd, buffer, count);
}

ssize_t Fault_File_System::write(int fd, const void* buffer, size_t count)
{
  if (fails("write"))
    return -1;
  return File_System::write(fd, buffer, count > 1 && shortened() ? count / 2 : count);
}

ssize_t Fault_File_System::pread(int fd, void* buffer, size_t count, off_t offset)
{
  return fails("pread") ? -1 : File_System::pread(fd, buffer, count, offset);
}

ssize_t Fault_File_System::pwrite(int fd, const void* buffer, size_t count, off_t offset)
{
  if (fails("pwrite"))
    return -1;
  return File_System::pwrite(fd, buffer, count > 1 && shortened() ? count / 2 : count, offset);
}

int Fault_File_System::fsync(int fd)
{
  return fails("fsync") ? -1 : File_System::fsync(fd);
}

int Fault_File_System::close(int fd)
{
  const bool failing = fails("close");
  const int error = errno;
  const int result = File_System::close(fd);
  if (failing)
    errno = error;
  return failing ? -1 : result;
}

int Fault_File_System::rename(const char* from, const char* to)
{
  return fails("rename") ? -1 : File_System::rename(from, to);
}

int Fault_File_System::unlink(const char* path)
{
  return fails("unlink") ? -1 : File_System::unlink(path);
}

int Fault_File_System::mkdir(const char* path, mode_t mode)
{
  return fails("mkdir") ? -1 : File_System::mkdir(path, mode);
}

int Fault_File_System::fstat(int fd, struct stat* status)
{
  return fails("fstat") ? -1 : File_System::fstat(fd, status);
}

int Fault_File_System::stat(const char* path, struct stat* status)
{
  return fails("stat") ? -1 : File_System::stat(path, status);
}

int Fault_File_System::fsync_directory(const char* path)
{
  return fails("fsync_directory") ? -1 : File_System::fsync_directory(path);
}
} // namespace kestrel_test
