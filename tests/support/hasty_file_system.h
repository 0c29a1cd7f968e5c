#pragma once

#include "base/file_system.h"

namespace kestrel_test
{
/// The real file system without the waiting for the disk: what a power failure would leave is nothing that a
/// test sees.
class Hasty_File_System : public kestrel::File_System
{
public:
  int fsync(int fd) override;
  int fsync_directory(const char* path) override;

private:
  kestrel::Scoped_File_System scope_{*this};
};
} // namespace kestrel_test
