#include "jobs/job_activity.h"

#include "base/file_system.h"
#include "base/path_conf.h"
#include "base/uuid.h"

#include <ace/Log_Msg.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

std::string Job_Activity_Path_Conf::path(const std::string& definition_id)
{
  // An id that is no uuid must not reach out of the directory.
  const std::string id = kestrel::is_uuid(definition_id) ? definition_id : kestrel::name_uuid(definition_id);
  const std::string file = id + ".activity";
  return Path_Conf("/var/opt/tarnvik/kestrel3/$COMPONENT", "activity").path(file.c_str());
}

namespace kestrel
{
Mapped_File::~Mapped_File()
{
  close();
}

void Mapped_File::open(const std::string& path, std::size_t size_bytes)
{
  close();
  path_ = path;
  size_bytes_ = size_bytes;
  busy_ = false;
  const std::string reason = map(path, size_bytes);
  if (!reason.empty()) {
    data_ = ::operator new(size_bytes, std::align_val_t(64));
    std::memset(data_, 0, size_bytes);
    // Two objects for one job, as in a status display, are no trouble; a disk that cannot be written is.
    ACE_ERROR((busy_ ? LM_NOTICE : LM_WARNING,
               "(%P|%t) Mapped_File::open: %C: %C; the record is kept in memory only\n", path.c_str(),
               reason.c_str()));
  }
}

std::string Mapped_File::map(const std::string& path, std::size_t size_bytes)
{
  File_System& files = file_system();
  const int handle = files.open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640);
  if (handle < 0) {
    return std::strerror(errno);
  }
  std::string reason;
  struct stat info;
  if (::flock(handle, LOCK_EX | LOCK_NB) != 0) {
    busy_ = errno == EWOULDBLOCK;
    reason = busy_ ? "in use by another job or process" : std::strerror(errno);
  } else if (files.fstat(handle, &info) != 0) {
    reason = std::strerror(errno);
  } else if (static_cast<uint64_t>(info.st_size) < size_bytes) {
    // Really written, not only made longer: storing into a page that the disk has no room for would kill the
    // process.
    const std::vector<char> zeros(size_bytes - static_cast<std::size_t>(info.st_size), 0);
    errno = 0;
    const ssize_t written = files.pwrite(handle, zeros.data(), zeros.size(), info.st_size);
    if (written != static_cast<ssize_t>(zeros.size())) {
      reason = std::strerror(errno != 0 ? errno : ENOSPC);
    }
  }
  if (reason.empty()) {
    void* const data = ::mmap(nullptr, size_bytes, PROT_READ | PROT_WRITE, MAP_SHARED, handle, 0);
    if (data != MAP_FAILED) {
      data_ = data;
      handle_ = handle;
      return reason;
    }
    reason = std::strerror(errno);
  }
  ::close(handle);
  return reason;
}

void Mapped_File::close()
{
  if (!data_) {
    return;
  }
  if (handle_ >= 0) {
    ::munmap(data_, size_bytes_);
    ::close(handle_);
    handle_ = -1;
  } else {
    ::operator delete(data_, std::align_val_t(64));
  }
  data_ = nullptr;
}

int Mapped_File::sync()
{
  return handle_ >= 0 ? ::msync(data_, size_bytes_, MS_ASYNC) : 0;
}

void Mapped_File::remove()
{
  // Only the owner of the lock may: the file in the way of a record in memory belongs to somebody else.
  if (handle_ >= 0 && file_system().unlink(path_.c_str()) != 0 && errno != ENOENT) {
    ACE_ERROR((LM_WARNING, "(%P|%t) Mapped_File::remove: %C: %m\n", path_.c_str()));
  }
}
} // namespace kestrel
