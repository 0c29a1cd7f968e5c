#include "storage/directory_files.h"

#include "base/descriptor.h"
#include "base/durable_file.h"
#include "base/file_system.h"
#include "base/ignore_result.h"
#include "base/scope_guard.h"
#include "storage/directory_back_end.h"
#include "storage/file_error.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace kestrel
{
namespace
{
const mode_t FILE_MODE = 0640;
// How much is written before the kernel is asked to begin moving it to the disk. Without that a whole backup
// may sit in the page cache until the final fsync, which then takes as long as the backup did.
const uint64_t WRITEBACK_BYTES = 8 * 1024 * 1024;
const unsigned GATHER_BYTES = 1024 * 1024;

bool same_file(const struct stat& a, const struct stat& b)
{
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
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
} // namespace

std::string side_file_path(const std::string& path)
{
  return path + ".meta";
}

std::string partial_file_path(const std::string& path)
{
  return path + ".partial";
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

bool is_direct_file_system(int fd)
{
  struct statfs status;
  return ::fstatfs(fd, &status) == 0 &&
         (status.f_type == EXT4_SUPER_MAGIC || status.f_type == XFS_SUPER_MAGIC);
}

std::unique_ptr<Stored_File_Writer> create_directory_file(const std::string& path, bool overwrite,
                                                          bool direct_allowed, std::string& error)
{
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
  const bool direct = direct_allowed && is_direct_file_system(fd) && set_direct(fd, true);
  return std::make_unique<Directory_Writer>(path, fd, direct);
}

std::unique_ptr<Stored_File_Writer> resume_directory_file(const std::string& path, Unfinished_File& left,
                                                          std::string& error)
{
  const std::string partial_path = partial_file_path(path);
  const int fd = file_system().open(partial_path.c_str(), O_WRONLY | O_NONBLOCK | O_NOFOLLOW);
  if (fd < 0) {
    const int failure = errno == EEXIST ? EIO : errno;
    error = file_error("go on with", partial_path, errno);
    errno = failure;
    return nullptr;
  }
  Scope_Guard close_file([&] {
    const int failure = errno;
    ignore_result(file_system().close(fd), "nothing was written yet");
    errno = failure;
  });
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    error = "cannot go on with " + partial_path + ": another job is writing this file";
    errno = EEXIST;
    return nullptr;
  }
  struct stat opened;
  struct stat named;
  if (file_system().fstat(fd, &opened) != 0 || ::lseek(fd, 0, SEEK_END) < 0) {
    error = file_error("examine", partial_path, errno);
    return nullptr;
  }
  // Finished by somebody else between our open and our lock?
  if (!S_ISREG(opened.st_mode) || file_system().stat(partial_path.c_str(), &named) != 0 ||
      !same_file(opened, named)) {
    error = "cannot go on with " + partial_path + ": it is no unfinished file any more";
    errno = ENOENT;
    return nullptr;
  }
  close_file.cancel();
  left.bytes = static_cast<uint64_t>(opened.st_size);
  left.inode = opened.st_ino;
  return std::make_unique<Directory_Writer>(path, fd, false);
}
} // namespace kestrel
