#include "lab/common/files.h"

#include "lab/common/text.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace oscar_lab
{

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept
{
  if (this != &other) {
    reset();
    fd_ = other.release();
  }
  return *this;
}

int Descriptor::release()
{
  const int fd = fd_;
  fd_ = -1;
  return fd;
}

void Descriptor::reset()
{
  if (fd_ >= 0)
    ::close(fd_);
  fd_ = -1;
}

Descriptor open_file(const std::string& path, int flags, mode_t mode)
{
  const int fd = ::open(path.c_str(), flags | O_CLOEXEC, mode);
  if (fd < 0)
    fail_errno("cannot open " + path);
  return Descriptor(fd);
}

void write_all(int fd, const void* data, std::size_t size, const std::string& what)
{
  const char* next = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t count = ::write(fd, next, size);
    if (count < 0 && errno == EINTR)
      continue;
    if (count < 0)
      fail_errno("cannot write " + what);
    next += count;
    size -= static_cast<std::size_t>(count);
  }
}

std::size_t read_full(int fd, void* data, std::size_t size, const std::string& what)
{
  char* next = static_cast<char*>(data);
  std::size_t total = 0;
  while (total < size) {
    const ssize_t count = ::read(fd, next + total, size - total);
    if (count < 0 && errno == EINTR)
      continue;
    if (count < 0)
      fail_errno("cannot read " + what);
    if (count == 0)
      break;
    total += static_cast<std::size_t>(count);
  }
  return total;
}

bool path_exists(const std::string& path)
{
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0;
}

bool is_regular_file(const std::string& path)
{
  struct stat status;
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

bool is_directory(const std::string& path)
{
  struct stat status;
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::string parent_directory(const std::string& path)
{
  const auto slash = path.rfind('/');
  if (slash == std::string::npos)
    return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string read_file(const std::string& path)
{
  const Descriptor file = open_file(path, O_RDONLY);
  std::string content;
  char buffer[8192];
  while (const std::size_t count = read_full(file.get(), buffer, sizeof buffer, path))
    content.append(buffer, count);
  return content;
}

std::string read_link(const std::string& path)
{
  char target[PATH_MAX];
  const ssize_t length = ::readlink(path.c_str(), target, sizeof target);
  if (length < 0)
    fail_errno("cannot read link " + path);
  return std::string(target, static_cast<std::size_t>(length));
}

Owner owner_of(const std::string& path)
{
  struct stat status;
  if (::stat(path.c_str(), &status) != 0)
    fail_errno("cannot look at " + path);
  return Owner{status.st_uid, status.st_gid};
}

namespace
{

void write_temporary(const std::string& temporary, const std::string& content, mode_t mode, bool sync)
{
  const Descriptor file = open_file(temporary, O_WRONLY | O_CREAT | O_TRUNC, mode);
  if (::fchmod(file.get(), mode) != 0)
    fail_errno("cannot set the mode of " + temporary);
  write_all(file.get(), content.data(), content.size(), temporary);
  if (sync && ::fsync(file.get()) != 0)
    fail_errno("cannot sync " + temporary);
}

} // namespace

void replace_file(const std::string& path, const std::string& content, mode_t mode)
{
  write_temporary(path + ".new", content, mode, true);
  rename_path(path + ".new", path);
  sync_directory(parent_directory(path));
}

void replace_volatile_file(const std::string& path, const std::string& content, mode_t mode)
{
  write_temporary(path + ".new", content, mode, false);
  rename_path(path + ".new", path);
}

void copy_file(const std::string& from, const std::string& to, mode_t mode)
{
  replace_volatile_file(to, read_file(from), mode);
}

void rename_path(const std::string& from, const std::string& to)
{
  if (::rename(from.c_str(), to.c_str()) != 0)
    fail_errno("cannot rename " + from + " to " + to);
}

void make_directory(const std::string& path, mode_t mode)
{
  if (::mkdir(path.c_str(), mode) == 0) {
    if (::chmod(path.c_str(), mode) != 0) // whatever the umask took away
      fail_errno("cannot set the mode of " + path);
    return;
  }
  if (errno != EEXIST || !is_directory(path))
    fail_errno("cannot create directory " + path);
}

void give_to(const std::string& path, const Owner& owner)
{
  if (::geteuid() == 0 && ::lchown(path.c_str(), owner.uid, owner.gid) != 0)
    fail_errno("cannot change the owner of " + path);
}

void remove_tree(const std::string& path)
{
  std::error_code error;
  std::filesystem::remove_all(path, error);
  if (error)
    throw Failure("cannot remove " + path + ": " + error.message());
}

std::vector<std::string> names_in(const std::string& directory)
{
  std::vector<std::string> names;
  DIR* const handle = ::opendir(directory.c_str());
  if (!handle) {
    if (errno == ENOENT)
      return names;
    fail_errno("cannot list " + directory);
  }
  while (const dirent* const entry = ::readdir(handle)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..")
      names.push_back(name);
  }
  ::closedir(handle);
  std::sort(names.begin(), names.end());
  return names;
}

void sync_directory(const std::string& path)
{
  const Descriptor directory = open_file(path, O_RDONLY | O_DIRECTORY);
  if (::fsync(directory.get()) != 0)
    fail_errno("cannot sync " + path);
}

void sync_file_system(const std::string& path)
{
  const Descriptor directory = open_file(path, O_RDONLY);
  if (::syncfs(directory.get()) != 0)
    fail_errno("cannot sync the file system of " + path);
}

File_Lock::File_Lock(const std::string& path, int timeout_msec) : fd_(open_file(path, O_RDWR | O_CREAT, 0640))
{
  for (int waited_msec = 0;; waited_msec += 20) {
    if (::flock(fd_.get(), LOCK_EX | LOCK_NB) == 0) {
      held_ = true;
      return;
    }
    if (errno != EWOULDBLOCK && errno != EINTR)
      fail_errno("cannot lock " + path);
    if (waited_msec >= timeout_msec)
      return;
    const timespec pause{0, 20 * 1000 * 1000};
    ::nanosleep(&pause, nullptr);
  }
}

} // namespace oscar_lab
