/// SQL that moves a table with its indexes and sequences to another name and schema.
#pragma once

#include <string>

namespace oscar_lab
{

/// All names as the database stores them.
struct Table_Move {
  std::string schema;
  std::string table;
  std::string new_schema;
  std::string new_table;
  std::string aside; // schema whose table comes back to the first place later; may be empty
};

/// Indexes and sequences named after the table get the new name in front; one whose name is taken gets a
/// number.
std::string move_table_script(const Table_Move& move);

} // namespace oscar_lab
