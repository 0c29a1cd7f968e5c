#include "oscar/stream_fifo.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <unistd.h>

#include <ace/OS_NS_sys_stat.h>

#include "base/descriptor.h"
#include "base/ignore_result.h"

namespace oscar
{
namespace
{
// An opener that has not reached its open yet is looked for again after this time.
constexpr std::chrono::milliseconds RELEASE_RETRY(5);

// What a writer can leave in the pipe before it has to wait for this process, which is often busy with
// compressing. The usual 64 KiB cost both sides a change of threads every few blocks; a writer that waits for
// half of this to be free works in pieces of 256 KiB. Much more would leave the processor's cache.
constexpr int READER_PIPE_BYTES = 512 * 1024;
} // namespace

Stream_Fifo::~Stream_Fifo()
{
  if (created_)
    ::unlink(path_.c_str());
}

bool Stream_Fifo::create(mode_t mode)
{
  created_ = ACE_OS::mkfifo(path_.c_str(), mode) == 0;
  return created_;
}

void Stream_Fifo::begin_open()
{
  const std::lock_guard<std::mutex> lock(mutex_);
  past_open_ = false;
}

void Stream_Fifo::give_up_open()
{
  const std::lock_guard<std::mutex> lock(mutex_);
  past_open_ = true;
  changed_.notify_all();
}

int Stream_Fifo::open_end(Side side)
{
  const int flags = (side == Side::READER ? O_RDONLY : O_WRONLY) | O_CLOEXEC;
  int fd;
  do
    fd = ::open(path_.c_str(), flags);
  while (fd < 0 && errno == EINTR);
  const int error = errno;
  // Refused to a user who has many pipes; the usual size does then.
  if (fd >= 0 && side == Side::READER)
    kestrel::ignore_result(::fcntl(fd, F_SETPIPE_SZ, READER_PIPE_BYTES), "a smaller pipe is only slower");
  give_up_open();
  errno = error;
  return fd;
}

void Stream_Fifo::release_open(Side opener_side)
{
  // A blocked opener counts as present in the pipe, so opening the other side without blocking wakes it, even
  // though that side is closed again before the opener runs.
  const int flags = (opener_side == Side::READER ? O_WRONLY : O_RDONLY) | O_NONBLOCK | O_CLOEXEC;
  std::unique_lock<std::mutex> lock(mutex_);
  while (!past_open_) {
    // Under the lock: the opener goes on only after this descriptor is closed, so it cannot mistake it for
    // the tool.
    const int fd = ::open(path_.c_str(), flags);
    if (fd >= 0)
      ::close(fd);
    changed_.wait_for(lock, RELEASE_RETRY, [this] { return past_open_; });
  }
}

void Stream_Fifo::disturb_stream(Side opener_side)
{
  const int flags = (opener_side == Side::READER ? O_WRONLY : O_RDONLY) | O_NONBLOCK | O_CLOEXEC;
  const kestrel::Auto_Fd fd(::open(path_.c_str(), flags));
  if (fd.get() < 0)
    return;
  // As much as a pipe holds, so that a reader that waits for more than one piece goes on too.
  char block[4096] = {};
  for (unsigned blocks = 0; blocks < 16; ++blocks) {
    const ssize_t count = opener_side == Side::READER ? ::write(fd.get(), block, sizeof block)
                                                      : ::read(fd.get(), block, sizeof block);
    if (count <= 0)
      return;
  }
}
} // namespace oscar
