#pragma once

#include "json/json_util.h"

#include <cstdint>
#include <exception>
#include <map>
#include <string>
#include <vector>

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

/// What is wrong with a row that was read into an entry; logs the warning. `problem`: why it could not be
/// read to its end, "" when it was.
std::string note_damage(const json_spirit::Object& row, const std::string& problem);

/// The rows of an answer, each read into an entry by fill(row, entry), which may throw. What is wrong with a
/// row goes to the log and into the entry's `damage`, and the entry is not available; the others are read all
/// the same. Throws std::runtime_error when the answer has no rows.
template <class Entry>
std::vector<Entry> entries_of(const json_spirit::Object& answer,
                              void (*fill)(const json_spirit::Object&, Entry&))
{
  std::vector<Entry> entries;
  for (const json_spirit::Value& row : required<json_spirit::Array>(answer, "rows")) {
    entries.emplace_back();
    Entry& entry = entries.back();
    std::string problem;
    try {
      fill(row.get_obj(), entry);
    } catch (const std::exception& wrong) {
      problem = wrong.what();
    }
    entry.damage = note_damage(row.get_obj(), problem);
    if (entry.damage.empty())
      continue;
    entry.available = false;
    entry.state_reason = "its record in the catalog is damaged: " + entry.damage;
  }
  return entries;
}

/// A 64-bit number of a row; 0 when there is none.
uint64_t number_of_row(const json_spirit::Object& row, const char* key);
} // namespace kestrel
