#include "lab/common/database.h"
#include "lab/common/server_control.h"
#include "lab/common/text.h"
#include "lab/kestrel_lab/commands.h"
#include "lab/kestrel_lab/copy_stream.h"

#include <cmath>
#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>

namespace oscar_lab
{

namespace
{

constexpr const char* tablespace_name = "labspace";
constexpr std::uint64_t default_seed = 1;
constexpr std::uint64_t max_megabytes = 1024 * 1024;

/// A small generator whose state is the seed, the table and the row: every row can be made on its own,
/// so the content does not depend on how the work is divided.
class Row_Random
{
public:
  Row_Random(std::uint64_t seed, unsigned table, std::uint64_t row)
      : state_(seed * 0x9e3779b97f4a7c15U + table * 0xd1b54a32d192ed03U + row * 0x8cb92ba72f3d8dd7U)
  {
  }
  std::uint64_t next()
  {
    std::uint64_t z = (state_ += 0x9e3779b97f4a7c15U);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9U;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebU;
    return z ^ (z >> 31);
  }
  std::uint64_t below(std::uint64_t limit) { return next() % limit; }

private:
  std::uint64_t state_;
};

const char* const words[] = {"amber",   "river",   "stone",  "copper", "ledger",  "harbour", "signal",
                             "window",  "garden",  "winter", "market", "engine",  "bridge",  "paper",
                             "silver",  "orchard", "anchor", "meadow", "lantern", "valley",  "cotton",
                             "granite", "compass", "island", "kettle", "mirror",  "needle",  "violet",
                             "walnut",  "zephyr",  "brass",  "cinder"};

std::string some_words(Row_Random& random, std::size_t bytes)
{
  std::string text;
  text.reserve(bytes + 16);
  while (text.size() < bytes) {
    std::uint64_t pick = random.next();
    for (int i = 0; i < 8; ++i, pick >>= 8) {
      text += words[pick & 31];
      text += (pick & 0xe0) == 0 ? '\n' : ' ';
    }
  }
  text.resize(bytes);
  return text;
}

std::string some_bytes(Row_Random& random, std::size_t bytes)
{
  std::string data;
  data.reserve(bytes + 8);
  while (data.size() < bytes) {
    const std::uint64_t value = random.next();
    data.append(reinterpret_cast<const char*>(&value), sizeof value);
  }
  data.resize(bytes);
  return data;
}

void customer_row(Copy_Stream& copy, Row_Random& random, std::int64_t id)
{
  copy.begin_row(7);
  copy.int32(static_cast<std::int32_t>(id));
  copy.text(some_words(random, 12 + random.below(20)));
  copy.text(words[random.below(32)]);
  copy.cents(random.below(100000000));
  copy.int32(static_cast<std::int32_t>(random.below(20000)) - 12000); // days since 2000-01-01
  copy.boolean(random.below(4) != 0);
  copy.float4(static_cast<float>(random.below(1000)) / 16);
}

void order_row(Copy_Stream& copy, Row_Random& random, std::int64_t id)
{
  copy.begin_row(6);
  copy.int64(id);
  copy.int32(static_cast<std::int32_t>(1 + random.below(100000)));
  copy.int64(static_cast<std::int64_t>(random.below(800000000)) * 1000000); // microseconds since 2000-01-01
  copy.cents(1 + random.below(500000));
  copy.int16(static_cast<std::int16_t>(random.below(7)));
  copy.text(some_words(random, 40 + random.below(160)));
}

void document_row(Copy_Stream& copy, Row_Random& random, std::int64_t id)
{
  copy.begin_row(5);
  copy.int64(id);
  copy.bytes(some_bytes(random, 16).data(), 16);
  copy.text(some_words(random, 400 + random.below(400)));
  copy.jsonb("{\"kind\": \"" + std::string(words[random.below(32)]) +
             "\", \"pages\": " + std::to_string(random.below(300)) +
             ", \"final\": " + (random.below(2) != 0 ? "true" : "false") + "}");
  copy.text(some_bytes(random, 100 + random.below(200)));
}

void reading_row(Copy_Stream& copy, Row_Random& random, std::int64_t id)
{
  copy.begin_row(6);
  copy.int64(id);
  copy.int32(static_cast<std::int32_t>(random.below(5000)));
  copy.int64(id * 250000 + static_cast<std::int64_t>(random.below(200000)));
  copy.float8(std::floor(static_cast<double>(random.below(2000000))) / 64);
  copy.int4_array(
      {static_cast<std::int32_t>(random.below(10)), static_cast<std::int32_t>(random.below(1000))});
  copy.inet(0x0a000000U + static_cast<std::uint32_t>(random.below(1U << 20)));
}

struct Table {
  const char* name;
  const char* create; // columns
  const char* indexes;
  bool in_tablespace;
  unsigned share_percent; // of the wanted megabytes
  unsigned bytes_per_row; // measured, with the indexes' part
  void (*make_row)(Copy_Stream&, Row_Random&, std::int64_t);
};

const Table tables[] = {
    {"sales.customers",
     "id integer primary key, name text not null, city varchar(40), balance numeric(14,2), born date, "
     "active boolean not null, rating real",
     "create index customers_city on sales.customers (city)", false, 10, 136, customer_row},
    {"sales.orders",
     "id bigint primary key, customer integer not null, placed timestamptz not null, amount numeric(12,2) "
     "not null, "
     "status smallint, note text",
     "create index orders_customer on sales.orders (customer)", false, 30, 222, order_row},
    {"docs.documents",
     "id bigint primary key using index tablespace labspace, uid uuid not null, body text, meta jsonb, raw "
     "bytea",
     "create index documents_uid on docs.documents (uid) tablespace labspace", true, 45, 1010, document_row},
    {"docs.readings",
     "id bigint primary key using index tablespace labspace, sensor integer not null, taken timestamp not "
     "null, "
     "value double precision, flags integer[], source inet",
     "create index readings_sensor on docs.readings (sensor, taken) tablespace labspace", true, 15, 173,
     reading_row},
};
constexpr unsigned table_count = sizeof tables / sizeof tables[0];

/// The extra tablespace as OSCAR's own clients make one: a data file beside the instance's others.
void make_tablespace(Connection& connection, const Instance_Files& files)
{
  if (connection.query("select 1 from pg_tablespace where spcname = $1", {tablespace_name}).rows() != 0)
    return;
  const std::string datafile = files.directory() + "/LABSPACE.dbf";
  const Owner owner = owner_of(files.data());
  replace_file(datafile, "", 0640);
  give_to(datafile, owner);
  make_directory(datafile + ".d", 0700);
  give_to(datafile + ".d", owner);
  connection.query(std::string("create tablespace ") + tablespace_name + " location " +
                   quote_literal(datafile + ".d"));
}

bool make_table(Connection& connection, const Table& table)
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
  const Table& table = tables[index];
  Connection connection = connect_as_system(files);
  connection.query("set maintenance_work_mem = '256MB'");
  connection.query("set synchronous_commit = off");
  const bool fresh = make_table(connection, table);
  const auto first =
      std::stoll(connection.value(std::string("select coalesce(max(id), 0) + 1 from ") + table.name));
  const std::uint64_t rows = megabytes * 1024 * 1024 * table.share_percent / 100 / table.bytes_per_row + 1;
  Copy_Stream copy(connection, std::string("copy ") + table.name + " from stdin (format binary)");
  for (std::uint64_t i = 0; i < rows; ++i) {
    const std::int64_t id = first + static_cast<std::int64_t>(i);
    Row_Random random(seed, index, static_cast<std::uint64_t>(id));
    table.make_row(copy, random, id);
  }
  copy.finish();
  if (fresh)
    connection.query(table.indexes);
  connection.query(std::string("analyze ") + table.name);
  return rows;
}

std::uint64_t number_option(const Arguments& arguments, const char* name, std::uint64_t maximum)
{
  std::uint64_t value = 0;
  if (!parse_number(arguments.required(name), maximum, value))
    throw Usage_Failure(std::string("option ") + name + " needs a number");
  return value;
}

} // namespace

int load_command(const Arguments& arguments)
{
  arguments.only({"--megabytes", "--seed"}, "with load");
  const Instance_Files files = instance_operands(arguments);
  const std::uint64_t megabytes = number_option(arguments, "--megabytes", max_megabytes);
  const std::uint64_t seed =
      arguments.has("--seed") ? number_option(arguments, "--seed", UINT64_MAX) : default_seed;
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
  std::uint64_t rows[table_count] = {};
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
  for (unsigned i = 0; i < table_count; ++i)
    std::printf("%s: %llu rows added\n", tables[i].name, static_cast<unsigned long long>(rows[i]));
  return 0;
}

} // namespace oscar_lab
