#include "lab/kestrel_lab/sample_data.h"

#include <cmath>
#include <string>

namespace oscar_lab
{

namespace
{

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

// Every row of orders and readings has entries at random places of an index. The log gets a whole page for
// each of those places, so a change of many such rows is much larger than the rows; few of them change.
const Sample_Table tables[] = {
    {"sales.customers",
     "id integer primary key, name text not null, city varchar(40), balance numeric(14,2), born date, "
     "active boolean not null, rating real",
     "create index customers_city on sales.customers (city)", false, 10, 136, customer_row, 18,
     "balance = balance + 1, name = left($1 || name, 40)"},
    {"sales.orders",
     "id bigint primary key, customer integer not null, placed timestamptz not null, amount numeric(12,2) "
     "not null, "
     "status smallint, note text",
     "create index orders_customer on sales.orders (customer)", false, 30, 222, order_row, 1,
     "amount = amount + 0.01, note = overlay(note placing $1 from 1)"},
    {"docs.documents",
     "id bigint primary key using index tablespace labspace, uid uuid not null, body text, meta jsonb, raw "
     "bytea",
     "create index documents_uid on docs.documents (uid) tablespace labspace", true, 45, 1010, document_row,
     80, "body = overlay(body placing $1 from 1)"},
    {"docs.readings",
     "id bigint primary key using index tablespace labspace, sensor integer not null, taken timestamp not "
     "null, "
     "value double precision, flags integer[], source inet",
     "create index readings_sensor on docs.readings (sensor, taken) tablespace labspace", true, 15, 173,
     reading_row, 1, "value = value + 0.5"},
};
static_assert(sizeof tables / sizeof tables[0] == sample_table_count, "as announced");

} // namespace

const Sample_Table& sample_table(unsigned index)
{
  return tables[index];
}

void append_rows(Connection& connection, unsigned table, std::int64_t first, std::uint64_t rows,
                 std::uint64_t seed)
{
  Copy_Stream copy(connection, std::string("copy ") + tables[table].name + " from stdin (format binary)");
  for (std::uint64_t i = 0; i < rows; ++i) {
    const std::int64_t id = first + static_cast<std::int64_t>(i);
    Row_Random random(seed, table, static_cast<std::uint64_t>(id));
    tables[table].make_row(copy, random, id);
  }
  copy.finish();
}

} // namespace oscar_lab
