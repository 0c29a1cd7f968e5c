#include "storage/directory_back_end.h"

#include "base/file_system.h"
#include "storage/directory_files.h"
#include "storage/file_error.h"
#include "storage/pool_mark.h"

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>

namespace kestrel
{
namespace
{
const mode_t FOLDER_MODE = 0750;

bool ends_with(const std::string& text, const std::string& end)
{
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
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
  if (options.pool_marked && !check_pool_mark(pool_path, error))
    return false;
  options_ = options;
  pool_path_ = pool_path;
  folder_ = folder;
  location_ = location;
  return true;
}

bool Directory_Back_End::check_mark(std::string& error)
{
  return !options_.pool_marked || check_pool_mark(pool_path_, error);
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
  if (!check_mark(error) || !make_folder(error)) {
    errno = EIO;
    return nullptr;
  }
  // A limited stream comes in small pieces.
  const bool direct_allowed = options_.rate_limits.write_limit() == 0;
  return create_directory_file(location_ + "/" + name, overwrite, direct_allowed, error);
}

std::unique_ptr<Stored_File_Reader> Directory_Back_End::open(const std::string& name, std::string& error)
{
  if (!is_stored_file_name(name, error))
    return nullptr;
  if (!check_mark(error)) {
    errno = EHOSTUNREACH;
    return nullptr;
  }
  const std::string path = location_ + "/" + name;
  return open_directory_file(path, error);
}

bool Directory_Back_End::remove(const std::string& name, std::string& error)
{
  if (!is_stored_file_name(name, error) || !check_mark(error))
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
