#include "lab/common/database.h"
#include "lab/common/server_control.h"
#include "lab/common/text.h"
#include "lab/kestrel_lab/commands.h"

#include <cstdio>

namespace oscar_lab
{

namespace
{

/// Count and a checksum that does not depend on the order of the rows. Columns without a hash function of
/// their own (xml, point...) make the first form fail; the second one hashes the row's text.
void measure_table(Connection& connection, const std::string& table, std::string& rows, std::string& checksum)
{
  const std::string count = "select count(*)::text, coalesce(sum(";
  connection.query("savepoint measure");
  try {
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

} // namespace

int check_command(const Arguments& arguments)
{
  arguments.only({}, "with check");
  const Instance_Files files = instance_operands(arguments);
  files.require_existing();
  if (running_server(files) == 0)
    throw Failure("instance " + files.name + " is not running");
  Connection connection = connect_as_system(files);
  connection.query("begin isolation level repeatable read read only");
  const Result list = connection.query(
      "select n.nspname, c.relname, coalesce(s.spcname, 'pg_default') from pg_class c "
      "join pg_namespace n on n.oid = c.relnamespace left join pg_tablespace s on s.oid = c.reltablespace "
      "where c.relkind = 'r' and c.relpersistence <> 't' and n.nspname !~ '^pg_' "
      "and n.nspname not in ('information_schema', 'oscar_sys') order by n.nspname collate \"C\", c.relname "
      "collate \"C\"");
  std::string json = "{\"instance\": " + json_quote(files.name) + ",\n \"tables\": [";
  for (int r = 0; r < list.rows(); ++r) {
    std::string rows, checksum;
    measure_table(connection, quote_identifier(list.text(r, 0)) + "." + quote_identifier(list.text(r, 1)),
                  rows, checksum);
    json += std::string(r == 0 ? "" : ",") + "\n  {\"schema\": " + json_quote(list.text(r, 0)) +
            ", \"table\": " + json_quote(list.text(r, 1)) +
            ", \"tablespace\": " + json_quote(list.text(r, 2)) + ", \"rows\": " + rows +
            ", \"checksum\": " + json_quote(checksum) + "}";
  }
  json += list.rows() == 0 ? "]}\n" : "\n ]}\n";
  connection.query("commit");
  std::fputs(json.c_str(), stdout);
  return 0;
}

} // namespace oscar_lab
