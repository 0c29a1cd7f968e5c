#pragma once

#include "cli/served_job.h"

#include <string>

namespace kestrel
{
/// Reads the definition file of the command line ('-': standard input) and makes the job whole: fills in what
/// users may leave off, as far as server and hosts tell. The id is that of the job with the same name, else a
/// new one. False after fail(), which names the file.
[[nodiscard]] bool read_job_file(Console& console, Job_To_Define& job);

/// Why a definition's "compression" cannot be meant so; empty when it can or the job is no backup. Hosts take
/// a word that they do not know for none, which nobody notices.
[[nodiscard]] std::string compression_problem(const json_spirit::Object& document);
} // namespace kestrel
