/// What outside the replaced objects depends on them: views and foreign keys are taken away and made again
/// around the import; anything else stops it. Threads: as the connection. Errors: Failure.
#pragma once

#include "lab/common/database.h"

#include <string>
#include <vector>

namespace oscar_lab
{

struct Dependents {
  struct Key {
    std::string table; // quoted, with its schema
    std::string name;
    std::string definition;
  };
  std::vector<std::string> views; // quoted, with their schemas
  std::vector<Key> foreign_keys;
  std::string view_script; // makes all the views again, with privileges and comments

  /// Statements that take everything away; they fail when yet more depends on it.
  std::string removal() const;
  /// Statements that make the views again.
  std::string views_again() const { return view_script; }
  /// Statements that make the foreign keys again. One that the rows no longer satisfy holds for new rows
  /// only, and the server warns of it.
  std::string keys_again() const;
};

/// The objects that are to go.
struct Replaced {
  std::vector<std::string> schemas;
  std::string table_schema; // one table instead of schemas
  std::string table;
  bool with_extensions = false; // extensions inside the schemas go too
};

/// Throws when anything but views and foreign keys depends on the objects.
Dependents find_dependents(Connection& connection, const Replaced& replaced, const Login& login);

/// A statement that fails when anything outside depends on the schemas.
std::string no_dependents_check(const std::vector<std::string>& schemas);

} // namespace oscar_lab
