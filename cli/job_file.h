#pragma once

#include "cli/served_job.h"

namespace kestrel
{
/// Reads the definition file of the command line ('-': standard input) and makes the job whole: fills in what
/// users may leave off, as far as server and hosts tell. The id is that of the job with the same name, else a
/// new one. False after fail(), which names the file.
[[nodiscard]] bool read_job_file(Console& console, Job_To_Define& job);
} // namespace kestrel
