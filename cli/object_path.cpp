#include "cli/object_path.h"

#include "base/ignore_result.h"
#include "base/uri.h"

#include <boost/algorithm/string/predicate.hpp>

#include <algorithm>
#include <vector>

namespace kestrel
{
bool parse_object_path(const std::string& text, Object_Path& path, std::string& error)
{
  URI uri;
  ignore_result(uri.path(text, true), "every text is a path");
  const std::vector<std::string>& names = uri.segments();
  const bool has_empty =
      std::any_of(names.begin(), names.end(), [](const std::string& n) { return n.empty(); });
  if (names.empty() || names.size() > 4 || has_empty) {
    error = "'" + text + "' names no object; write INSTANCE/DATABASE/SCHEMA/TABLE as far as it is wanted";
    return false;
  }
  const auto name = [&names](size_t index) { return index < names.size() ? names[index] : std::string(); };
  path = {names[0], name(1), name(2), name(3)};
  return true;
}

std::string encode_object_name(const std::string& name)
{
  static const char* const digits = "0123456789ABCDEF";
  std::string encoded;
  for (const char byte : name) {
    if (byte == '/' || byte == '%') {
      encoded += '%';
      encoded += digits[static_cast<unsigned char>(byte) >> 4];
      encoded += digits[static_cast<unsigned char>(byte) & 15];
    } else {
      encoded += byte;
    }
  }
  return encoded;
}

std::string object_text(const Object_Path& path)
{
  std::string text = encode_object_name(path.instance);
  for (const std::string* name : {&path.database, &path.schema, &path.table})
    if (!name->empty())
      text += "/" + encode_object_name(*name);
  return text;
}

const char* object_level(const Object_Path& path)
{
  if (path.schema.empty())
    return "database";
  return path.table.empty() ? "schema" : "table";
}

bool complete_object(const std::string& instance, Object_Path& path, std::string& error)
{
  const auto same = [&instance](const std::string& name) { return boost::iequals(name, instance); };
  if (!same(path.instance)) {
    error =
        object_text(path) + " is not an object of " + instance + "; one call takes objects of one instance";
    return false;
  }
  if (!path.database.empty() && !same(path.database)) {
    error =
        "there is no database " + path.database + " in " + instance + "; its only one is called " + instance;
    return false;
  }
  path.instance = instance;
  path.database = instance;
  const std::string reason = unusable_name(path);
  if (reason.empty())
    return true;
  error = object_text(path) + " cannot be exported or imported: " + reason +
          ", and OSCAR's tools have no way to take it";
  return false;
}

std::string unusable_name(const Object_Path& path)
{
  for (const std::string* name : {&path.instance, &path.database, &path.schema, &path.table}) {
    if (name->find_first_of(" /") != std::string::npos)
      return "the name '" + *name + "' holds a blank or a slash";
    for (const char quote : {'"', '\''})
      if (std::count(name->begin(), name->end(), quote) % 2 != 0)
        return "the name " + *name + " holds a quote without its second one";
  }
  return "";
}
} // namespace kestrel
