#pragma once

#include "storage/pool.h"

#include <string>

namespace kestrel
{
/// Name of the file in a pool's directory that tells the pool from the empty mount point of its file system.
extern const char POOL_MARK[];

/// Makes sure that the directory carries a mark, durably. A mark says "a pool lives here", not whose: a
/// directory may belong to the lists of two hosts, or be added again after its pool was forgotten, so one that
/// is there already is kept as it is and serves all of them. Only its presence counts, never its content.
/// Threads: any. Errors: false with `error` and errno. Crash: leaves a mark or none, and perhaps a temporary
/// file beside it that nobody reads.
[[nodiscard]] bool set_pool_mark(const std::string& directory, std::string& error);

/// False, with `error` telling what is missing and what to do, when the directory lacks its mark or that
/// cannot be told. Changes nothing. Any thread.
[[nodiscard]] bool check_pool_mark(const std::string& directory, std::string& error);

/// The same for a pool; true for one that has no mark to be looked for: one of another host, or one that was
/// added without.
[[nodiscard]] bool check_pool_mark(const Pool_Info& pool, std::string& error);
} // namespace kestrel
