#include "lab/logical/catalog_lookup.h"

#include "lab/common/text.h"

namespace oscar_lab
{

bool schema_exists(Connection& connection, const std::string& schema)
{
  return connection.query("select 1 from pg_namespace where nspname = $1", {schema}).rows() != 0;
}

std::string relation_kind(Connection& connection, const std::string& schema, const std::string& name)
{
  const Result result =
      connection.query("select c.relkind::text from pg_class c join pg_namespace n on n.oid = "
                       "c.relnamespace where n.nspname = $1 and c.relname = $2",
                       {schema, name});
  return result.rows() == 0 ? std::string() : result.text(0, 0);
}

std::string find_schema(Connection& connection, const Name_Word& word)
{
  const auto names = stored_names(word);
  for (const std::string& name : names)
    if (schema_exists(connection, name))
      return name;
  return names.back();
}

std::string find_relation(Connection& connection, const std::string& schema, const Name_Word& word)
{
  const auto names = stored_names(word);
  for (const std::string& name : names)
    if (!relation_kind(connection, schema, name).empty())
      return name;
  return names.back();
}

void refuse_system_schema(const std::string& schema)
{
  if (starts_with(schema, "pg_") || schema == "information_schema" || schema == "oscar_sys")
    throw Failure("schema " + shown_name(schema) + " belongs to the system");
}

void require_single_table(Connection& connection, const std::string& schema, const std::string& table)
{
  const std::string kind = relation_kind(connection, schema, table);
  const std::string shown = shown_object(schema, table);
  if (kind.empty())
    throw Failure("table " + shown + " does not exist");
  if (kind != "r" && kind != "p")
    throw Failure(shown + " is not a table");
  const Result family =
      connection.query("select 1 from pg_inherits where $1::regclass in (inhrelid, inhparent) limit 1",
                       {quote_identifier(schema) + "." + quote_identifier(table)});
  if (kind == "p" || family.rows() != 0)
    throw Failure("table " + shown +
                  " is one of several that belong together (partitions or inheritance); "
                  "they can be exported and imported with their schema only");
}

std::string shown_object(const std::string& schema, const std::string& table)
{
  return table.empty() ? shown_name(schema) : shown_name(schema) + "." + shown_name(table);
}

} // namespace oscar_lab
