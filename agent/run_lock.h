#pragma once

#include <string>

class Job_Definition;

namespace kestrel
{
/// The file whose lock (File_Lock) a run holds from before its start until its end. Runs with the same file
/// exclude each other in all processes of this installation: those on one source, except that an import may
/// run beside everything else on its source and only excludes runs of its own definition.
std::string run_lock_path(const Job_Definition& definition);
/// That of the runs on a source.
std::string run_lock_path(const std::string& source_id);
} // namespace kestrel
