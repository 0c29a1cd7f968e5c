#pragma once

#include "json/value.h"

#include <cstdint>
#include <string>

namespace kestrel
{
/// How much JSON one document may hold. The values limit bounds memory: "[0,0,..." grows twentyfold when
/// read.
struct Json_Limits {
  unsigned depth = 64;
  uint64_t bytes = 16u << 20;
  uint64_t values = 4u << 20;
};

/// For documents from the network (16 MiB); the default of every reader.
Json_Limits json_network_limits();
/// For files that the operator gave (64 MiB).
Json_Limits json_file_limits();

/// Reads one JSON document of any top-level type. Integers come exactly, from -2^63 to 2^64-1; a number
/// beyond that, invalid UTF-8 and text after the document are errors. Duplicate names are kept as they stand.
/// Threads: any.
/// Errors:  false with a text for the user that names the limit or the byte offset and never quotes the
///          document (it may hold passwords); `value` is untouched.
[[nodiscard]] bool read_json(const std::string& text, json_spirit::Value& value, std::string& error);
[[nodiscard]] bool read_json(const std::string& text, const Json_Limits& limits, json_spirit::Value& value,
                             std::string& error);

/// Writes the value on one line, as raw UTF-8; each invalid byte sequence becomes U+FFFD, a real that is not
/// finite becomes null. Throws std::runtime_error when the value is nested deeper than 64 levels.
std::string write_json(const json_spirit::Value& value);
/// The same, indented by two blanks and with a line end, for files people read.
std::string write_json_pretty(const json_spirit::Value& value);

/// The text with each invalid UTF-8 sequence (overlong forms and surrogates too) replaced by U+FFFD.
std::string utf8_without_invalid(const std::string& text);

/// The value of `key` as T: std::string, bool, int, unsigned, int64_t, uint64_t, double, json_spirit::Object,
/// json_spirit::Array or json_spirit::Value.
/// Errors: throws std::runtime_error naming the key when it is missing, null or of another type. Unlike
///         get_uint64, a negative number is not accepted as an unsigned one.
template <class T> T required(const json_spirit::Object& obj, const std::string& key);

/// The same for a key that may be missing or null: false then, and `value` is untouched. Another type still
/// throws.
template <class T> bool optional(const json_spirit::Object& obj, const std::string& key, T& value);

/// Replaces the value of the first member called `name`, or appends one.
void set_value(json_spirit::Object& obj, const std::string& name, json_spirit::Value value);
} // namespace kestrel

/// Short forms for building lists of objects; found by argument lookup.
namespace json_spirit
{
/// Makes `value` an empty array. The references of these two hold until the parent changes.
Array& to_new_array(Value& value);
/// Appends an empty object to the array.
Object& append_new_object(Array& array);
/// Appends each text.
Array& operator+=(Array& array, const std::vector<std::string>& texts);
} // namespace json_spirit
