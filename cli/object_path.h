#pragma once

#include <string>

namespace kestrel
{
/// An object of an instance as users write it: INSTANCE[/DATABASE[/SCHEMA[/TABLE]]]. Inside a name %2F is a
/// slash and %25 a percent sign. Plain functions; any thread.
struct Object_Path {
  std::string instance;
  std::string database; ///< empty: not given
  std::string schema;   ///< empty: the whole database
  std::string table;    ///< empty: the whole schema
};

/// False with one sentence in `error`: too many names, or an empty one.
[[nodiscard]] bool parse_object_path(const std::string& text, Object_Path& path, std::string& error);

/// The path as text that parse_object_path() reads back.
std::string object_text(const Object_Path& path);
/// One name of it.
std::string encode_object_name(const std::string& name);

/// "table", "schema" or "database".
const char* object_level(const Object_Path& path);

/// Puts in what users leave off: the instance in its own spelling, and its one database, which has its name.
/// False with one sentence in `error`: another instance or database, or a name that the tools cannot be
/// given.
[[nodiscard]] bool complete_object(const std::string& instance, Object_Path& path, std::string& error);

/// Why OSCAR's tools cannot be given one of the path's names; empty when they can. Command lines are split at
/// blanks, and a quote without its second one swallows what follows.
std::string unusable_name(const Object_Path& path);
} // namespace kestrel
