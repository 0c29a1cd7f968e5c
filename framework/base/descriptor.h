#pragma once

#include <sys/types.h>

/// System calls on descriptors that do not end early at a signal.
/// Threads: as the calls themselves.
/// Units:   bytes.
/// Errors:  negative with errno, and then nothing is known about how much of an earlier part was moved.
struct read_write_trait {
  /// One read, repeated on EINTR.
  static ssize_t read(int fd, void* buf, size_t n);
  /// Reads until n bytes are there: n, or the count so far at end of file, or the negative result.
  static ssize_t read_n(int fd, void* buf, size_t n);
  /// One write, repeated on EINTR.
  static ssize_t write(int fd, const void* buf, size_t n);
  /// Writes until n bytes are gone: n, or the count so far when a write moves nothing, or the negative
  /// result.
  static ssize_t write_n(int fd, const void* buf, size_t n);
};

/// What Auto_Closer needs to know about file descriptors.
struct Auto_Handle_Trait {
  static int invalid() { return -1; }
  static void close(int fd);
};

/// Owns one handle and closes it at the end of the scope. Not to be shared between threads.
template <class H, class Trait> class Auto_Closer
{
public:
  explicit Auto_Closer(H handle = Trait::invalid()) : handle_(handle) {}
  ~Auto_Closer() { reset(); }
  Auto_Closer(const Auto_Closer&) = delete;
  Auto_Closer& operator=(const Auto_Closer&) = delete;

  /// Closes what it holds and takes over another handle. errno stays as it was.
  void reset(H handle = Trait::invalid())
  {
    if (handle_ != Trait::invalid() && handle_ != handle)
      Trait::close(handle_);
    handle_ = handle;
  }
  H get() const { return handle_; }
  /// Gives the handle away without closing it.
  H release()
  {
    const H handle = handle_;
    handle_ = Trait::invalid();
    return handle;
  }

private:
  H handle_;
};

namespace kestrel
{
typedef Auto_Closer<int, Auto_Handle_Trait> Auto_Fd;

/// Takes over fd and gives back a close-on-exec descriptor above 2 for the same file. A process that was
/// started with its standard descriptors closed would otherwise get 0, 1 or 2 for a pipe. -1 with errno (fd
/// is closed then too); a negative fd gives -1 and leaves errno alone.
[[nodiscard]] int above_stdio(int fd);

/// pipe2 with close-on-exec, both ends above 2. 0, or -1 with errno and both closers untouched.
[[nodiscard]] int make_pipe(Auto_Fd& read_end, Auto_Fd& write_end);
} // namespace kestrel
