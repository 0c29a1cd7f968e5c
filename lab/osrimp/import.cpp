#include "lab/osrimp/import.h"

#include "lab/common/text.h"
#include "lab/logical/catalog_lookup.h"
#include "lab/logical/export_file.h"
#include "lab/osrimp/dependents.h"
#include "lab/osrimp/rename_table.h"
#include "lab/osrimp/script_runner.h"

#include <algorithm>
#include <fcntl.h>
#include <unistd.h>

namespace oscar_lab
{

namespace
{

/// One import on its way: what the file holds, where it goes, and the script that grows from both.
class Import
{
public:
  Import(const Import_Request& request, const Login& login, const Export_Record& record, int file)
      : request_(request), login_(login), record_(record), file_(file), connection_(login)
  {
    left_out_ = request.left_out;
    left_out_.insert(record.left_out.begin(), record.left_out.end());
  }

  std::string run(const std::string& instance);

private:
  void find_target();
  void take_entries();
  void leave_out_dangling(const char* type, const std::vector<Reference>& references);
  bool reference_will_exist(const Reference& reference, bool is_trigger);
  void keep_or_drop_owners();
  void keep_or_drop_tablespaces();
  void lock_target();
  void plan_schemas(const std::vector<std::string>& schemas);
  void plan_schema_rename();
  void plan_table();
  void plan_table_move(bool source_there);
  void add_dependents(const Dependents& dependents);
  void drop_check_constraints(const std::vector<std::string>& schemas);
  std::string spare_name(const std::string& purpose);
  void note(const std::string& text) { notes_ += "osrimp: NOTE, " + text + "\n"; }

