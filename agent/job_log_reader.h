#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel
{
/// A piece of a job's log.
struct Job_Log_Part {
  std::string text;
  uint64_t next_offset = 0;
  bool at_end = true; ///< nothing followed when it was read
};

/// At most this many bytes of a log are read at once.
constexpr uint64_t max_log_part_bytes = 1u << 20;

/// Reads up to `limit` bytes (0: as many as possible) from an offset; a character is never cut. A run without
/// a log, with an empty path, has an empty one. Threads: any; the log may grow meanwhile. Errors: false with
/// `error`.
[[nodiscard]] bool read_job_log(const std::string& path, uint64_t offset, uint64_t limit, Job_Log_Part& part,
                                std::string& error);

/// Removes logs of forgotten runs. Only files of the directory of job logs go; what is no longer there is
/// fine.
void remove_job_logs(const std::vector<std::string>& paths);
} // namespace kestrel
