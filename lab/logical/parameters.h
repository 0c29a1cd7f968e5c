/// The command line that osrexp and osrimp share: a login and KEY=VALUE parameters.
///
///   -U USER/PASSWORD  -d INSTANCE  [-p PORT]  [-h HOST]  file=PATH  [level=database|schema|table] ...
///
/// Threads: values only. Errors: Usage_Failure; no message repeats what was typed, it may be a piece of a
///          password.
#pragma once

#include "lab/common/arguments.h"
#include "lab/common/database.h"
#include "lab/logical/object_name.h"

#include <map>
#include <set>
#include <string>

namespace oscar_lab
{

enum class Level { database, schema, table };
const char* level_name(Level level);

/// Kinds of objects that a parameter can leave out.
enum class Object_Kind { view, procedure, sequence, constraint, trigger, index };
constexpr Object_Kind all_object_kinds[] = {Object_Kind::view,     Object_Kind::procedure,
                                            Object_Kind::sequence, Object_Kind::constraint,
                                            Object_Kind::trigger,  Object_Kind::index};
const char* kind_name(Object_Kind kind);

class Parameters
{
public:
  /// Reads the operands. Keys count without regard to case; one that is not among the allowed ones, or comes
  /// twice, is refused.
  Parameters(const std::vector<std::string>& operands, const std::set<std::string>& allowed);

  bool has(const std::string& key) const { return values_.count(key) != 0; }
  /// Throws when the value is neither true nor false.
  bool flag(const std::string& key, bool fallback) const;
  const std::string& required(const std::string& key) const;

private:
  std::map<std::string, std::string> values_;
};

/// What both tools understand the same way.
struct Request {
  Level level = Level::database;
  std::string file; // absolute
  Name_Word schema; // set at schema and table level
  Name_Word table;  // set at table level
  std::set<Object_Kind> left_out;
};

/// level, file, mode, ignore, schema, table and the object kinds.
Request read_request(const Parameters& parameters);

/// The options that stand before the parameters.
const std::vector<Option>& login_options();
/// Throws when an option is missing or malformed. The instance's configuration is read when no port is given.
Login read_login(const Arguments& arguments, const Instance_Files& files);

} // namespace oscar_lab
