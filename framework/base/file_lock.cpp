#include "base/file_lock.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>

namespace kestrel
{
bool File_Lock::lock(const std::string& path)
{
  return acquire(path, LOCK_EX);
}

bool File_Lock::try_lock(const std::string& path)
{
  return acquire(path, LOCK_EX | LOCK_NB);
}

bool File_Lock::acquire(const std::string& path, int operation)
{
  if (locked())
    return true;
  Auto_Fd file(above_stdio(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)));
  if (file.get() < 0)
    return false;
  int result;
  do
    result = ::flock(file.get(), operation);
  while (result != 0 && errno == EINTR);
  if (result != 0)
    return false;
  file_.reset(file.release());
  return true;
}
} // namespace kestrel
