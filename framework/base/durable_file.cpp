#include "base/durable_file.h"

#include "base/file_system.h"
#include "base/ignore_result.h"
#include "base/scope_guard.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace kestrel
{
namespace
{
std::atomic<unsigned> temporary_number{0};

std::string directory_of(const std::string& path)
{
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos)
    return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool failed(std::string& error, const char* what, const std::string& path)
{
  const int code = errno;
  error = std::string(what) + " " + path + ": " + ::strerror(code);
  errno = code;
  return false;
}

bool write_all(int fd, const std::string& data)
{
  size_t done = 0;
  while (done < data.size()) {
    const ssize_t count = file_system().write(fd, data.data() + done, data.size() - done);
    if (count < 0 && errno == EINTR)
      continue;
    if (count <= 0) {
      if (count == 0)
        errno = EIO;
      return false;
    }
    done += static_cast<size_t>(count);
  }
  return true;
}

bool write_temporary(const std::string& path, const std::string& data, mode_t mode, std::string& error)
{
  const int fd = file_system().open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, mode);
  if (fd < 0)
    return failed(error, "cannot create", path);
  Scope_Guard close_file([&] { ignore_result(file_system().close(fd), "an earlier step already failed"); });
  if (!write_all(fd, data))
    return failed(error, "cannot write", path);
  if (file_system().fsync(fd) != 0)
    return failed(error, "cannot flush", path);
  close_file.cancel();
  if (file_system().close(fd) != 0)
    return failed(error, "cannot close", path);
  return true;
}
} // namespace

bool write_file_durably(const std::string& path, const std::string& data, mode_t mode, std::string& error)
{
  const std::string temporary =
      path + "." + std::to_string(::getpid()) + "." + std::to_string(++temporary_number) + ".tmp";
  // A crashed process with the same number may have left the name behind.
  ignore_result(file_system().unlink(temporary.c_str()), "usually there is none");

  Scope_Guard remove_temporary([&] {
    const int code = errno;
    ignore_result(file_system().unlink(temporary.c_str()), "a left temporary file does no harm");
    errno = code;
  });
  if (!write_temporary(temporary, data, mode, error))
    return false;
  if (file_system().rename(temporary.c_str(), path.c_str()) != 0)
    return failed(error, "cannot rename to", path);
  remove_temporary.cancel();
  const std::string directory = directory_of(path);
  if (file_system().fsync_directory(directory.c_str()) != 0)
    return failed(error, "cannot flush directory", directory);
  return true;
}

bool read_whole_file(const std::string& path, std::string& data, std::string& error, size_t max_bytes)
{
  const int fd = file_system().open(path.c_str(), O_RDONLY);
  if (fd < 0)
    return failed(error, "cannot open", path);
  Scope_Guard close_file([&] {
    const int code = errno;
    ignore_result(file_system().close(fd), "it was only read");
    errno = code;
  });

  std::string content;
  char piece[16384];
  for (;;) {
    const ssize_t count = file_system().read(fd, piece, sizeof piece);
    if (count < 0 && errno == EINTR)
      continue;
    if (count < 0)
      return failed(error, "cannot read", path);
    if (count == 0)
      break;
    if (content.size() + static_cast<size_t>(count) > max_bytes) {
      errno = EFBIG;
      return failed(error, "cannot read", path);
    }
    content.append(piece, static_cast<size_t>(count));
  }
  data.swap(content);
  return true;
}
} // namespace kestrel
