#include "lab/osrimp/rename_table.h"

#include "lab/common/database.h"

namespace oscar_lab
{

namespace
{

/// The table's indexes, and the sequences of its columns. A wanted name must be free where the relation is,
/// where it goes, and among those that come back beside it.
constexpr const char* rename_parts = R"sql(
do $osrimp$
declare
  old_table text := OLD_TABLE; new_table text := NEW_TABLE;
  places oid[] := array(select oid from pg_catalog.pg_namespace where nspname in (PLACES));
  part record; base text; wanted text; number integer;
begin
  for part in
    select c.oid, c.relname::text as name, c.relkind from pg_catalog.pg_class c where c.oid in (
      select indexrelid from pg_catalog.pg_index where indrelid = TABLE::pg_catalog.regclass
      union all
      select d.objid from pg_catalog.pg_depend d where d.classid = 'pg_catalog.pg_class'::pg_catalog.regclass
        and d.refclassid = 'pg_catalog.pg_class'::pg_catalog.regclass
        and d.refobjid = TABLE::pg_catalog.regclass and d.refobjsubid > 0 and d.deptype in ('a', 'i'))
      and c.relkind in ('i', 'S')
  loop
    base := part.name;
    if old_table <> new_table and pg_catalog.left(base, pg_catalog.length(old_table) + 1) = old_table || '_' then
      base := new_table || pg_catalog.substr(base, pg_catalog.length(old_table) + 1);
    end if;
    base := pg_catalog.left(base, 63);
    wanted := base;
    number := 0;
    while exists (select 1 from pg_catalog.pg_class where relname = wanted and oid <> part.oid
                  and relnamespace = any (places)) loop
      number := number + 1;
      wanted := pg_catalog.left(base, 58) || '_' || number;
    end loop;
    if wanted <> part.name then
      execute pg_catalog.format('alter %s %I.%I rename to %I', case part.relkind when 'S' then 'sequence' else 'index' end,
                                OLD_SCHEMA, part.name, wanted);
    end if;
  end loop;
end $osrimp$;
)sql";

void replace_all(std::string& text, const std::string& word, const std::string& by)
{
  for (auto found = text.find(word); found != std::string::npos; found = text.find(word, found + by.size()))
    text.replace(found, word.size(), by);
}

} // namespace

std::string move_table_script(const Table_Move& move)
{
  const std::string table = quote_identifier(move.schema) + "." + quote_identifier(move.table);
  // What moved aside stays out of the way only if it comes back to another schema than the new table's.
  std::string places = quote_literal(move.new_schema);
  if (move.table != move.new_table)
    places += ", " + quote_literal(move.schema);
  if (move.schema == move.new_schema && !move.aside.empty())
    places += ", " + quote_literal(move.aside);
  std::string script = rename_parts;
  replace_all(script, "OLD_TABLE", quote_literal(move.table));
  replace_all(script, "NEW_TABLE", quote_literal(move.new_table));
  replace_all(script, "OLD_SCHEMA", quote_literal(move.schema));
  replace_all(script, "PLACES", places);
  replace_all(script, "TABLE::", quote_literal(table) + "::");
  // A name of its own on the way: both schemas may have a table of the other's name.
  const std::string on_the_way = quote_identifier("osrimp_moving_" + move.new_table.substr(0, 40));
  script += "alter table " + table + " rename to " + on_the_way + ";\n";
  if (move.schema != move.new_schema)
    script += "alter table " + quote_identifier(move.schema) + "." + on_the_way + " set schema " +
              quote_identifier(move.new_schema) + ";\n";
  return script + "alter table " + quote_identifier(move.new_schema) + "." + on_the_way + " rename to " +
         quote_identifier(move.new_table) + ";\n";
}

} // namespace oscar_lab