  const Import_Request& request_;
  const Login& login_;
  const Export_Record& record_;
  const int file_;
  Connection connection_;
  std::set<Object_Kind> left_out_;
  std::string schema_; // target, at schema and table level
  std::string table_;
  Import_Script script_;
  std::string notes_;
};

std::string Import::spare_name(const std::string& purpose)
{
  for (int number = 1;; ++number) {
    const std::string name = "osrimp_" + purpose + "_" + std::to_string(number);
    if (!schema_exists(connection_, name) && script_.before.find(name) == std::string::npos)
      return name;
  }
}

/// The name that the command line gives: one that exists, else the file's own if it can be meant, else a new
/// one.
std::string meant_name(const Name_Word& word, const std::string& own, const std::string& existing,
                       bool exists)
{
  const auto names = stored_names(word);
  if (exists)
    return existing;
  return std::find(names.begin(), names.end(), own) != names.end() ? own : names.back();
}

void Import::find_target()
{
  schema_ = record_.schema;
  table_ = record_.table;
  if (request_.level == Level::database)
    return;
  if (request_.level != record_.level)
    throw Failure(std::string("the file holds a ") + level_name(record_.level) + ", not a " +
                  level_name(request_.level));
  const std::string schema = find_schema(connection_, request_.schema);
  schema_ = meant_name(request_.schema, record_.schema, schema, schema_exists(connection_, schema));
  refuse_system_schema(schema_);
  if (request_.level != Level::table)
    return;
  if (!schema_exists(connection_, schema_))
    throw Failure("schema " + shown_name(schema_) + " does not exist; create it first");
  const std::string table = find_relation(connection_, schema_, request_.table);
  table_ =
      meant_name(request_.table, record_.table, table, !relation_kind(connection_, schema_, table).empty());
}

bool Import::reference_will_exist(const Reference& reference, bool is_trigger)
{
  const bool same_file = record_.level != Level::table &&
                         std::find(record_.schemas.begin(), record_.schemas.end(), reference.needed_schema) !=
                             record_.schemas.end();
  if (same_file)
    return !is_trigger || left_out_.count(Object_Kind::procedure) == 0;
  if (!is_trigger)
    return (reference.needed_schema == record_.schema && reference.needed_name == record_.table) ||
           !relation_kind(connection_, reference.needed_schema, reference.needed_name).empty();
  return reference.needed_schema == "pg_catalog" ||
         connection_
                 .query("select 1 from pg_proc p join pg_namespace n on n.oid = p.pronamespace where "
                        "n.nspname = $1 "
                        "and p.proname = $2",
                        {reference.needed_schema, reference.needed_name})
                 .rows() != 0;
}

/// A foreign key to a table, or a trigger with a function, that is neither in the file nor here would end the
/// import of rows that somebody needs back; it is left out and told of.
void Import::leave_out_dangling(const char* type, const std::vector<Reference>& references)
{
  const bool is_trigger = std::string(type) == "TRIGGER";
  for (const Reference& reference : references) {
    const auto found = std::find_if(script_.entries.begin(), script_.entries.end(),
                                    [&](const Entry& entry) { return is_reference(entry, type, reference); });
    if (found == script_.entries.end() || reference_will_exist(reference, is_trigger))
      continue;
    script_.entries.erase(found);
    note(std::string(is_trigger ? "trigger " : "foreign key ") + shown_name(reference.name) + " of " +
         shown_object(reference.schema, reference.table) + " is left out: there is no " +
         (is_trigger ? "function " : "table ") +
         shown_object(reference.needed_schema, reference.needed_name));
  }
}

void Import::take_entries()
{
  script_.entries = without_kinds(list_contents(file_, record_, login_), left_out_, record_);
  if (left_out_.count(Object_Kind::constraint) != 0 && left_out_.count(Object_Kind::view) == 0) {
    script_.entries = without_keyed_views(script_.entries, record_);
    for (const auto& view : record_.keyed_views)
      note("view " + shown_object(view.first, view.second) + " is left out: it needs a primary key");
  }
  leave_out_dangling("FK CONSTRAINT", record_.foreign_keys);
  leave_out_dangling("TRIGGER", record_.triggers);
  // The schema that every database has from its start is made here, before the script.
  script_.entries.erase(std::remove_if(script_.entries.begin(), script_.entries.end(),
                                       [](const Entry& entry) {
                                         return entry.type == "SCHEMA" && starts_with(entry.name, "public ");
                                       }),
                        script_.entries.end());
}

void Import::keep_or_drop_owners()
{
  for (const std::string& role : record_.roles)
    if (connection_.query("select 1 from pg_roles where rolname = $1", {role}).rows() == 0) {
      script_.options.push_back("--no-owner");
      script_.options.push_back("--no-privileges");
      note("user " + shown_name(role) + " does not exist here: owners and privileges are left out");
      return;
    }
}

void Import::keep_or_drop_tablespaces()
{
  if (!request_.tablespaces) {
    script_.options.push_back("--no-tablespaces");
    return;
  }
  std::set<std::string> needed = record_.tablespaces;
  if (left_out_.count(Object_Kind::index) == 0 || left_out_.count(Object_Kind::constraint) == 0)
    needed.insert(record_.index_tablespaces.begin(), record_.index_tablespaces.end());
  for (const std::string& tablespace : needed)
    if (connection_.query("select 1 from pg_tablespace where spcname = $1", {tablespace}).rows() == 0)
      throw Failure("tablespace " + shown_name(tablespace) +
                    " does not exist; create it first, or import with tablespace=false");
}

void Import::lock_target()
{
  script_.before +=
      "do $osrimp$ begin if not pg_catalog.pg_try_advisory_xact_lock(pg_catalog.hashtextextended(" +
      quote_literal("osrimp " + schema_ + "." + table_) +
      ", 0)) then raise exception 'another import into the same object is running'; end if; end "
      "$osrimp$;\n";
}

void Import::add_dependents(const Dependents& dependents)
{
  script_.after += dependents.views_again();
  if (left_out_.count(Object_Kind::constraint) == 0) {
    script_.after += dependents.keys_again();
    return;
  }
  for (const Dependents::Key& key : dependents.foreign_keys)
    note("foreign key " + shown_name(key.name) + " of " + key.table +
         " is gone: it needs a constraint that is left out");
}

/// These stand inside the definitions of their tables, so that the list of entries cannot leave them out.
void Import::drop_check_constraints(const std::vector<std::string>& schemas)
{
  if (left_out_.count(Object_Kind::constraint) == 0)
    return;
  std::string names;
  for (const std::string& schema : schemas)
    names += (names.empty() ? "" : ", ") + quote_literal(schema);
  const std::string table =
      record_.level == Level::table ? " and c.relname = " + quote_literal(record_.table) : std::string();
  script_.after +=
      "do $osrimp$ declare r record; begin for r in select k.conrelid::pg_catalog.regclass as place, "
      "k.conname from pg_catalog.pg_constraint k join pg_catalog.pg_class c on c.oid = k.conrelid join "
      "pg_catalog.pg_namespace n on n.oid = c.relnamespace where k.contype = 'c' and k.conislocal and "
      "n.nspname in (" +
      names + ")" + table +
      " loop execute pg_catalog.format('alter table %s drop constraint %I', r.place, r.conname); end "
      "loop; end $osrimp$;\n";
}

/// Replaces the schemas, which exist, by the file's. They are renamed and dropped at the end, so that others
/// can read them until then. Extensions cannot be in two schemas at once: with one inside, the schemas go
/// first.
void Import::plan_schemas(const std::vector<std::string>& schemas)
{
  Replaced replaced;
  for (const std::string& schema : schemas)
    if (schema_exists(connection_, schema))
      replaced.schemas.push_back(schema);
  if (replaced.schemas.empty())
    return;
  if (!request_.recreate_schema)
    throw Failure("schema " + shown_name(replaced.schemas[0]) + " exists; recreateschema=true replaces it");
  replaced.with_extensions = record_.level == Level::database;
  const Dependents dependents = find_dependents(connection_, replaced, login_);
  std::vector<std::string> old_names;
  std::string drops;
  bool extensions = false;
  for (const std::string& schema : replaced.schemas)
    extensions = extensions || connection_
                                       .query("select 1 from pg_extension e join pg_namespace n on n.oid = "
                                              "e.extnamespace where n.nspname = $1",
                                              {schema})
                                       .rows() != 0;
  for (const std::string& schema : replaced.schemas) {
    const std::string old_name = extensions ? schema : spare_name("old");
    if (!extensions)
      script_.before +=
          "alter schema " + quote_identifier(schema) + " rename to " + quote_identifier(old_name) + ";\n";
    old_names.push_back(old_name);
    drops += (drops.empty() ? "drop schema " : ", ") + quote_identifier(old_name);
  }
  std::string& place = extensions ? script_.before : script_.after;
  if (extensions)
    place += dependents.removal() + drops + " cascade;\n";
  else
    place += dependents.removal() + no_dependents_check(old_names) + drops + " cascade;\n";
  add_dependents(dependents);
}

/// The file's schema is called record_.schema in the script and schema_ in the end.
void Import::plan_schema_rename()
{
  if (schema_ == record_.schema)
    return;
  const std::string source = quote_identifier(record_.schema);
  script_.after += "alter schema " + source + " rename to " + quote_identifier(schema_) + ";\n";
  if (!schema_exists(connection_, record_.schema))
    return;
  const std::string saved = quote_identifier(spare_name("saved"));
  script_.before += "alter schema " + source + " rename to " + saved + ";\n";
  script_.after += "alter schema " + saved + " rename to " + source + ";\n";
}

/// The table comes into being under its source's name, and moves to its target. A table that has that name
/// now steps aside meanwhile; nothing else in the source's schema is touched.
void Import::plan_table_move(bool source_there)
{
  const std::string source_schema = quote_identifier(record_.schema);
  Table_Move move{record_.schema, record_.table, schema_, table_, {}};
  const bool schema_there = schema_exists(connection_, record_.schema);
  if (!schema_there)
    script_.before += "create schema " + source_schema + ";\n";
  if (source_there) {
    move.aside = spare_name("saved");
    script_.before += "create schema " + quote_identifier(move.aside) + ";\nalter table " + source_schema +
                      "." + quote_identifier(record_.table) + " set schema " + quote_identifier(move.aside) +
                      ";\n";
  }
  script_.after += move_table_script(move);
  if (source_there)
    script_.after += "alter table " + quote_identifier(move.aside) + "." + quote_identifier(record_.table) +
                     " set schema " + source_schema + ";\ndrop schema " + quote_identifier(move.aside) +
                     ";\n";
  if (!schema_there)
    script_.after += "drop schema " + source_schema + ";\n";
  const auto statistics =
      std::remove_if(script_.entries.begin(), script_.entries.end(), [](const Entry& entry) {
        return entry.type == "STATISTICS" || starts_with(entry.name, "STATISTICS ");
      });
  if (statistics != script_.entries.end())
    note("extended statistics are left out: they cannot be renamed with their table");
  script_.entries.erase(statistics, script_.entries.end());
}

void Import::plan_table()
{
  const bool in_place = schema_ == record_.schema && table_ == record_.table;
  const std::string target = quote_identifier(schema_) + "." + quote_identifier(table_);
  if (!relation_kind(connection_, schema_, table_).empty()) {
    require_single_table(connection_, schema_, table_);
    if (!request_.recreate_table)
      throw Failure("table " + shown_object(schema_, table_) + " exists; recreatetable=true replaces it");
    Replaced replaced;
    replaced.table_schema = schema_;
    replaced.table = table_;
    const Dependents dependents = find_dependents(connection_, replaced, login_);
    script_.before += dependents.removal() + "drop table " + target + ";\n";
    drop_check_constraints({record_.schema});
    if (!in_place)
      plan_table_move(!relation_kind(connection_, record_.schema, record_.table).empty());
    add_dependents(dependents);
    return;
  }
  drop_check_constraints({record_.schema});
  if (!in_place)
    plan_table_move(!relation_kind(connection_, record_.schema, record_.table).empty());
  else if (!schema_exists(connection_, schema_)) {
    if (!request_.recreate_schema)
      throw Failure("schema " + shown_name(schema_) + " does not exist; create it first");
    script_.before += "create schema " + quote_identifier(schema_) + ";\n";
  }
}

std::string Import::run(const std::string& instance)
{
  require_instance(connection_, instance);
  find_target();
  take_entries();
  keep_or_drop_tablespaces();
  keep_or_drop_owners();
  lock_target();
  if (record_.level == Level::table) {
    plan_table();
  } else {
    const std::vector<std::string> targets =
        record_.level == Level::schema ? std::vector<std::string>{schema_} : record_.schemas;
    if (record_.level == Level::schema)
      plan_schema_rename();
    plan_schemas(targets);
    drop_check_constraints(targets);
    if (std::find(record_.schemas.begin(), record_.schemas.end(), "public") != record_.schemas.end())
      script_.before +=
          "create schema public authorization pg_database_owner;\ngrant usage on schema public to "
          "public;\n";
  }
  for (const std::string& warning : run_script(script_, file_, login_))
    note(warning);
  return notes_ + "osrimp: imported " + level_name(record_.level) + " " +
         (record_.level == Level::database ? instance : shown_object(schema_, table_)) + "\n";
}

} // namespace

std::string import_objects(const Import_Request& request, const Login& login, const std::string& instance)
{
  const Descriptor file = open_file(request.file, O_RDONLY);
  const Export_Record record = read_export(file.get(), request.file);
  Import import(request, login, record, file.get());
  try {
    return import.run(instance);
  } catch (const Unknown_Outcome&) {
    throw;
  } catch (const Failure& failure) {
    throw Failure(std::string(failure.what()) + "; nothing was changed");
  }
}

} // namespace oscar_lab
