#pragma once

#include "catalog/catalog_query.h"

#include <soci/soci.h>

#include <string>
#include <vector>

namespace kestrel
{
/// Binds values as ":v0", ":v1", ... The values must outlive the statement.
void bind_values(soci::statement& statement, std::vector<Sql_Value>& values);

/// Runs a statement whose columns are catalog_row_columns() and turns each line into a row's JSON object.
/// Not thread-safe; the session must outlive it. Throws soci::soci_error.
class Catalog_Row_Reader
{
public:
  Catalog_Row_Reader(soci::session& session, unsigned catalog, const std::string& sql,
                     const std::vector<Sql_Value>& values);

  /// Runs the statement again with other values.
  void execute(const std::vector<Sql_Value>& values);
  /// False at the end.
  bool fetch();
  /// A field that is not readable is left out, and "unreadable" says why: one such line hides no others.
  json_spirit::Object row() const;

  long long set_id() const { return set_id_; }
  /// The text of a text column of the present line; "" when null. The name must be a text field of the
  /// catalog.
  const std::string& text(const char* field) const;

private:
  struct Column {
    const Catalog_Field* field;
    std::string text;
    long long number;
    soci::indicator indicator;
  };
  /// False with `problem` when what is stored is not what the field should hold.
  static bool value_of(const Column& column, json_spirit::Value& value, std::string& problem);

  long long set_id_ = 0;
  std::vector<Column> columns_;
  std::vector<Sql_Value> values_;
  soci::statement statement_;
};
} // namespace kestrel
