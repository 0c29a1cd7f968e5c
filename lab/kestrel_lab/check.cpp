#include "lab/common/database.h"
#include "lab/common/server_control.h"
#include "lab/common/text.h"
#include "lab/kestrel_lab/commands.h"

#include <cstdio>
#include <string>
#include <vector>

namespace oscar_lab
{

namespace
{

/// Count and a checksum that does not depend on the order of the rows. Columns without a hash function of
/// their own (xml, point...) make the first form fail; the second one hashes the row's text.
void measure_table(Connection& connection, const std::string& table, std::string& rows, std::string& checksum)
{
  const std::string count = "select count(*)::text, coalesce(sum(";
  // Values of types made by users are hashed by their OIDs, which another database gives differently.
  const bool own_types =
      connection
          .query("select 1 from pg_attribute a join pg_type t on t.oid = a.atttypid left join "
                 "pg_type e on e.oid = t.typelem where a.attrelid = $1::regclass and a.attnum > 0 "
                 "and not a.attisdropped and (t.typtype <> 'b' or e.typtype <> 'b' or t.typname "
                 "like 'reg%') limit 1",
                 {table})
          .rows() != 0;
  connection.query("savepoint measure");
  try {
    if (own_types)
      throw Failure("not comparable");
    const Result result =
        connection.query(count + "hash_record_extended(t, 0)), 0)::text from " + table + " t");
    rows = result.text(0, 0);
    checksum = result.text(0, 1);
  } catch (const Failure&) {
    connection.query("rollback to measure");
    const Result result =
        connection.query(count + "hashtextextended(t::text, 0)), 0)::text from " + table + " t");
    rows = result.text(0, 0);
    checksum = "text:" + result.text(0, 1);
  }
  connection.query("release measure");
}

struct Table_Sum {
  std::string schema, table, tablespace, rows, checksum;
};

std::vector<Table_Sum> measure_tables(Connection& connection)
{
  const Result list = connection.query(
      "select n.nspname, c.relname, coalesce(s.spcname, 'pg_default') from pg_class c "
      "join pg_namespace n on n.oid = c.relnamespace left join pg_tablespace s on s.oid = c.reltablespace "
      "where c.relkind = 'r' and c.relpersistence <> 't' and n.nspname !~ '^pg_' "
      "and n.nspname not in ('information_schema', 'oscar_sys') order by n.nspname collate \"C\", c.relname "
      "collate \"C\"");
  std::vector<Table_Sum> sums;
  for (int r = 0; r < list.rows(); ++r) {
    Table_Sum sum{list.text(r, 0), list.text(r, 1), list.text(r, 2), {}, {}};
    measure_table(connection, quote_identifier(sum.schema) + "." + quote_identifier(sum.table), sum.rows,
                  sum.checksum);
    sums.push_back(sum);
  }
  return sums;
}

/// Of names, counts and checksums of a schema's tables; the schema's own name does not count.
std::string schema_checksum(const std::vector<Table_Sum>& sums, const std::string& schema, unsigned& tables,
                            std::uint64_t& rows)
{
  std::uint64_t hash = 0xcbf29ce484222325U; // FNV-1a
  for (const Table_Sum& sum : sums) {
    if (sum.schema != schema)
      continue;
    ++tables;
    rows += std::stoull(sum.rows);
    for (const char c : sum.table + '\n' + sum.rows + '\n' + sum.checksum + '\n')
      hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3U;
  }
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
  return text;
}

std::string object_counts(Connection& connection, const std::string& schema)
{
  // {name of the count, query}; $1 is the schema
  const char* const counts[][2] = {
      {"views", "pg_class where relkind in ('v', 'm') and relnamespace"},
      {"sequences", "pg_class where relkind = 'S' and relnamespace"},
      {"indexes", "pg_class where relkind in ('i', 'I') and relnamespace"},
      {"functions", "pg_proc where pronamespace"},
      {"foreign_keys", "pg_constraint where contype = 'f' and connamespace"},
      {"constraints", "pg_constraint where contype <> 'f' and connamespace"},
      {"triggers",
       "pg_trigger t join pg_class c on c.oid = t.tgrelid where not t.tgisinternal and relnamespace"}};
  std::string text;
  for (const auto& count : counts)
    text += std::string(", \"") + count[0] + "\": " +
            connection.value(std::string("select count(*) from ") + count[1] +
                                 " = (select oid from pg_namespace where nspname = $1)",
                             {schema});
  return text;
}

std::string schema_lines(Connection& connection, const std::vector<Table_Sum>& sums, bool objects)
{
  const Result schemas =
      connection.query("select nspname from pg_namespace where nspname !~ '^pg_' and nspname not in "
                       "('information_schema', 'oscar_sys') order by nspname collate \"C\"");
  std::string text;
  for (int r = 0; r < schemas.rows(); ++r) {
    const std::string schema = schemas.text(r, 0);
    unsigned tables = 0;
    std::uint64_t rows = 0;
    const std::string checksum = schema_checksum(sums, schema, tables, rows);
    text += std::string(r == 0 ? "" : ",") + "\n  {\"schema\": " + json_quote(schema) +
            ", \"tables\": " + std::to_string(tables) + ", \"rows\": " + std::to_string(rows) +
            ", \"checksum\": " + json_quote(checksum) + (objects ? object_counts(connection, schema) : "") +
            "}";
  }
  return text;
}

std::string row_and_checksum(const Table_Sum& sum)
{
  return "\"rows\": " + sum.rows + ", \"checksum\": " + json_quote(sum.checksum) + "}";
}

std::string one_schema(const std::vector<Table_Sum>& sums, const std::string& schema)
{
  std::string text;
  for (const Table_Sum& sum : sums)
    if (sum.schema == schema)
      text += std::string(text.empty() ? "" : ",") + "\n  {\"table\": " + json_quote(sum.table) + ", " +
              row_and_checksum(sum);
  return "{\"tables\": [" + text + "\n ]}\n";
}

} // namespace

int check_command(const Arguments& arguments)
{
  arguments.only({"--schema", "--objects"}, "with check");
  const Instance_Files files = instance_operands(arguments);
  files.require_existing();
  if (running_server(files) == 0)
    throw Failure("instance " + files.name + " is not running");
  Connection connection = connect_as_system(files);
  connection.query("begin isolation level repeatable read read only");
  const std::vector<Table_Sum> sums = measure_tables(connection);
  std::string json;
  if (arguments.has("--schema")) {
    const std::string& schema = arguments.required("--schema");
    if (connection.query("select 1 from pg_namespace where nspname = $1", {schema}).rows() == 0)
      throw Failure("there is no schema " + schema);
    json = one_schema(sums, schema);
  } else {
    for (const Table_Sum& sum : sums)
      json += std::string(json.empty() ? "" : ",") + "\n  {\"schema\": " + json_quote(sum.schema) +
              ", \"table\": " + json_quote(sum.table) + ", \"tablespace\": " + json_quote(sum.tablespace) +
              ", " + row_and_checksum(sum);
    json = "{\"instance\": " + json_quote(files.name) + ",\n \"tables\": [" + json +
           (sums.empty() ? "" : "\n ") + "],\n \"schemas\": [" +
           schema_lines(connection, sums, arguments.has("--objects")) + "\n ]}\n";
  }
  connection.query("commit");
  std::fputs(json.c_str(), stdout);
  return 0;
}

} // namespace oscar_lab
