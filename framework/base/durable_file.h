#pragma once

#include <string>
#include <sys/types.h>

namespace kestrel
{
/// Replaces a small file as a whole, so that a reader sees the old or the new content and never a mixture.
/// Not for: large data (all of it is in memory), directories on file systems without rename.
/// Threads: any; two writers of one path need a lock of their own, the last rename wins.
/// Errors:  false, `error` says what failed and on which file; the old file is untouched then, unless only
///          the last step failed (making the new name durable): the new content is visible but may be lost
///          in a power failure.
/// Crash:   leaves at most "<path>.<pid>.<number>.tmp" next to the file; nobody reads it and it may be
///          removed.
[[nodiscard]] bool write_file_durably(const std::string& path, const std::string& data, mode_t mode,
                                      std::string& error);

/// Reads a whole file of at most max_bytes. False and `error` when it cannot be read or is larger; errno is
/// ENOENT exactly when there is no such file, and `data` is untouched.
[[nodiscard]] bool read_whole_file(const std::string& path, std::string& data, std::string& error,
                                   size_t max_bytes = 64u * 1024 * 1024);
} // namespace kestrel
