#include "base/descriptor.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

ssize_t read_write_trait::read(int fd, void* buf, size_t n)
{
  ssize_t count;
  do
    count = ::read(fd, buf, n);
  while (count < 0 && errno == EINTR);
  return count;
}

ssize_t read_write_trait::read_n(int fd, void* buf, size_t n)
{
  size_t done = 0;
  while (done < n) {
    const ssize_t count = read(fd, static_cast<char*>(buf) + done, n - done);
    if (count < 0)
      return count;
    if (count == 0)
      break;
    done += static_cast<size_t>(count);
  }
  return static_cast<ssize_t>(done);
}

ssize_t read_write_trait::write(int fd, const void* buf, size_t n)
{
  ssize_t count;
  do
    count = ::write(fd, buf, n);
  while (count < 0 && errno == EINTR);
  return count;
}

ssize_t read_write_trait::write_n(int fd, const void* buf, size_t n)
{
  size_t done = 0;
  while (done < n) {
    const ssize_t count = write(fd, static_cast<const char*>(buf) + done, n - done);
    if (count < 0)
      return count;
    if (count == 0)
      break;
    done += static_cast<size_t>(count);
  }
  return static_cast<ssize_t>(done);
}

void Auto_Handle_Trait::close(int fd)
{
  // Linux frees the number even when close is interrupted: repeating it could close another thread's new
  // file.
  const int error = errno;
  ::close(fd);
  errno = error;
}

namespace kestrel
{
int above_stdio(int fd)
{
  if (fd < 0 || fd > 2)
    return fd;
  const int higher = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
  Auto_Handle_Trait::close(fd);
  return higher;
}

int make_pipe(Auto_Fd& read_end, Auto_Fd& write_end)
{
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0)
    return -1;
  Auto_Fd reader(above_stdio(ends[0]));
  Auto_Fd writer(above_stdio(ends[1]));
  if (reader.get() < 0 || writer.get() < 0)
    return -1;
  read_end.reset(reader.release());
  write_end.reset(writer.release());
  return 0;
}
} // namespace kestrel
