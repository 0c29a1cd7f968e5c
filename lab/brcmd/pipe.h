/// Opening and emptying the named pipe of a run.
/// Errors: Failure.
#pragma once

#include "lab/common/files.h"

#include <cstddef>
#include <functional>
#include <string>

namespace oscar_lab
{

/// Throws unless the path names a pipe that this process may open the given way.
void require_pipe(const std::string& path, bool for_writing);

/// Opens the writing end as soon as a reader is there, calling idle() about two hundred times a second until then.
Descriptor open_pipe_for_writing(const std::string& path, const std::function<void()>& idle);
Descriptor open_pipe_for_reading(const std::string& path);

/// Gives the reader some milliseconds to make room for so many bytes. A writer that waits in write() for a pipe
/// that is always full is woken by each of the reader's small reads, and each time takes the processor from it.
/// There may be no room afterwards, or no reader: writing tells.
void allow_time_for_room(int fd, std::size_t bytes);

/// Waits until the reader has taken everything; throws when it went away before.
void wait_until_drained(int fd);

} // namespace oscar_lab
