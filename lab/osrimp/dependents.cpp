#include "lab/osrimp/dependents.h"

#include "lab/common/text.h"
#include "lab/logical/client_program.h"

#include <algorithm>

namespace oscar_lab
{

namespace
{

/// Follows pg_depend from the rows of "start"; "located" tells the relation that each object is a part of. A
/// view falls with its rule, which the recursion adds, since the rule names the view and not the other way
/// round.
constexpr const char* dependency_walk = R"sql(
with recursive dep(classid, objid, objsubid) as (
  select classid, objid, 0 from (START) as start(classid, objid)
  union
  select x.classid, x.objid, x.objsubid from dep, lateral (
    select d.classid, d.objid, d.objsubid from pg_catalog.pg_depend d
      where d.refclassid = dep.classid and d.refobjid = dep.objid
        and (dep.objsubid = 0 or d.refobjsubid in (0, dep.objsubid))
    union all
    select 'pg_catalog.pg_class'::pg_catalog.regclass, r.ev_class, 0 from pg_catalog.pg_rewrite r
      where dep.classid = 'pg_catalog.pg_rewrite'::pg_catalog.regclass and r.oid = dep.objid) x
), located as (
  select d.*, case d.classid
    when 'pg_catalog.pg_class'::pg_catalog.regclass then
      (select case when c.relkind in ('i', 'I') then (select indrelid from pg_catalog.pg_index where indexrelid = c.oid)
                   when c.relkind = 'S' then coalesce((select o.refobjid from pg_catalog.pg_depend o
                     where o.classid = 'pg_catalog.pg_class'::pg_catalog.regclass and o.objid = c.oid
                       and o.refclassid = 'pg_catalog.pg_class'::pg_catalog.regclass and o.refobjsubid > 0
                       and o.deptype in ('a', 'i') limit 1), c.oid)
                   else c.oid end from pg_catalog.pg_class c where c.oid = d.objid)
    when 'pg_catalog.pg_constraint'::pg_catalog.regclass then
      (select nullif(conrelid, 0) from pg_catalog.pg_constraint where oid = d.objid)
    when 'pg_catalog.pg_attrdef'::pg_catalog.regclass then
      (select adrelid from pg_catalog.pg_attrdef where oid = d.objid)
    when 'pg_catalog.pg_trigger'::pg_catalog.regclass then
      (select tgrelid from pg_catalog.pg_trigger where oid = d.objid)
    when 'pg_catalog.pg_rewrite'::pg_catalog.regclass then
      (select ev_class from pg_catalog.pg_rewrite where oid = d.objid)
    when 'pg_catalog.pg_policy'::pg_catalog.regclass then
      (select polrelid from pg_catalog.pg_policy where oid = d.objid)
    when 'pg_catalog.pg_statistic_ext'::pg_catalog.regclass then
      (select stxrelid from pg_catalog.pg_statistic_ext where oid = d.objid)
    when 'pg_catalog.pg_type'::pg_catalog.regclass then
      (select nullif(case when t.typrelid <> 0 then t.typrelid else e.typrelid end, 0) from pg_catalog.pg_type t
        left join pg_catalog.pg_type e on e.oid = t.typelem where t.oid = d.objid)
  end as rel from dep d
), placed as (
  select l.*, c.relkind, coalesce(n.nspname, (select tn.nspname from pg_catalog.pg_constraint k
      join pg_catalog.pg_type t on t.oid = k.contypid join pg_catalog.pg_namespace tn on tn.oid = t.typnamespace
      where l.classid = 'pg_catalog.pg_constraint'::pg_catalog.regclass and k.oid = l.objid),
    (pg_catalog.pg_identify_object(l.classid, l.objid, l.objsubid)).schema) as nsp
  from located l left join pg_catalog.pg_class c on c.oid = l.rel
    left join pg_catalog.pg_namespace n on n.oid = c.relnamespace
), outside as (
  select * from placed p where INSIDE is not true and coalesce(nsp, '') !~ '^pg_toast'
    and classid not in ('pg_catalog.pg_namespace'::pg_catalog.regclass,
      'pg_catalog.pg_publication_rel'::pg_catalog.regclass, 'pg_catalog.pg_default_acl'::pg_catalog.regclass)
    and not (classid = 'pg_catalog.pg_extension'::pg_catalog.regclass and EXTENSIONS)
    and not exists (select 1 from pg_catalog.pg_trigger t where t.tgisinternal and t.oid = p.objid
                    and p.classid = 'pg_catalog.pg_trigger'::pg_catalog.regclass)
)
)sql";

void replace_word(std::string& text, const std::string& word, const std::string& by)
{
  const auto found = text.find(word);
  if (found != std::string::npos)
    text.replace(found, word.size(), by);
}

std::string literals(const std::vector<std::string>& names)
{
  std::string list;
  for (const std::string& name : names)
    list += (list.empty() ? "" : ", ") + quote_literal(name);
  return list;
}

std::string walk(const Replaced& replaced)
{
  std::string text = dependency_walk;
  if (replaced.table.empty()) {
    const std::string names = literals(replaced.schemas);
    replace_word(
        text, "START",
        "select 'pg_catalog.pg_namespace'::pg_catalog.regclass, oid from pg_catalog.pg_namespace where "
        "nspname in (" +
            names + ")");
    replace_word(text, "INSIDE", "nsp in (" + names + ")");
  } else {
    const std::string oid =
        quote_literal(quote_identifier(replaced.table_schema) + "." + quote_identifier(replaced.table)) +
        "::pg_catalog.regclass";
    replace_word(text, "START",
                 "select 'pg_catalog.pg_class'::pg_catalog.regclass, " + oid + "::pg_catalog.oid");
    replace_word(text, "INSIDE", "(rel = " + oid + ")");
  }
  replace_word(text, "EXTENSIONS", replaced.with_extensions ? "true" : "false");
  return text;
}

constexpr const char* views_of =
    "select distinct pg_catalog.format('%I.%I', nsp, c.relname) from outside o join "
    "pg_catalog.pg_class c on c.oid = o.rel where o.relkind in ('v', 'm') order by 1";
constexpr const char* keys_of =
    "select distinct k.conrelid::pg_catalog.regclass::text, k.conname, "
    "pg_catalog.pg_get_constraintdef(k.oid) from "
    "outside o join pg_catalog.pg_constraint k on k.oid = o.objid and o.classid = "
    "'pg_catalog.pg_constraint'::pg_catalog.regclass where k.contype = 'f' and k.conparentid = 0 order by 1, "
    "2";
constexpr const char* others_of =
    "select pg_catalog.pg_describe_object(classid, objid, objsubid) from outside o where (relkind is null or "
    "relkind "
    "not in ('v', 'm')) and not exists (select 1 from pg_catalog.pg_constraint k where k.oid = o.objid and "
    "o.classid = 'pg_catalog.pg_constraint'::pg_catalog.regclass and k.contype = 'f') order by 1 limit 1";

} // namespace

