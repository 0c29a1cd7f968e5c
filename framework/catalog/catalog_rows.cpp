#include "catalog/catalog_rows.h"

#include "json/json_util.h"

#include <cstring>

namespace kestrel
{
void bind_values(soci::statement& statement, std::vector<Sql_Value>& values)
{
  for (size_t i = 0; i < values.size(); ++i) {
    const std::string name = "v" + std::to_string(i);
    if (values[i].is_text)
      statement.exchange(soci::use(values[i].text, name));
    else
      statement.exchange(soci::use(values[i].number, name));
  }
}

Catalog_Row_Reader::Catalog_Row_Reader(soci::session& session, unsigned catalog, const std::string& sql,
                                       const std::vector<Sql_Value>& values)
    : values_(values), statement_(session)
{
  for (const Catalog_Field& field : catalog_fields())
    if (field.catalogs & catalog)
      columns_.push_back({&field, std::string(), 0, soci::i_null});
  statement_.alloc();
  statement_.prepare(sql);
  statement_.exchange(soci::into(set_id_));
  for (Column& column : columns_)
    if (column.field->kind == Field_Kind::text || column.field->kind == Field_Kind::json)
      statement_.exchange(soci::into(column.text, column.indicator));
    else
      statement_.exchange(soci::into(column.number, column.indicator));
  bind_values(statement_, values_);
  statement_.define_and_bind();
  statement_.execute(false);
}

void Catalog_Row_Reader::execute(const std::vector<Sql_Value>& values)
{
  values_ = values; // same number of values: the bound addresses stay
  statement_.execute(false);
}

bool Catalog_Row_Reader::fetch()
{
  return statement_.fetch();
}

bool Catalog_Row_Reader::value_of(const Column& column, json_spirit::Value& value, std::string& problem)
{
  switch (column.field->kind) {
  case Field_Kind::text:
    value = column.text;
    return true;
  case Field_Kind::number:
    value = static_cast<unsigned long long>(column.number);
    return true;
  case Field_Kind::time:
    value = column.number;
    return true;
  case Field_Kind::flag:
    value = column.number != 0;
    return true;
  case Field_Kind::json:
    break;
  }
  std::string error;
  if (read_json(column.text, value, error))
    return true;
  problem = std::string("the stored field ") + column.field->name + " is not readable: " + error;
  return false;
}

json_spirit::Object Catalog_Row_Reader::row() const
{
  json_spirit::Object row;
  row.reserve(columns_.size() + 2);
  std::string problem;
  for (const Column& column : columns_) {
    const char* name = column.field->name;
    if (column.indicator != soci::i_ok)
      continue;
    if (std::strcmp(name, "state") == 0) {
      json_spirit::Array state;
      if (column.text == "available")
        state.push_back(column.text);
      row.emplace_back(name, std::move(state));
      if (column.text == "deleting")
        row.emplace_back("deletion_begun", true);
      continue;
    }
    json_spirit::Value value;
    if (!value_of(column, value, problem))
      continue;
    row.emplace_back(name, std::move(value));
    if (std::strcmp(name, "start_time") == 0)
      row.emplace_back("backup_start_time", row.back().value_);
  }
  if (!problem.empty())
    row.emplace_back("unreadable", problem);
  return row;
}

const std::string& Catalog_Row_Reader::text(const char* field) const
{
  static const std::string none;
  for (const Column& column : columns_)
    if (std::strcmp(column.field->name, field) == 0)
      return column.indicator == soci::i_ok ? column.text : none;
  return none;
}
} // namespace kestrel
