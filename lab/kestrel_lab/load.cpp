#include "lab/common/server_control.h"
#include "lab/common/text.h"
#include "lab/kestrel_lab/commands.h"
#include "lab/kestrel_lab/rich.h"
#include "lab/kestrel_lab/sample_data.h"

#include <cstdio>
#include <exception>
#include <thread>

namespace oscar_lab
{

namespace
{

constexpr std::uint64_t max_megabytes = 1024 * 1024;

/// The extra tablespace as OSCAR's own clients make one: a data file beside the instance's others.
void make_tablespace(Connection& connection, const Instance_Files& files)
{
  if (connection.query("select 1 from pg_tablespace where spcname = $1", {sample_tablespace}).rows() != 0)
    return;
  const std::string datafile = files.directory() + "/LABSPACE.dbf";
  const Owner owner = owner_of(files.data());
  replace_file(datafile, "", 0640);
  give_to(datafile, owner);
  make_directory(datafile + ".d", 0700);
  give_to(datafile + ".d", owner);
  connection.query(std::string("create tablespace ") + sample_tablespace + " location " +
                   quote_literal(datafile + ".d"));
}

bool make_table(Connection& connection, const Sample_Table& table)
{
  if (connection.value("select to_regclass($1) is null", {table.name}) != "t")
    return false;
  connection.query(std::string("create table ") + table.name + " (" + table.create + ")" +
                   (table.in_tablespace ? " tablespace labspace" : ""));
  return true;
}

std::uint64_t fill_table(const Instance_Files& files, unsigned index, std::uint64_t megabytes,
                         std::uint64_t seed)
{
  const Sample_Table& table = sample_table(index);
  Connection connection = connect_as_system(files);
  connection.query("set maintenance_work_mem = '256MB'");
  connection.query("set synchronous_commit = off");
  const bool fresh = make_table(connection, table);
  const auto first =
      std::stoll(connection.value(std::string("select coalesce(max(id), 0) + 1 from ") + table.name));
  const std::uint64_t rows = megabytes * 1024 * 1024 * table.share_percent / 100 / table.bytes_per_row + 1;
  append_rows(connection, index, first, rows, seed);
  if (fresh)
    connection.query(table.indexes);
  connection.query(std::string("analyze ") + table.name);
  return rows;
}

} // namespace

int load_command(const Arguments& arguments)
{
  arguments.only({"--megabytes", "--seed", "--rich"}, "with load");
  const Instance_Files files = instance_operands(arguments);
  const std::uint64_t megabytes = number_option(arguments, "--megabytes", max_megabytes);
  const std::uint64_t seed = seed_option(arguments);
  files.require_existing();
  if (running_server(files) == 0)
    throw Failure("instance " + files.name + " is not running");
  {
    Connection connection = connect_as_system(files);
    make_tablespace(connection, files);
    connection.query("create schema if not exists sales");
    connection.query("create schema if not exists docs");
  }
  // Two tables at a time: the two that hold most of the data, then the small ones.
  const unsigned order[2][2] = {{2, 0}, {1, 3}};
  std::uint64_t rows[sample_table_count] = {};
  std::exception_ptr errors[2];
  std::thread workers[2];
  for (int worker = 0; worker < 2; ++worker)
    workers[worker] = std::thread([&, worker] {
      try {
        for (const unsigned index : order[worker])
          rows[index] = fill_table(files, index, megabytes, seed);
      } catch (...) {
        errors[worker] = std::current_exception();
      }
    });
  for (std::thread& worker : workers)
    worker.join();
  for (const std::exception_ptr& error : errors)
    if (error)
      std::rethrow_exception(error);
  if (arguments.has("--rich")) {
    Connection connection = connect_as_system(files);
    add_rich_objects(connection, seed);
  }
  for (unsigned i = 0; i < sample_table_count; ++i)
    std::printf("%s: %llu rows added\n", sample_table(i).name, static_cast<unsigned long long>(rows[i]));
  return 0;
}

} // namespace oscar_lab
