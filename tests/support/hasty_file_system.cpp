#include "support/hasty_file_system.h"

namespace kestrel_test
{
int Hasty_File_System::fsync(int fd)
{
  struct stat status;
  return fstat(fd, &status);
}

int Hasty_File_System::fsync_directory(const char* path)
{
  struct stat status;
  return stat(path, &status);
}
} // namespace kestrel_test