std::string Dependents::removal() const
{
  std::string script;
  for (const Key& key : foreign_keys)
    script += "alter table " + key.table + " drop constraint " + quote_identifier(key.name) + ";\n";
  if (views.empty())
    return script;
  // Views can stand on each other in any order: whatever cannot go yet goes in a later round.
  script += "do $osrimp$ declare waiting text[] := array[" + literals(views) +
            "]; still text[]; one text; kind text; begin\n"
            "while pg_catalog.cardinality(waiting) > 0 loop still := '{}';\n"
            " foreach one in array waiting loop\n"
            "  select case relkind when 'm' then 'materialized view' else 'view' end into kind\n"
            "   from pg_catalog.pg_class where oid = one::pg_catalog.regclass;\n"
            "  begin execute 'drop ' || kind || ' ' || one;\n"
            "  exception when dependent_objects_still_exist then still := still || one; end;\n"
            " end loop;\n"
            " if pg_catalog.cardinality(still) = pg_catalog.cardinality(waiting) then\n"
            "  raise exception 'other objects depend on view %', still[1]; end if;\n"
            " waiting := still;\n"
            "end loop; end $osrimp$;\n";
  return script;
}

std::string Dependents::keys_again() const
{
  std::string script;
  for (const Key& key : foreign_keys) {
    const std::string statement =
        "alter table " + key.table + " add constraint " + quote_identifier(key.name) + " " + key.definition;
    const bool valid = !ends_with(key.definition, " NOT VALID");
    script += "do $osrimp$ begin execute " + quote_literal(statement) + ";\n";
    if (valid)
      script +=
          "exception when foreign_key_violation then execute " + quote_literal(statement + " NOT VALID") +
          ";\n raise warning 'rows of % do not satisfy its foreign key %: it holds for new rows only', " +
          quote_literal(key.table) + ", " + quote_literal(key.name) + ";\n";
    script += "end $osrimp$;\n";
  }
  return script;
}

Dependents find_dependents(Connection& connection, const Replaced& replaced, const Login& login)
{
  const std::string query = walk(replaced);
  const Result others = connection.query(query + others_of);
  if (others.rows() != 0)
    throw Failure(others.text(0, 0) + " depends on what the import replaces; remove it first");
  Dependents dependents;
  const Result views = connection.query(query + views_of);
  for (int r = 0; r < views.rows(); ++r)
    dependents.views.push_back(views.text(r, 0));
  const Result keys = connection.query(query + keys_of);
  for (int r = 0; r < keys.rows(); ++r)
    dependents.foreign_keys.push_back(Dependents::Key{keys.text(r, 0), keys.text(r, 1), keys.text(r, 2)});
  if (dependents.views.empty())
    return dependents;
  std::vector<std::string> arguments = {"--format=plain", "--lock-wait-timeout=60s"};
  for (const std::string& view : dependents.views) {
    // format('%I') leaves plain lower-case names unquoted, which pg_dump's patterns read the same way.
    arguments.push_back("--table=" + view);
  }
  dependents.view_script = output_of("pg_dump", arguments, login);
  return dependents;
}

std::string no_dependents_check(const std::vector<std::string>& schemas)
{
  Replaced replaced;
  replaced.schemas = schemas;
  return "do $osrimp$ declare one text; begin one := (" + walk(replaced) +
         "select pg_catalog.pg_describe_object(classid, objid, objsubid) from outside order by 1 limit 1);\n"
         "if one is not null then raise exception '% depends on what the import replaces', one; end if;\n"
         "end $osrimp$;\n";
}

} // namespace oscar_lab
