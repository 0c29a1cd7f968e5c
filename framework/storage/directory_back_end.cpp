#include "storage/directory_back_end.h"

#include "base/descriptor.h"
#include "base/durable_file.h"
#include "base/file_system.h"
#include "base/ignore_result.h"
#include "base/scope_guard.h"
#include "storage/file_error.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace kestrel
{
namespace
{
const mode_t FILE_MODE = 0640;
const mode_t FOLDER_MODE = 0750;
const size_t MOST_SIDE_FILE_BYTES = 1024 * 1024;
// How much is written before the kernel is asked to begin moving it to the disk. Without that a whole backup
// may sit in the page cache until the final fsync, which then takes as long as the backup did.
const uint64_t WRITEBACK_BYTES = 8 * 1024 * 1024;
// A backup is not read again soon, so its bytes need not push a database's pages out of the page cache.
// Writing past the cache also takes about a third of the processor time. The alignment suits every usual
// device.
const unsigned DIRECT_ALIGNMENT = 4096;
const unsigned GATHER_BYTES = 1024 * 1024;
const unsigned DIRECT_READ_BYTES = 1024 * 1024;

bool ends_with(const std::string& text, const std::string& end)
{
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

bool same_file(const struct stat& a, const struct stat& b)
{
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

std::string parent_of(const std::string& path)
{
  const size_t slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool exists(const std::string& path)
{
  struct stat status;
  return file_system().stat(path.c_str(), &status) == 0;
}

/// 0 also when the file is already gone; else -1 with errno.
int unlink_if_there(const std::string& path)
{
  const int result = file_system().unlink(path.c_str());
  return result != 0 && errno == ENOENT ? 0 : result;
}

bool set_direct(int fd, bool direct)
{
  const int flags = ::fcntl(fd, F_GETFL);
  return flags >= 0 && ::fcntl(fd, F_SETFL, direct ? flags | O_DIRECT : flags & ~O_DIRECT) == 0;
}

/// True for file systems on local disks, where going past the page cache is known to be fast. Others, such as
/// network file systems, gain from the cache, which sends many requests at once.
bool is_direct_file_system(int fd)
{
  struct statfs status;
  return ::fstatfs(fd, &status) == 0 &&
         (status.f_type == EXT4_SUPER_MAGIC || status.f_type == XFS_SUPER_MAGIC);
}

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

class Directory_Writer : public Stored_File_Writer
{
public:
  Directory_Writer(const std::string& path, int fd, bool direct)
      : path_(path), partial_path_(partial_file_path(path)), fd_(fd), direct_(direct)
  {
  }

  ~Directory_Writer() override
  {
    if (fd_ >= 0)
      ignore_result(file_system().close(fd_), "the file stays unfinished anyway");
    std::free(gathered_);
  }

  bool write(const void* data, unsigned n, std::string& error) override
  {
    const char* next = static_cast<const char*>(data);
    while (direct_ && n > 0) {
      const unsigned taken = write_direct(next, n, error);
      if (taken == 0)
        return false;
      next += taken;
      n -= taken;
    }
    return n == 0 || write_out(next, n, error);
  }

  bool commit(const std::string& side_file, std::string& error) override
  {
    if (!leave_direct(error))
      return false;
    // The lock lives as long as any descriptor of the open file; this one keeps it until the file has its
    // name.
    const Auto_Fd lock(::fcntl(fd_, F_DUPFD_CLOEXEC, 3));
    if (file_system().fsync(fd_) != 0)
      return fail(error, "flush", partial_path_);
    const int closed = file_system().close(fd_);
    fd_ = -1;
    if (closed != 0)
      return fail(error, "close", partial_path_);
    return remove_old(error) && publish(side_file, error);
  }

  // The lock is still held: a writer of the same name that comes now either fails on it or makes a new file.
  void discard() override
  {
    if (fd_ < 0)
      return;
    ignore_result(unlink_if_there(partial_path_), "recognisable as unfinished, and the next writer's");
    ignore_result(file_system().close(fd_), "nobody wants the bytes");
    fd_ = -1;
  }

private:
  bool fail(std::string& error, const char* what, const std::string& path)
  {
    error = file_error(what, path, errno);
    return false;
  }

  // How many of the bytes were written or gathered; 0 with `error` filled. Direct writes need whole, aligned
  // pages: a piece that is none goes through a buffer.
  unsigned write_direct(const char* data, unsigned n, std::string& error)
  {
    const bool aligned = reinterpret_cast<uintptr_t>(data) % DIRECT_ALIGNMENT == 0;
    if (gathered_bytes_ == 0 && aligned && n >= DIRECT_ALIGNMENT) {
      n -= n % DIRECT_ALIGNMENT;
      return write_out(data, n, error) ? n : 0;
    }
    if (gathered_ == nullptr)
      gathered_ = static_cast<char*>(std::aligned_alloc(DIRECT_ALIGNMENT, GATHER_BYTES));
    if (gathered_ == nullptr) {
      error = "cannot write " + partial_path_ + ": not enough memory";
      return 0;
    }
    n = std::min(n, GATHER_BYTES - gathered_bytes_);
    std::memcpy(gathered_ + gathered_bytes_, data, n);
    gathered_bytes_ += n;
    if (gathered_bytes_ < GATHER_BYTES)
      return n;
    gathered_bytes_ = 0;
    return write_out(gathered_, GATHER_BYTES, error) ? n : 0;
  }

  // Continues through the page cache, which takes pieces of any size.
  bool leave_direct(std::string& error)
  {
    drop_direct_flag();
    const unsigned left = gathered_bytes_;
    gathered_bytes_ = 0;
    return left == 0 || write_out(gathered_, left, error);
  }

  void drop_direct_flag()
  {
    if (direct_)
      ignore_result(set_direct(fd_, false), "the next write tells");
    direct_ = false;
  }

  bool write_out(const char* data, unsigned n, std::string& error)
  {
    unsigned left = n;
    while (left > 0) {
      const ssize_t count = file_system().write(fd_, data, left);
      if (count < 0 && errno == EINTR)
        continue;
      // The file system cannot write directly after all, or not this rest of a short write.
      if (count < 0 && errno == EINVAL && direct_) {
        drop_direct_flag();
        continue;
      }
      if (count <= 0) {
        error = file_error("write", partial_path_, count == 0 ? EIO : errno);
        return false;
      }
      data += count;
      left -= static_cast<unsigned>(count);
    }
    written_ += n;
    begin_writeback();
    return true;
  }

  void begin_writeback()
  {
    if (direct_ || written_ - writeback_begun_ < WRITEBACK_BYTES)
      return;
    ignore_result(::sync_file_range(fd_, static_cast<off_t>(writeback_begun_),
                                    static_cast<off_t>(written_ - writeback_begun_), SYNC_FILE_RANGE_WRITE),
                  "only advice; fsync reports every error");
    writeback_begun_ = written_;
  }

  // The old data must never stand beside the new side file.
  bool remove_old(std::string& error)
  {
    if (!exists(path_))
      return true;
    if (unlink_if_there(path_) != 0)
      return fail(error, "remove the replaced file", path_);
    if (file_system().fsync_directory(parent_of(path_).c_str()) != 0)
      return fail(error, "flush directory", parent_of(path_));
    return true;
  }

  bool publish(const std::string& side_file, std::string& error)
  {
    const std::string side_path = side_file_path(path_);
    Scope_Guard remove_side_file(
        [&] { ignore_result(unlink_if_there(side_path), "harmless without its data file"); });
    if (!write_file_durably(side_path, side_file, FILE_MODE, error)) {
      error = file_error("store the side file", side_path, errno);
      return false;
    }
    if (file_system().rename(partial_path_.c_str(), path_.c_str()) != 0)
      return fail(error, "give the finished file its name", path_);
    if (file_system().fsync_directory(parent_of(path_).c_str()) != 0) {
      // A name that a power failure may take away again must not be seen as a backup.
      fail(error, "flush directory", parent_of(path_));
      ignore_result(file_system().rename(path_.c_str(), partial_path_.c_str()),
                    "the first error is reported");
      return false;
    }
    remove_side_file.cancel();
    return true;
  }

  const std::string path_;
  const std::string partial_path_;
  int fd_;
  bool direct_;
  char* gathered_ = nullptr;
  unsigned gathered_bytes_ = 0;
  uint64_t written_ = 0;
  uint64_t writeback_begun_ = 0;
};

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
    unsigned done = 0;
    while (done < n) {
      char* const next = static_cast<char*>(data) + done;
      switch_direct(next, n - done);
      const ssize_t count = file_system().read(fd_, next, n - done);
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
      offset_ += static_cast<uint64_t>(count);
    }
    return static_cast<int>(done);
  }

  bool can_read_at() const override { return true; }

  int read_at(uint64_t offset, void* data, unsigned n, std::string& error) override
  {
    if (direct_)
      direct_ = !set_direct(fd_, false);
    unsigned done = 0;
    while (done < n) {
      const ssize_t count = file_system().pread(fd_, static_cast<char*>(data) + done, n - done,
                                                static_cast<off_t>(offset + done));
      if (count < 0 && errno == EINTR)
        continue;
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

private:
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

/// Opens and locks the unfinished file. -1 with `error` and errno; EEXIST when another job writes it.
int open_partial(const std::string& path, std::string& error)
{
  const std::string partial_path = partial_file_path(path);
  // The loop ends when the locked file still has the name: the writer before us may have renamed it away
  // between our open and our lock, and emptying it then would destroy a finished file.
  for (int attempt = 0; attempt < 10; ++attempt) {
    // Not blocking and not following links, in case somebody left a pipe or a link of that name.
    const int fd =
        file_system().open(partial_path.c_str(), O_WRONLY | O_CREAT | O_NONBLOCK | O_NOFOLLOW, FILE_MODE);
    if (fd < 0) {
      const int failure = errno == EEXIST ? EIO : errno;
      error = file_error("create", partial_path, errno);
      errno = failure;
      return -1;
    }
    int failure = EIO;
    Scope_Guard close_file([&] {
      ignore_result(file_system().close(fd), "nothing was written yet");
      errno = failure;
    });
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
      error = "cannot create " + partial_path + ": another job is writing this file; wait until it has ended";
      failure = EEXIST;
      return -1;
    }
    struct stat opened;
    struct stat named;
    if (file_system().fstat(fd, &opened) != 0) {
      error = file_error("examine", partial_path, errno);
      return -1;
    }
    if (!S_ISREG(opened.st_mode)) {
      error =
          "cannot create " + partial_path + ": something of this name exists that is no file; move it away";
      return -1;
    }
    if (file_system().stat(partial_path.c_str(), &named) != 0 || !same_file(opened, named))
      continue;
    if (::ftruncate(fd, 0) != 0) {
      error = file_error("empty", partial_path, errno);
      return -1;
    }
    close_file.cancel();
    return fd;
  }
  error = "cannot create " + partial_path + ": other jobs keep writing this file";
  errno = EEXIST;
  return -1;
}

/// False with `error` and errno when what has this path may not be replaced.
bool may_create(const std::string& path, bool overwrite, std::string& error)
{
  struct stat status;
  if (file_system().stat(path.c_str(), &status) != 0)
    return true;
  if (!overwrite) {
    error = "cannot create " + path + ": a stored file of this name exists and may not be replaced";
    errno = EEXIST;
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    error = "cannot create " + path + ": something of this name exists that is no file; move it away";
    errno = EISDIR;
    return false;
  }
  return true;
}

bool is_safe_folder(const std::string& folder)
{
  size_t begin = 0;
  while (begin <= folder.size()) {
    const size_t end = std::min(folder.find('/', begin), folder.size());
    const std::string component = folder.substr(begin, end - begin);
    if (component.empty() || component == "." || component == "..")
      return false;
    begin = end + 1;
  }
  return true;
}
} // namespace

bool is_stored_file_name(const std::string& name, std::string& error)
{
  bool plain = !name.empty() && name != "." && name != "..";
  std::string shown;
  for (const char c : name) {
    const bool control = static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
    plain = plain && c != '/' && !control;
    shown += control ? '?' : c;
  }
  if (!plain) {
    error = "\"" + shown + "\" cannot be the name of a stored file: it is not a plain file name";
    return false;
  }
  if (ends_with(name, ".meta") || ends_with(name, ".partial")) {
    error = "\"" + name +
            "\" cannot be the name of a stored file: this ending is kept for side files and leftovers";
    return false;
  }
  return true;
}

std::string side_file_path(const std::string& path)
{
  return path + ".meta";
}

std::string partial_file_path(const std::string& path)
{
  return path + ".partial";
}

bool Directory_Back_End::connect(const std::string& location, const Client_IO_Base::Options& options,
                                 std::string& error)
{
  std::string pool_path = options.storage_path;
  if (pool_path.empty() || location.compare(0, pool_path.size() + 1, pool_path + "/") != 0)
    pool_path = parent_of(location.find('/') == std::string::npos ? "/" : location);
  const bool absolute = !location.empty() && location[0] == '/';
  std::string folder;
  if (absolute)
    folder = location.substr(pool_path == "/" ? 1 : pool_path.size() + 1);
  if (!absolute || !is_safe_folder(folder)) {
    error = "\"" + location +
            "\" is not a folder of a pool: it must be the pool's absolute path and the source's id";
    return false;
  }
  struct stat status;
  const int failure = file_system().stat(pool_path.c_str(), &status) != 0 ? errno : 0;
  if (failure != 0 || !S_ISDIR(status.st_mode)) {
    error = file_error("use the pool directory", pool_path, failure != 0 ? failure : ENOTDIR);
    return false;
  }
  options_ = options;
  pool_path_ = pool_path;
  folder_ = folder;
  location_ = location;
  return true;
}

bool Directory_Back_End::make_folder(std::string& error)
{
  size_t end = 0;
  std::string parent = pool_path_;
  while (end < folder_.size()) {
    end = std::min(folder_.find('/', end + 1), folder_.size());
    const std::string path = (pool_path_ == "/" ? "" : pool_path_) + "/" + folder_.substr(0, end);
    if (file_system().mkdir(path.c_str(), FOLDER_MODE) == 0) {
      if (file_system().fsync_directory(parent.c_str()) != 0) {
        error = file_error("flush directory", parent, errno);
        return false;
      }
    } else if (errno != EEXIST) {
      error = file_error("make the folder", path, errno);
      return false;
    }
    parent = path;
  }
  return true;
}

std::unique_ptr<Stored_File_Writer> Directory_Back_End::create(const std::string& name, bool overwrite,
                                                               std::string& error)
{
  errno = EINVAL;
  if (!is_stored_file_name(name, error))
    return nullptr;
  if (!make_folder(error)) {
    errno = EIO;
    return nullptr;
  }
  const std::string path = location_ + "/" + name;
  if (!may_create(path, overwrite, error))
    return nullptr;
  const int fd = open_partial(path, error);
  if (fd < 0)
    return nullptr;
  Scope_Guard close_file([&] {
    const int failure = errno;
    ignore_result(unlink_if_there(partial_file_path(path)), "it is empty");
    ignore_result(file_system().close(fd), "nothing was written yet");
    errno = failure;
  });
  // Whoever had the lock before may have finished the file since.
  if (!overwrite && !may_create(path, false, error))
    return nullptr;
  close_file.cancel();
  // A limited stream comes in small pieces.
  const bool direct =
      options_.rate_limits.write_limit() == 0 && is_direct_file_system(fd) && set_direct(fd, true);
  return std::make_unique<Directory_Writer>(path, fd, direct);
}

std::unique_ptr<Stored_File_Reader> Directory_Back_End::open(const std::string& name, std::string& error)
{
  if (!is_stored_file_name(name, error))
    return nullptr;
  const std::string path = location_ + "/" + name;
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

bool Directory_Back_End::remove(const std::string& name, std::string& error)
{
  if (!is_stored_file_name(name, error))
    return false;
  const std::string path = location_ + "/" + name;
  // The data file goes first: a side file alone is never taken for a backup.
  for (const std::string& each : {path, side_file_path(path), partial_file_path(path)}) {
    if (unlink_if_there(each) != 0) {
      error = file_error("remove", each, errno);
      return false;
    }
  }
  if (exists(location_) && file_system().fsync_directory(location_.c_str()) != 0) {
    error = file_error("flush directory", location_, errno);
    return false;
  }
  return true;
}
} // namespace kestrel
