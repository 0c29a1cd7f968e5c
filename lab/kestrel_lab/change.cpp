#include "lab/common/server_control.h"
#include "lab/common/text.h"
#include "lab/kestrel_lab/commands.h"
#include "lab/kestrel_lab/sample_data.h"

#include <algorithm>
#include <cstdio>

namespace oscar_lab
{

namespace
{

constexpr std::uint64_t max_percent = 100;
/// Rows that are changed together lie together, as they do where new and busy data are what changes.
constexpr std::uint64_t run_bytes = 256 * 1024;
constexpr std::uint64_t added_percent = 20; // of the rows that change
constexpr std::uint64_t delete_every = 8;   // run of rows; the others are updated
constexpr int batch_rows = 1000;
constexpr int kept_batches = 2;

struct Done {
  std::uint64_t updated = 0;
  std::uint64_t added = 0;
  std::uint64_t deleted = 0;
};

std::uint64_t affected(const Result& result)
{
  const std::string count = PQcmdTuples(result.get());
  return count.empty() ? 0 : std::stoull(count);
}

std::string with_text(std::string assignments, const std::string& text)
{
  const auto place = assignments.find("$1");
  return place == std::string::npos ? assignments : assignments.replace(place, 2, quote_literal(text));
}

/// Runs of rows at places that follow from the seed, until about so many rows are updated or deleted.
void change_runs(Connection& connection, unsigned index, std::uint64_t seed, std::int64_t highest,
                 std::uint64_t wanted, Done& done)
{
  const Sample_Table& table = sample_table(index);
  const std::uint64_t run =
      std::max<std::uint64_t>(1, std::min(wanted / delete_every, run_bytes / table.bytes_per_row));
  Row_Random random(seed, index, 0);
  for (std::uint64_t i = 1; i <= (wanted + run - 1) / run; ++i) {
    const std::uint64_t first = 1 + random.below(static_cast<std::uint64_t>(highest));
    const std::string place =
        " where id between " + std::to_string(first) + " and " + std::to_string(first + run - 1);
    if (i % delete_every == 0)
      done.deleted += affected(connection.query(std::string("delete from ") + table.name + place));
    else
      done.updated += affected(
          connection.query(std::string("update ") + table.name + " set " +
                           with_text(table.change, "changed " + std::to_string(seed) + " ") + place));
  }
}

bool exists(Connection& connection, const Sample_Table& table)
{
  return connection.value("select to_regclass($1) is not null", {table.name}) == "t";
}

std::uint64_t bytes_of(Connection& connection, const Sample_Table& table)
{
  if (!exists(connection, table))
    return 0;
  return std::stoull(connection.value(std::string("select count(*) from ") + table.name)) *
         table.bytes_per_row;
}

/// bytes: about how much of all tables is to change.
Done change_table(Connection& connection, unsigned index, std::uint64_t bytes, std::uint64_t seed)
{
  const Sample_Table& table = sample_table(index);
  Done done;
  const std::int64_t highest =
      std::stoll(connection.value(std::string("select coalesce(max(id), 0) from ") + table.name));
  const std::uint64_t wanted = bytes * table.change_percent / 100 / table.bytes_per_row;
  const std::uint64_t added = wanted * added_percent / 100;
  if (highest > 0 && wanted > added)
    change_runs(connection, index, seed, highest, wanted - added, done);
  append_rows(connection, index, highest + 1, added, seed);
  done.added = added;
  return done;
}

/// A new table; the oldest of those from earlier calls goes away.
void change_tables(Connection& connection, std::uint64_t seed)
{
  connection.query("create schema if not exists batches");
  const Result old =
      connection.query("select c.relname from pg_class c join pg_namespace n on n.oid = c.relnamespace "
                       "where n.nspname = 'batches' and c.relkind = 'r' order by c.relname collate \"C\"");
  std::uint64_t number = 0;
  for (int r = 0; r < old.rows(); ++r) {
    std::uint64_t known = 0;
    if (parse_number(old.text(r, 0).substr(1), INT32_MAX, known))
      number = std::max(number, known);
  }
  if (old.rows() >= kept_batches)
    connection.query("drop table batches." + quote_identifier(old.text(0, 0)));
  char name[32];
  std::snprintf(name, sizeof name, "b%06u", static_cast<unsigned>(number + 1));
  connection.query(std::string("create table batches.") + name + " tablespace " + sample_tablespace +
                   " as select i as id, md5(i::text || '" + std::to_string(seed) +
                   "') as value from generate_series(1, " + std::to_string(batch_rows) + ") i");
  connection.query(std::string("create unique index on batches.") + name + " (id)");
}

} // namespace

int change_command(const Arguments& arguments)
{
  arguments.only({"--percent", "--seed"}, "with change");
  const Instance_Files files = instance_operands(arguments);
  const std::uint64_t percent = number_option(arguments, "--percent", max_percent);
  const std::uint64_t seed = seed_option(arguments);
  files.require_existing();
  if (running_server(files) == 0)
    throw Failure("instance " + files.name + " is not running");
  Connection connection = connect_as_system(files);
  std::uint64_t loaded = 0;
  for (unsigned i = 0; i < sample_table_count; ++i)
    loaded += bytes_of(connection, sample_table(i));
  if (loaded == 0)
    throw Failure("instance " + files.name + " holds no sample data; run load first");
  for (unsigned i = 0; i < sample_table_count; ++i) {
    if (!exists(connection, sample_table(i)))
      continue;
    const Done done = change_table(connection, i, loaded / 100 * percent, seed);
    std::printf("%s: %llu rows updated, %llu added, %llu deleted\n", sample_table(i).name,
                static_cast<unsigned long long>(done.updated), static_cast<unsigned long long>(done.added),
                static_cast<unsigned long long>(done.deleted));
  }
  change_tables(connection, seed);
  return 0;
}

} // namespace oscar_lab
