/// Import of an export file: everything happens in one transaction, under the names of the source first, and
/// renamed to the target's at its end. Errors: Failure. Crash: whatever ends the tool or the server half-way,
/// the database is as before.
#pragma once

#include "lab/logical/parameters.h"

#include <string>

namespace oscar_lab
{

struct Import_Request : Request {
  bool recreate_schema = false;
  bool recreate_table = false;
  bool tablespaces = true;
};

/// Gives lines for the user: notes about what was left out, and what was imported.
std::string import_objects(const Import_Request& request, const Login& login, const std::string& instance);

} // namespace oscar_lab
