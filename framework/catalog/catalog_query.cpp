#include "catalog/catalog_query.h"

#include <limits>

namespace kestrel
{
namespace
{
[[noreturn]] void refuse(const std::string& key, const std::string& why)
{
  throw std::invalid_argument("The catalog query's key '" + key + "' " + why);
}

const std::string& text_of(const std::string& key, const json_spirit::Value& value)
{
  if (value.type() != json_spirit::str_type)
    refuse(key, "must be a text");
  return value.get_str();
}

long long number_of(const std::string& key, const json_spirit::Value& value)
{
  if (value.type() != json_spirit::int_type)
    refuse(key, "must be an integer");
  return value.get_int64();
}

long long count_of(const std::string& key, const json_spirit::Value& value)
{
  const long long count = number_of(key, value);
  if (count < 0)
    refuse(key, "must not be negative");
  return count;
}

bool flag_of(const std::string& key, const json_spirit::Value& value)
{
  if (value.type() != json_spirit::bool_type)
    refuse(key, "must be true or false");
  return value.get_bool();
}

/// Columns of a logical set's files that a query may name, and their columns.
const char* file_column(unsigned catalog, const std::string& key)
{
  static const std::map<std::string, const char*> columns = {{"database", "database_name"},
                                                             {"schema", "schema_name"},
                                                             {"table", "table_name"},
                                                             {"file", "file_name"},
                                                             {"grade", "grade"}};
  const auto found = columns.find(key);
  return catalog == logical_catalog && found != columns.end() ? found->second : nullptr;
}

class Builder
{
public:
  explicit Builder(unsigned catalog, const std::string& name)
  {
    query_.catalog = catalog;
    where_ = "s.catalog = " + bind({true, name, 0});
  }

  void add(const std::string& key, const json_spirit::Value& value)
  {
    if (const char* column = file_column(query_.catalog, key))
      file_where_ += std::string(" AND f.") + column + " = " + bind({true, text_of(key, value), 0});
    else if (!add_control(key, value))
      add_filter(key, value);
  }

  Catalog_Query finish()
  {
    if (!file_where_.empty())
      where_ += " AND EXISTS (SELECT 1 FROM backup_set_file f WHERE f.set_id = s.id" + file_where_ + ")";
    query_.sql = "SELECT " + catalog_row_columns(query_.catalog) + " FROM backup_set s WHERE " + where_ +
                 " ORDER BY " + order() + " LIMIT " + bind({false, "", limit_}) + " OFFSET " +
                 bind({false, "", offset_});
    return query_;
  }

private:
  std::string bind(const Sql_Value& value)
  {
    query_.values.push_back(value);
    return ":v" + std::to_string(query_.values.size() - 1);
  }

  bool add_control(const std::string& key, const json_spirit::Value& value)
  {
    if (key == "sort")
      sort_ = text_of(key, value);
    else if (key == "order") {
      const std::string& order = text_of(key, value);
      if (order != "asc" && order != "desc")
        refuse(key, "must be \"asc\" or \"desc\"");
      descending_ = order == "desc";
    } else if (key == "limit")
      limit_ = count_of(key, value);
    else if (key == "offset")
      offset_ = count_of(key, value);
    else if (key == "with_files")
      query_.with_files = flag_of(key, value);
    else if (key == "with_chain" && query_.catalog == brcmd_catalog)
      query_.with_chain = flag_of(key, value);
    else
      return false;
    return true;
  }

  void add_filter(const std::string& key, const json_spirit::Value& value)
  {
    const Catalog_Field* field = find_catalog_field(query_.catalog, key);
    if (!field || field->kind == Field_Kind::json)
      refuse(key, "is not a field to select by");
    Sql_Value bound = {field->kind == Field_Kind::text, "", 0};
    if (bound.is_text)
      bound.text = text_of(key, value);
    else if (field->kind == Field_Kind::flag && value.type() == json_spirit::bool_type)
      bound.number = value.get_bool() ? 1 : 0;
    else
      bound.number = number_of(key, value);
    where_ += std::string(" AND s.") + field->name + " = " + bind(bound);
  }

  // Numbers are kept as signed patterns: those above 2^63-1 are negative and must come last.
  std::string order() const
  {
    const Catalog_Field* field = sort_.empty() ? nullptr : find_catalog_field(query_.catalog, sort_);
    const bool known = sort_.empty() || (field && field->kind != Field_Kind::json);
    const std::string direction = descending_ && known ? " DESC" : "";
    std::string text;
    if (field && known) {
      const std::string column = std::string("s.") + field->name;
      if (field->kind == Field_Kind::number)
        text = "(" + column + " < 0)" + direction + ", ";
      text += column + direction + ", ";
    }
    return text + "s.id" + direction;
  }

  Catalog_Query query_;
  std::string where_;
  std::string file_where_;
  std::string sort_;
  bool descending_ = false;
  long long limit_ = std::numeric_limits<long long>::max();
  long long offset_ = 0;
};
} // namespace

std::string catalog_row_columns(unsigned catalog)
{
  std::string columns = "s.id";
  for (const Catalog_Field& field : catalog_fields())
    if (field.catalogs & catalog)
      columns += std::string(", s.") + field.name;
  return columns;
}

Catalog_Query make_catalog_query(const std::string& catalog,
                                 const std::map<std::string, json_spirit::Value>& query)
{
  const unsigned bit = catalog_bit(catalog);
  if (bit == 0)
    throw std::invalid_argument("There is no catalog '" + catalog + "'");
  Builder builder(bit, catalog);
  for (const auto& [key, value] : query)
    builder.add(key, value);
  return builder.finish();
}
} // namespace kestrel
