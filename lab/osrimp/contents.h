/// What an export file holds, entry by entry, and which of it an import takes.
/// Threads: values only. Errors: Failure.
#pragma once

#include "lab/logical/export_file.h"

#include <string>
#include <vector>

namespace oscar_lab
{

/// One line of pg_restore's list, "ID; CLASS OID TYPE SCHEMA NAME OWNER".
struct Entry {
  std::string line;
  std::string type;
  std::string schema; // "-" for objects outside schemas
  std::string name;   // with the owner behind it; "TABLE NAME OWNER" for parts of a table
};

std::vector<Entry> list_contents(int file, const Export_Record& record, const Login& login);

/// Without the entries of the kinds that are left out, and without what belongs to those only.
std::vector<Entry> without_kinds(const std::vector<Entry>& entries, const std::set<Object_Kind>& left_out,
                                 const Export_Record& record);

/// Without the views that need a primary key, and without what belongs to those only.
std::vector<Entry> without_keyed_views(const std::vector<Entry>& entries, const Export_Record& record);

/// The entry is this foreign key or trigger.
bool is_reference(const Entry& entry, const char* type, const Reference& reference);

} // namespace oscar_lab
