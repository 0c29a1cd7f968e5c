#include "storage/directory_files.h"

#include "base/durable_file.h"
#include "base/file_system.h"
#include "base/ignore_result.h"
#include "base/scope_guard.h"
#include "storage/directory_back_end.h"
#include "storage/file_error.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>

namespace kestrel
{
namespace
{
const size_t MOST_SIDE_FILE_BYTES = 1024 * 1024;
const unsigned DIRECT_READ_BYTES = 1024 * 1024;

enum class Cached { YES, NO, UNKNOWN };

/// Whether most of a few bytes all over the file are in the page cache.
Cached is_cached(int fd, uint64_t size)
{
  const int samples = 5;
  int cached = 0;
  for (int i = 0; i < samples && size > 0; ++i) {
    char byte;
    const struct iovec target = {&byte, 1};
    const ssize_t count =
        ::preadv2(fd, &target, 1, static_cast<off_t>((size - 1) / (samples - 1) * static_cast<unsigned>(i)),
                  RWF_NOWAIT);
    if (count < 0 && errno != EAGAIN)
      return Cached::UNKNOWN;
    cached += count < 0 ? 0 : 1;
  }
  return cached > samples / 2 ? Cached::YES : Cached::NO;
}

class Directory_Reader : public Stored_File_Reader
{
public:
  Directory_Reader(const std::string& path, int fd, uint64_t size, Cached cached)
      : path_(path), fd_(fd), size_(size), in_memory_(cached == Cached::YES),
        direct_allowed_(cached == Cached::NO && is_direct_file_system(fd))
  {
  }

  ~Directory_Reader() override { ignore_result(file_system().close(fd_), "the file was only read"); }

  bool load_side_file(std::string& error)
  {
    const std::string side_path = side_file_path(path_);
    if (read_whole_file(side_path, side_file_, error, MOST_SIDE_FILE_BYTES))
      return true;
    if (errno == ENOENT)
      return true;
    error = file_error("read the side file", side_path, errno);
    return false;
  }

  const std::string& side_file() const override { return side_file_; }
  uint64_t size() const override { return size_; }
  const std::string& path() const override { return path_; }
  bool in_memory() const override { return in_memory_; }

  int read(void* data, unsigned n, std::string& error) override
  {
    return read_fully(data, n, error, [this](char* next, unsigned left, unsigned) {
      switch_direct(next, left);
      const ssize_t count = file_system().read(fd_, next, left);
      offset_ += count > 0 ? static_cast<uint64_t>(count) : 0;
      return count;
    });
  }

  bool can_read_at() const override { return true; }

  int read_at(uint64_t offset, void* data, unsigned n, std::string& error) override
  {
    if (direct_)
      ignore_result(set_direct(fd_, false), "the next read tells");
    direct_ = false;
    return read_fully(data, n, error, [this, offset](char* next, unsigned left, unsigned done) {
      return file_system().pread(fd_, next, left, static_cast<off_t>(offset + done));
    });
  }

private:
  // Calls read_some(where, how many, how many before) until n bytes are there or the file ends.
  template <class Read_Some> int read_fully(void* data, unsigned n, std::string& error, Read_Some read_some)
  {
    unsigned done = 0;
    while (done < n) {
      const ssize_t count = read_some(static_cast<char*>(data) + done, n - done, done);
      if (count < 0 && errno == EINTR)
        continue;
      if (count < 0 && errno == EINVAL && direct_) {
        direct_allowed_ = false;
        continue;
      }
      if (count < 0) {
        error = file_error("read", path_, errno);
        return -1;
      }
      if (count == 0)
        break;
      done += static_cast<unsigned>(count);
    }
    return static_cast<int>(done);
  }

  // Large reads into whole pages go past the page cache; for others the kernel's read-ahead does better.
  void switch_direct(const char* data, unsigned n)
  {
    const bool direct = direct_allowed_ && n >= DIRECT_READ_BYTES && n % DIRECT_ALIGNMENT == 0 &&
                        offset_ % DIRECT_ALIGNMENT == 0 &&
                        reinterpret_cast<uintptr_t>(data) % DIRECT_ALIGNMENT == 0;
    if (direct != direct_)
      direct_ = set_direct(fd_, direct) && direct;
  }

  const std::string path_;
  const int fd_;
  const uint64_t size_;
  const bool in_memory_;
  bool direct_allowed_;
  bool direct_ = false;
  uint64_t offset_ = 0;
  std::string side_file_;
};
} // namespace

std::unique_ptr<Stored_File_Reader> open_directory_file(const std::string& path, std::string& error)
{
  // Not blocking, in case somebody left a pipe of that name.
  const int fd = file_system().open(path.c_str(), O_RDONLY | O_NONBLOCK);
  if (fd < 0) {
    const int failure = errno;
    error = file_error("open", path, failure);
    if (failure == ENOENT && exists(partial_file_path(path)))
      error = "cannot open " + path + ": it was never finished; only " + partial_file_path(path) + " exists";
    return nullptr;
  }
  Scope_Guard close_file([&] { ignore_result(file_system().close(fd), "nothing was read yet"); });
  struct stat status;
  if (file_system().fstat(fd, &status) != 0) {
    error = file_error("examine", path, errno);
    return nullptr;
  }
  if (!S_ISREG(status.st_mode)) {
    error = "cannot open " + path + ": it is no regular file";
    return nullptr;
  }
  ignore_result(::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL), "only advice");
  const uint64_t size = static_cast<uint64_t>(status.st_size);
  auto reader = std::make_unique<Directory_Reader>(path, fd, size, is_cached(fd, size));
  close_file.cancel();
  if (!reader->load_side_file(error))
    return nullptr;
  return reader;
}
} // namespace kestrel
