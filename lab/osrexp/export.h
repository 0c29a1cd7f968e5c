/// Export of a database, a schema or a table into one file.
/// Errors: Failure. Crash: FILE.part may stay behind; FILE itself appears only complete. A file that was
///         there before is gone as soon as the export begins.
#pragma once

#include "lab/logical/parameters.h"

#include <string>

namespace oscar_lab
{

/// Gives a line for the user that says what was exported.
std::string export_objects(const Request& request, const Login& login, const std::string& instance);

} // namespace oscar_lab
