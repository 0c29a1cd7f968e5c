/// Query results as isql prints them: one title line, one rule line, the rows, a footer "(N rows)"; no empty
/// line.
#pragma once

#include "lab/common/database.h"

#include <string>

namespace oscar_lab
{

/// The printed form, with a line end after every line. A result without columns gives the command's tag.
std::string format_result(const Result& result);

} // namespace oscar_lab
