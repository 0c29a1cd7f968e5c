#pragma once

#include "storage/back_end.h"

#include <cstdint>
#include <memory>
#include <string>

// The files of a directory pool: how one is written so that it gets its name only when it is whole and
// durable, and how one is read. Which files there may be and where they lie is the matter of
// Directory_Back_End.

namespace kestrel
{
/// A file that is to become `path`, replacing a file that has the name if `overwrite`. Locked: two writers of
/// one name exclude each other. direct_allowed: whether it may be written past the page cache, which suits
/// large pieces. Null with `error` and errno; EEXIST exactly when the name is taken.
[[nodiscard]] std::unique_ptr<Stored_File_Writer>
create_directory_file(const std::string& path, bool overwrite, bool direct_allowed, std::string& error);

/// What there is of an unfinished file: its bytes, and the number that it keeps while it exists.
struct Unfinished_File {
  uint64_t bytes = 0;
  uint64_t inode = 0;
};

/// Goes on with the file that create_directory_file() began in a process that has ended: what was written
/// stays and the next byte comes behind it. Null with `error` and errno, `left` untouched; ENOENT when there is
/// none, EEXIST when somebody is writing it. Whether every byte is still there after the machine itself was
/// restarted is not known.
[[nodiscard]] std::unique_ptr<Stored_File_Writer>
resume_directory_file(const std::string& path, Unfinished_File& left, std::string& error);

/// The finished file `path` with its side file. Null with `error` filled.
[[nodiscard]] std::unique_ptr<Stored_File_Reader> open_directory_file(const std::string& path,
                                                                      std::string& error);

/// The folder that a path lies in.
std::string parent_of(const std::string& path);
bool exists(const std::string& path);
/// 0 also when the file is already gone; else -1 with errno.
[[nodiscard]] int unlink_if_there(const std::string& path);

// A backup is not read again soon, so its bytes need not push a database's pages out of the page cache.
// Writing past the cache also takes about a third of the processor time.

/// What offsets, sizes and addresses must be multiples of past the page cache. Suits every usual device.
const unsigned DIRECT_ALIGNMENT = 4096;
/// Reads and writes the file past the page cache, or not, from now on. False when that could not be changed.
[[nodiscard]] bool set_direct(int fd, bool direct);
/// True for file systems on local disks, where going past the page cache is known to be fast. Others, such as
/// network file systems, gain from the cache, which sends many requests at once.
bool is_direct_file_system(int fd);
} // namespace kestrel
