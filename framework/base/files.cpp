#include "base/files.h"

#include "base/scope_guard.h"

#include <ace/Log_Msg.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

std::string get_env_r(const char* name)
{
  const char* value = name ? ::getenv(name) : nullptr;
  return value ? value : "";
}

bool is_regular_file(const char* path)
{
  struct stat status;
  return path && ::stat(path, &status) == 0 && S_ISREG(status.st_mode);
}

bool read_line(const char* path, std::string& line, bool log_errors)
{
  ACE_ifstream file(8192);
  std::string first;
  if (file.open(path, O_RDONLY) != 0) {
    if (log_errors) {
      errno = file.last_error();
      ACE_ERROR((LM_ERROR, "Failed to open %s for reading, errno=%d, %m\n", path, errno));
    }
    return false;
  }
  if (!file.getline(first)) {
    if (log_errors && file.last_error() != 0) {
      errno = file.last_error();
      ACE_ERROR((LM_ERROR, "Failed to read %s, errno=%d, %m\n", path, errno));
    } else if (log_errors) {
      ACE_ERROR((LM_ERROR, "Failed to read %s: the file is empty\n", path));
    }
    return false;
  }
  line.swap(first);
  return true;
}

void kestrel::add_listening_ports(const std::string& table, std::set<unsigned short>& ports)
{
  // "  sl  local_address rem_address   st ...": "   0: 0100007F:1538 00000000:0000 0A ..."
  size_t begin = table.find('\n');
  while (begin != std::string::npos && ++begin < table.size()) {
    const size_t end = table.find('\n', begin);
    const std::string row = table.substr(begin, end == std::string::npos ? end : end - begin);
    unsigned local_port = 0;
    unsigned state = 0;
    if (::sscanf(row.c_str(), " %*[^:]: %*[0-9A-Fa-f]:%x %*[0-9A-Fa-f]:%*x %x", &local_port, &state) == 2 &&
        state == 0x0a && local_port <= 0xffff)
      ports.insert(static_cast<unsigned short>(local_port));
    begin = end;
  }
}

namespace
{
thread_local const std::set<unsigned short>* ports_of_this_thread = nullptr;

std::set<unsigned short> read_listening_ports()
{
  std::set<unsigned short> ports;
  for (const char* path : {"/proc/net/tcp", "/proc/net/tcp6"}) {
    kestrel::Auto_Fd file(::open(path, O_RDONLY | O_CLOEXEC));
    std::string table;
    char piece[16384];
    ssize_t count;
    while ((count = read_write_trait::read(file.get(), piece, sizeof piece)) > 0)
      table.append(piece, static_cast<size_t>(count));
    kestrel::add_listening_ports(table, ports);
  }
  return ports;
}
} // namespace

kestrel::Listening_Ports_Scope::Listening_Ports_Scope() : outermost_(!ports_of_this_thread)
{
  if (!outermost_)
    return;
  ports_ = read_listening_ports();
  ports_of_this_thread = &ports_;
}

kestrel::Listening_Ports_Scope::~Listening_Ports_Scope()
{
  if (outermost_)
    ports_of_this_thread = nullptr;
}

bool check_port_listening(unsigned short port)
{
  return ports_of_this_thread ? ports_of_this_thread->count(port) != 0 : read_listening_ports().count(port) != 0;
}

namespace
{
bool has_parent_component(const std::string& path)
{
  size_t begin = 0;
  while (begin <= path.size()) {
    size_t end = path.find('/', begin);
    if (end == std::string::npos)
      end = path.size();
    if (path.compare(begin, end - begin, "..") == 0)
      return true;
    begin = end + 1;
  }
  return false;
}

/// True when nothing but slashes and "." components is left: the root or the current directory.
bool names_no_entry(const std::string& path)
{
  size_t begin = 0;
  while (begin <= path.size()) {
    size_t end = path.find('/', begin);
    if (end == std::string::npos)
      end = path.size();
    if (end != begin && path.compare(begin, end - begin, ".") != 0)
      return false;
    begin = end + 1;
  }
  return true;
}

/// Keeps the first errno.
void note_error(int& error)
{
  if (error == 0 && errno != ENOENT)
    error = errno;
}

void remove_entry(int directory, const char* name, int& error);

void empty_directory(int directory, int& error)
{
  DIR* const stream = ::fdopendir(directory);
  if (!stream) {
    note_error(error);
    ::close(directory);
    return;
  }
  kestrel::Scope_Guard close_stream([&] { ::closedir(stream); });
  // The names are taken first: removing while reading may skip entries on some file systems.
  std::vector<std::string> names;
  while (const dirent* entry = ::readdir(stream)) {
    if (::strcmp(entry->d_name, ".") != 0 && ::strcmp(entry->d_name, "..") != 0)
      names.emplace_back(entry->d_name);
  }
  for (const std::string& name : names)
    remove_entry(::dirfd(stream), name.c_str(), error);
}

void remove_entry(int directory, const char* name, int& error)
{
  if (::unlinkat(directory, name, 0) == 0)
    return;
  if (errno != EISDIR && errno != EPERM) {
    note_error(error);
    return;
  }
  // O_NOFOLLOW: a link that took the directory's place in between is not entered.
  const int below = ::openat(directory, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (below >= 0)
    empty_directory(below, error);
  if (::unlinkat(directory, name, AT_REMOVEDIR) != 0)
    note_error(error);
}
} // namespace

int rm_rf(const char* path)
{
  std::string text = path ? path : "";
  if (has_parent_component(text) || names_no_entry(text)) {
    errno = EINVAL;
    return -1;
  }
  // "link/" would name what the link points to.
  while (text.size() > 1 && text.back() == '/')
    text.pop_back();
  int error = 0;
  remove_entry(AT_FDCWD, text.c_str(), error);
  if (error == 0)
    return 0;
  errno = error;
  return -1;
}

int make_dirs(const char* path, mode_t mode)
{
  const std::string text = path ? path : "";
  if (text.empty()) {
    errno = ENOENT;
    return -1;
  }
  size_t end = 0;
  while (end < text.size()) {
    end = text.find('/', end + 1);
    if (end == std::string::npos)
      end = text.size();
    const std::string part = text.substr(0, end);
    struct stat status;
    if (::mkdir(part.c_str(), mode) == 0)
      continue;
    // A parent may be unwritable or automounted and still be there, whatever mkdir says of it.
    const int error = errno;
    if (::stat(part.c_str(), &status) == 0) {
      if (S_ISDIR(status.st_mode))
        continue;
      errno = ENOTDIR;
      return -1;
    }
    errno = error;
    return -1;
  }
  return 0;
}
