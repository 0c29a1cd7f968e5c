#include "lab/osrexp/export.h"

#include "lab/common/text.h"
#include "lab/logical/catalog_lookup.h"
#include "lab/logical/client_program.h"
#include "lab/logical/export_file.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace oscar_lab
{

namespace
{

/// A table that somebody holds locked longer than this ends the export.
constexpr const char* lock_wait = "60s";

char unfinished_path[4096]; // for the signal handler

extern "C" void remove_unfinished(int signal_number)
{
  if (unfinished_path[0] != '\0')
    ::unlink(unfinished_path);
  ::_exit(128 + signal_number);
}

/// FILE.part while the export runs; gone or renamed to FILE afterwards.
class Unfinished_File
{
public:
  explicit Unfinished_File(const std::string& path) : path_(path), part_(path + ".part")
  {
    if (part_.size() >= sizeof unfinished_path)
      throw Failure("the path of the file is too long");
    if (path_exists(path_) && !is_regular_file(path_))
      throw Failure(path_ + " exists and is not a regular file");
    fd_ = open_file(part_, O_RDWR | O_CREAT | O_NOFOLLOW, 0640);
    if (::flock(fd_.get(), LOCK_EX | LOCK_NB) != 0)
      throw Failure("another export writes " + path_);
    struct stat ours, there;
    if (::fstat(fd_.get(), &ours) != 0 || ::lstat(part_.c_str(), &there) != 0 || ours.st_ino != there.st_ino)
      throw Failure("another export has just written " + path_);
    std::memcpy(unfinished_path, part_.c_str(), part_.size() + 1);
    for (const int number : {SIGHUP, SIGINT, SIGTERM})
      std::signal(number, remove_unfinished);
    // Callers judge an export by whether the file is there: one from an earlier run must not look like ours.
    if (::ftruncate(fd_.get(), 0) != 0 || (path_exists(path_) && ::unlink(path_.c_str()) != 0))
      fail_errno("cannot replace " + path_);
  }
  Unfinished_File(const Unfinished_File&) = delete;
  Unfinished_File& operator=(const Unfinished_File&) = delete;
  ~Unfinished_File()
  {
    if (fd_.valid() && !finished_ && unfinished_path[0] != '\0')
      ::unlink(part_.c_str());
  }

  int fd() const { return fd_.get(); }
  void finish()
  {
    rename_path(part_, path_);
    finished_ = true;
  }

private:
  std::string path_;
  std::string part_;
  Descriptor fd_;
  bool finished_ = false;
};

void add_references(Connection& connection, const char* query, std::vector<Reference>& list)
{
  const Result result = connection.query(query);
  for (int r = 0; r < result.rows(); ++r)
    list.push_back(Reference{result.text(r, 0), result.text(r, 1), result.text(r, 2), result.text(r, 3),
                             result.text(r, 4)});
}

/// Conditions that follow the name of a schema's OID, and of a class c.
struct Scope {
  std::string schemas;
  std::string table; ///< "" for all
};

void describe_references(Connection& connection, const Scope& scope, Export_Record& record)
{
  add_references(connection,
                 ("select n.nspname, c.relname, k.conname, fn.nspname, f.relname from pg_constraint k "
                  "join pg_class c on c.oid = k.conrelid join pg_namespace n on n.oid = c.relnamespace "
                  "join pg_class f on f.oid = k.confrelid join pg_namespace fn on fn.oid = f.relnamespace "
                  "where k.contype = 'f' and c.relnamespace" +
                  scope.schemas + scope.table)
                     .c_str(),
                 record.foreign_keys);
  add_references(connection,
                 ("select n.nspname, c.relname, t.tgname, pn.nspname, p.proname from pg_trigger t "
                  "join pg_class c on c.oid = t.tgrelid join pg_namespace n on n.oid = c.relnamespace "
                  "join pg_proc p on p.oid = t.tgfoid join pg_namespace pn on pn.oid = p.pronamespace "
                  "where not t.tgisinternal and c.relnamespace" +
                  scope.schemas + scope.table)
                     .c_str(),
                 record.triggers);
}

void describe_sequences_and_views(Connection& connection, const Scope& scope, Export_Record& record)
{
  const Result sequences = connection.query(
      "select n.nspname, c.relname from pg_class c join pg_namespace n on n.oid = c.relnamespace where "
      "c.relkind = 'S' and c.relnamespace" +
      scope.schemas +
      " and not exists (select 1 from pg_depend d where d.classid = 'pg_class'::regclass and d.objid = c.oid "
      "and d.refobjsubid > 0 and d.deptype in ('a', 'i'))");
  for (int r = 0; r < sequences.rows() && record.level != Level::table; ++r)
    record.free_sequences.emplace_back(sequences.text(r, 0), sequences.text(r, 1));
  const Result views = connection.query(
      "with recursive v(oid) as (select r.ev_class from pg_depend d join pg_rewrite r on r.oid = d.objid "
      "where "
      "d.classid = 'pg_rewrite'::regclass and d.refclassid = 'pg_constraint'::regclass union select "
      "r.ev_class "
      "from v join pg_depend d on d.refclassid = 'pg_class'::regclass and d.refobjid = v.oid and d.classid = "
      "'pg_rewrite'::regclass join pg_rewrite r on r.oid = d.objid where r.ev_class <> v.oid) select "
      "n.nspname, "
      "c.relname from v join pg_class c on c.oid = v.oid join pg_namespace n on n.oid = c.relnamespace where "
      "c.relnamespace" +
      scope.schemas + scope.table + " order by 1, 2");
  for (int r = 0; r < views.rows(); ++r)
    record.keyed_views.emplace_back(views.text(r, 0), views.text(r, 1));
}

void describe_tablespaces(Connection& connection, const Scope& scope, Export_Record& record)
{
  const Result tablespaces = connection.query(
      "select distinct s.spcname, i.indexrelid is not null from pg_class r join pg_tablespace s on s.oid = "
      "r.reltablespace left join pg_index i on i.indexrelid = r.oid join pg_class c on c.oid = "
      "coalesce(i.indrelid, r.oid) where c.relnamespace" +
      scope.schemas + scope.table);
  for (int r = 0; r < tablespaces.rows(); ++r)
    (tablespaces.text(r, 1) == "t" ? record.index_tablespaces : record.tablespaces)
        .insert(tablespaces.text(r, 0));
}

void describe_roles(Connection& connection, const Scope& scope, Export_Record& record)
{
  const Result roles = connection.query(
      "select distinct r.rolname from pg_shdepend d join pg_roles r on r.oid = d.refobjid where d.dbid = "
      "(select oid from pg_database where datname = current_database()) and d.refclassid = "
      "'pg_authid'::regclass and d.deptype in ('o', 'a') and (exists (select 1 from pg_class c where "
      "d.classid = "
      "'pg_class'::regclass and c.oid = d.objid and c.relnamespace" +
      scope.schemas + scope.table + ")" +
      (record.level == Level::table
           ? std::string()
           : " or exists (select 1 from pg_proc p where d.classid = 'pg_proc'::regclass and p.oid = d.objid "
             "and "
             "p.pronamespace" +
                 scope.schemas +
                 ") or exists (select 1 from pg_type t where d.classid = 'pg_type'::regclass and t.oid = "
                 "d.objid "
                 "and t.typnamespace" +
                 scope.schemas +
                 ") or exists (select 1 from pg_namespace n where d.classid = 'pg_namespace'::regclass and "
                 "n.oid = d.objid and n.oid" +
                 scope.schemas + ")") +
      ") order by 1");
  for (int r = 0; r < roles.rows(); ++r)
    record.roles.push_back(roles.text(r, 0));
}

/// Fills record from the catalog, as the connection's transaction sees it. The session's table "exported"
/// holds the OIDs of the schemas in question.
void describe(Connection& connection, Export_Record& record)
{
  std::string schemas = "nspname !~ '^pg_' and nspname not in ('information_schema', 'oscar_sys')";
  if (record.level != Level::database)
    schemas = "nspname = " + quote_literal(record.schema);
  const Scope scope = {" in (select oid from pg_namespace where " + schemas + ")",
                       record.level == Level::table ? " and c.relname = " + quote_literal(record.table)
                                                    : std::string()};

  const Result names = connection.query("select nspname from pg_namespace where " + schemas + " order by 1");
  for (int r = 0; r < names.rows(); ++r)
    record.schemas.push_back(names.text(r, 0));
  describe_references(connection, scope, record);
  describe_sequences_and_views(connection, scope, record);
  describe_tablespaces(connection, scope, record);
  describe_roles(connection, scope, record);
}

void find_object(Connection& connection, const Request& request, Export_Record& record)
{
  record.level = request.level;
  record.left_out = request.left_out;
  if (request.level == Level::database)
    return;
  record.schema = find_schema(connection, request.schema);
  if (!schema_exists(connection, record.schema))
    throw Failure("schema " + shown_name(record.schema) + " does not exist");
  refuse_system_schema(record.schema);
  if (request.level == Level::table) {
    record.table = find_relation(connection, record.schema, request.table);
    require_single_table(connection, record.schema, record.table);
  }
}

std::vector<std::string> dump_arguments(const Export_Record& record, const std::string& snapshot)
{
  // No compression: what reads the file next compresses it better, and gzip made exports three times slower.
  std::vector<std::string> arguments = {"--format=custom",
                                        "--compress=0",
                                        "--no-blobs",
                                        "--no-publications",
                                        "--no-subscriptions",
                                        "--snapshot=" + snapshot,
                                        std::string("--lock-wait-timeout=") + lock_wait};
  switch (record.level) {
  case Level::database:
    arguments.push_back("--exclude-schema=oscar_sys");
    break;
  case Level::schema:
    arguments.push_back("--schema=" + quote_identifier(record.schema));
    break;
  case Level::table:
    arguments.push_back("--table=" + quote_identifier(record.schema) + "." + quote_identifier(record.table));
    break;
  }
  return arguments;
}

} // namespace

std::string export_objects(const Request& request, const Login& login, const std::string& instance)
{
  Unfinished_File file(request.file);
  Connection connection(login);
  require_instance(connection, instance);
  // The record and the archive must tell of the same moment.
  connection.query("begin isolation level repeatable read read only");
  const std::string snapshot = connection.value("select pg_export_snapshot()");
  Export_Record record;
  find_object(connection, request, record);
  describe(connection, record);
  std::string note;
  if (record.level == Level::database &&
      connection.query("select 1 from pg_largeobject_metadata limit 1").rows() != 0)
    note = "osrexp: NOTE, large objects are not exported\n";

  Client_Program dump("pg_dump", dump_arguments(record, snapshot), login, -1, file.fd());
  if (!dump.wait())
    throw Failure("the export failed: " + dump.error());
  finish_export(file.fd(), record);
  file.finish();
  return note + "osrexp: exported " + level_name(record.level) + " " +
         (record.level == Level::database ? instance : shown_object(record.schema, record.table)) + "\n";
}

} // namespace oscar_lab
