#pragma once

#include "json/json_util.h"

#include <cstdint>
#include <map>
#include <string>

namespace kestrel
{
typedef std::map<std::string, json_spirit::Value> Catalog_View_Query;

/// The answer of a catalog's view (Catalog_Operator::get_view()). A catalog that another process keeps busy
/// is tried again for ten seconds. Any thread. Errors: false with one sentence in `error` (not logged);
/// `answer` untouched.
[[nodiscard]] bool query_catalog(const char* catalog, const char* view, const Catalog_View_Query& query,
                                 json_spirit::Object& answer, std::string& error);

/// A field of a row; T{} when it is missing. Throws std::runtime_error when it has another type.
template <class T> T value_or_default(const json_spirit::Object& row, const char* key)
{
  T value{};
  optional(row, key, value);
  return value;
}

/// A 64-bit number of a row; 0 when there is none.
uint64_t number_of_row(const json_spirit::Object& row, const char* key);
} // namespace kestrel
