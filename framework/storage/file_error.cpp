#include "storage/file_error.h"

#include <cerrno>
#include <system_error>

namespace kestrel
{
namespace
{
const char* advice(int error_number)
{
  switch (error_number) {
  case ENOSPC:
  case EDQUOT:
    return "free space in the pool or use another pool, then run the job again";
  case EFBIG:
    return "the file system or the process limit does not allow a file of this size";
  case EROFS:
    return "the pool's file system is read-only; mount it for writing";
  case EACCES:
  case EPERM:
    return "give the account of this process access to the pool";
  case ENOENT:
  case ENOTDIR:
    return "check that the pool's file system is mounted and the path is right";
  case EIO:
    return "the storage device reports an error; check it before using the pool again";
  case ESTALE:
  case ETIMEDOUT:
    return "check the connection to the file server that holds the pool";
  case EMFILE:
  case ENFILE:
    return "too many files are open; run fewer jobs at once or raise the limit";
  case ENAMETOOLONG:
    return "use a shorter pool path or file name";
  }
  return nullptr;
}
} // namespace

std::string file_error(const char* what, const std::string& path, int error_number)
{
  std::string text =
      std::string("cannot ") + what + " " + path + ": " + std::generic_category().message(error_number);
  if (const char* hint = advice(error_number))
    text += std::string("; ") + hint;
  return text;
}
} // namespace kestrel
