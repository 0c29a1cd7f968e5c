#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <sys/types.h>

namespace oscar
{
/// A named pipe in the file system between this process and one tool at a time. Opening one end blocks until
/// the other end is opened. A tool that ends without having opened its end would hold the opener for ever;
/// release_open, called by the thread that watched the tool end, lets the opener go: a reader then finds end
/// of file at once, a writer gets EPIPE.
///
/// For every tool: begin_open() before the tool is started, one open_*() or give_up_open() by the opener, one
/// release_open() after the tool has ended.
/// Threads:   one opener (open_*, give_up_open) and one watcher (release_open); begin_open and create before
///            both start.
/// Ownership: owns the name in the file system, not the descriptors that it hands out.
/// Errors:    false or -1 with errno.
/// Crash:     leaves the FIFO; names carry the time, so it is in nobody's way.
class Stream_Fifo
{
public:
  explicit Stream_Fifo(std::string path) : path_(std::move(path)) {}
  /// Removes the name if create made it.
  ~Stream_Fifo();
  Stream_Fifo(const Stream_Fifo&) = delete;
  Stream_Fifo& operator=(const Stream_Fifo&) = delete;

  [[nodiscard]] bool create(mode_t mode);
  const std::string& path() const { return path_; }

  void begin_open();
  /// Blocks until the other end is opened or released. The descriptor is closed on exec, so that no other
  /// child keeps the stream open. -1 with errno.
  [[nodiscard]] int open_reader() { return open_end(Side::READER); }
  [[nodiscard]] int open_writer() { return open_end(Side::WRITER); }
  /// The opener will not open its end (any more). Harmless after an open.
  void give_up_open();

  enum class Side { READER, WRITER };
  /// Returns once the opener, which opens the given side, is past its open or has given up. By then no
  /// descriptor of ours is left on the other side.
  void release_open(Side opener_side);
  /// Moves an opener that is past its open and stands still in a read or a write, because a process that has
  /// gone silent holds the other side: a reader gets zeros, a writer is relieved of what it has written. The
  /// stream is worth nothing from then on. Does nothing when nobody stands there.
  void disturb_stream(Side opener_side);

private:
  int open_end(Side side);

  const std::string path_;
  bool created_ = false;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool past_open_ = true;
};
} // namespace oscar
