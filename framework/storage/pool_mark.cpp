#include "storage/pool_mark.h"

#include "base/durable_file.h"
#include "base/file_system.h"
#include "storage/file_error.h"

#include <cerrno>

namespace kestrel
{
const char POOL_MARK[] = ".kestrel-pool";

namespace
{
const mode_t MARK_MODE = 0644;
const char MARK_TEXT[] = "A storage pool of Kestrel lives in this directory. The pool is used only while this file is\n"
                         "here, so that the empty mount point of its file system is never taken for it.\n";

std::string mark_path(const std::string& directory)
{
  return directory + "/" + POOL_MARK;
}

/// 0, or why there is no mark.
int look_for_mark(const std::string& directory)
{
  struct stat status;
  if (file_system().stat(mark_path(directory).c_str(), &status) != 0)
    return errno;
  return S_ISREG(status.st_mode) ? 0 : EEXIST;
}

bool failed(std::string& error, const char* what, const std::string& path, int code)
{
  error = file_error(what, path, code);
  errno = code;
  return false;
}
} // namespace

bool set_pool_mark(const std::string& directory, std::string& error)
{
  const char* const what = "set the mark of the pool";
  const std::string path = mark_path(directory);
  const int code = look_for_mark(directory);
  if (code == ENOENT)
    return write_file_durably(path, MARK_TEXT, MARK_MODE, error) || failed(error, what, path, errno);
  if (code != 0)
    return failed(error, what, path, code);
  // Whoever set it may have failed just here. What can only be read is as durable as it gets.
  return file_system().fsync_directory(directory.c_str()) == 0 || errno == EROFS ||
         failed(error, "flush directory", directory, errno);
}

bool check_pool_mark(const std::string& directory, std::string& error)
{
  const int code = look_for_mark(directory);
  const std::string path = mark_path(directory);
  if (code == 0)
    return true;
  if (code != ENOENT)
    return failed(error, "look for the mark of the pool", path, code);
  error = "cannot use the pool directory " + directory + ": its mark " + path +
          " is missing; mount the pool's file system (only if this directory does hold the pool, set the mark "
          "again: \"touch " +
          path + "\")";
  errno = code;
  return false;
}

bool check_pool_mark(const Pool_Info& pool, std::string& error)
{
  return !pool.marked || !pool.back_end.empty() || check_pool_mark(pool.storage_path, error);
}
} // namespace kestrel
