#pragma once

#include "catalog/catalog_fields.h"
#include "json/value.h"

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace kestrel
{
/// One value bound to a statement; statements are never built from values.
struct Sql_Value {
  bool is_text;
  std::string text;
  long long number;
};

/// A statement for the view "catalogs": its text and, in order, the values of ":v0", ":v1", ...
struct Catalog_Query {
  unsigned catalog = 0; ///< Catalog_Bits
  std::string sql;
  std::vector<Sql_Value> values;
  bool with_files = false;
  bool with_chain = false;
};

/// The columns of a row, in the order of catalog_fields(), after the set's id: "s.id, s.uuid, ...".
std::string catalog_row_columns(unsigned catalog);

/// Translates a query into one statement. Throws std::invalid_argument with a text for the user on an unknown
/// key or a value of the wrong type: a misspelt filter must not silently select everything.
Catalog_Query make_catalog_query(const std::string& catalog,
                                 const std::map<std::string, json_spirit::Value>& query);
} // namespace kestrel
