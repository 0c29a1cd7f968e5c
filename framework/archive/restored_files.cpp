#include "archive/restored_files.h"

#include "base/file_system.h"
#include "base/ignore_result.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace kestrel
{
namespace
{
const mode_t folder_mode = 0750;
const mode_t temporary_mode = 0600;

std::string failed(const char* what, const std::string& path)
{
  return std::string("cannot ") + what + " " + path + ": " + std::generic_category().message(errno);
}

std::string temporary_path(const std::string& folder)
{
  static std::atomic<unsigned> number{0};
  return folder + "/.kestrel-" + std::to_string(::getpid()) + "-" + std::to_string(++number) + ".tmp";
}
} // namespace

Restored_Files::~Restored_Files()
{
  if (fd_ >= 0)
    ignore_result(file_system().close(fd_), "the file is removed");
  if (published_)
    return;
  for (const File& file : files_)
    ignore_result(file_system().unlink((file.published ? file.path : file.temporary).c_str()),
                  "recognisable by its name");
  for (const std::string& folder : made_folders_)
    ignore_result(::rmdir(folder.c_str()), "an empty folder does no harm");
}

bool Restored_Files::check_directory(std::string& error) const
{
  struct stat status;
  if (file_system().stat(directory_.c_str(), &status) != 0) {
    error = failed("use the directory", directory_);
    return false;
  }
  if (!S_ISDIR(status.st_mode))
    error = "cannot restore into " + directory_ + ": it is no directory";
  return S_ISDIR(status.st_mode);
}

bool Restored_Files::make_folder(const std::string& folder, std::string& error)
{
  if (file_system().mkdir(folder.c_str(), folder_mode) == 0)
    made_folders_.push_back(folder);
  else if (errno != EEXIST) {
    error = failed("make the directory", folder);
    return false;
  }
  struct stat status;
  // Not through a link, which could lead anywhere.
  if (::lstat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    error = "cannot restore into " + folder + ": something that is no directory is in the way";
    return false;
  }
  return true;
}

bool Restored_Files::begin(const std::string& name, unsigned mode, std::string& error)
{
  const size_t slash = name.find('/');
  const std::string folder =
      slash == std::string::npos ? directory_ : directory_ + "/" + name.substr(0, slash);
  if (slash != std::string::npos && folders_.count(folder) == 0 && !make_folder(folder, error))
    return false;
  folders_.insert(directory_);
  folders_.insert(folder);
  const std::string path = directory_ + "/" + name;
  struct stat status;
  if (::lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
    error = "cannot restore " + path + ": " +
            (S_ISDIR(status.st_mode) ? "a directory" : "something that is no file") +
            " of this name is in the way";
    return false;
  }
  const std::string temporary = temporary_path(folder);
  fd_ = file_system().open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, temporary_mode);
  if (fd_ < 0) {
    error = failed("create", temporary);
    return false;
  }
  files_.push_back({temporary, path, false});
  mode_ = mode & 0777;
  return true;
}

bool Restored_Files::write(const char* data, unsigned n, std::string& error)
{
  while (n > 0) {
    const ssize_t count = file_system().write(fd_, data, n);
    if (count < 0 && errno == EINTR)
      continue;
    if (count <= 0) {
      if (count == 0)
        errno = EIO;
      error = failed("write", files_.back().path);
      return false;
    }
    data += count;
    n -= static_cast<unsigned>(count);
  }
  return true;
}

bool Restored_Files::end(std::string& error)
{
  if (::fchmod(fd_, mode_) != 0) {
    error = failed("set the mode of", files_.back().path);
    return false;
  }
  if (file_system().fsync(fd_) != 0) {
    error = failed("flush", files_.back().path);
    return false;
  }
  return close_file(error);
}

bool Restored_Files::close_file(std::string& error)
{
  const int result = file_system().close(fd_);
  fd_ = -1;
  if (result != 0)
    error = failed("close", files_.back().path);
  return result == 0;
}

bool Restored_Files::publish(std::string& error)
{
  for (File& file : files_) {
    if (file_system().rename(file.temporary.c_str(), file.path.c_str()) != 0) {
      error = failed("give its name to", file.path);
      return false;
    }
    file.published = true;
  }
  for (const std::string& folder : folders_)
    if (file_system().fsync_directory(folder.c_str()) != 0) {
      error = failed("flush the directory", folder);
      return false;
    }
  published_ = true;
  return true;
}
} // namespace kestrel
