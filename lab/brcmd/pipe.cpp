#include "lab/brcmd/pipe.h"

#include "lab/common/text.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace oscar_lab
{

namespace
{

constexpr int reader_timeout_msec = 600 * 1000;
constexpr int wanted_pipe_bytes = 1024 * 1024;
constexpr int reader_poll_msec = 5;
// A part of what the reader of a full pipe takes to empty it.
constexpr long room_pause_usec = 500;
// A reader that takes longer is waited for in write().
constexpr int most_room_pauses = 40;

void pause_usec(long usec)
{
  const timespec pause{0, usec * 1000};
  ::nanosleep(&pause, nullptr);
}

/// A larger pipe spares switches between the two processes; the default size works too.
void enlarge(int fd)
{
  if (::fcntl(fd, F_SETPIPE_SZ, wanted_pipe_bytes) < 0)
    errno = 0;
}

} // namespace

void require_pipe(const std::string& path, bool for_writing)
{
  struct stat status;
  if (::stat(path.c_str(), &status) != 0)
    fail_errno("cannot look at the pipe " + path);
  if (!S_ISFIFO(status.st_mode))
    throw Failure(path + " is not a pipe");
  if (::access(path.c_str(), for_writing ? W_OK : R_OK) != 0)
    fail_errno("cannot use the pipe " + path);
}

Descriptor open_pipe_for_writing(const std::string& path, const std::function<void()>& idle)
{
  // A blocking open could not watch the server meanwhile.
  for (int waited_msec = 0; waited_msec < reader_timeout_msec; waited_msec += reader_poll_msec) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0) {
      Descriptor pipe(fd);
      const int flags = ::fcntl(fd, F_GETFL);
      if (flags < 0 || ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0)
        fail_errno("cannot set up the pipe");
      enlarge(fd);
      return pipe;
    }
    if (errno != ENXIO && errno != EINTR)
      fail_errno("cannot open the pipe " + path);
    idle();
    pause_usec(reader_poll_msec * 1000);
  }
  throw Failure("nobody reads from the pipe " + path);
}

Descriptor open_pipe_for_reading(const std::string& path)
{
  Descriptor pipe = open_file(path, O_RDONLY);
  enlarge(pipe.get());
  return pipe;
}

void allow_time_for_room(int fd, std::size_t bytes)
{
  const int pipe_bytes = ::fcntl(fd, F_GETPIPE_SZ);
  if (pipe_bytes < 0)
    fail_errno("cannot look at the pipe");
  if (static_cast<std::size_t>(pipe_bytes) < bytes)
    return;
  for (int pauses = 0; pauses < most_room_pauses; ++pauses) {
    int waiting = 0;
    if (::ioctl(fd, FIONREAD, &waiting) != 0)
      fail_errno("cannot look into the pipe");
    if (static_cast<std::size_t>(waiting) + bytes <= static_cast<std::size_t>(pipe_bytes))
      return;
    pause_usec(room_pause_usec);
  }
}

void wait_until_drained(int fd)
{
  for (;;) {
    int left = 0;
    if (::ioctl(fd, FIONREAD, &left) != 0)
      fail_errno("cannot look into the pipe");
    if (left == 0)
      return;
    pollfd state{fd, 0, 0};
    if (::poll(&state, 1, 0) > 0 && (state.revents & POLLERR) != 0)
      throw Failure("the reader of the pipe went away before the end");
    pause_usec(1000);
  }
}

} // namespace oscar_lab
