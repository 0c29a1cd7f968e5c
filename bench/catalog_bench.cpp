// The catalog with 100,000 backup sets: 100 databases, each with ten chains of a full backup and 99
// incremental ones. What users wait for: a page of a listing (wanted below 50 ms) and the chain of a restore
// (below 20 ms).

#include "catalog/catalog_commit.h"
#include "catalog/catalog_operator.h"
#include "catalog/sql_back_end.h"
#include "json/json_util.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>

namespace
{
const int resources = 100;
const int sets_of_resource = 1000;
const int chain_length = 100;

std::string set_id(int resource, int number)
{
  return "20260101" + std::to_string(100000 + number) + "-" + std::to_string(10000 + resource);
}

Oscar_Brcmd_Backup_Set make_set(int resource, int number)
{
  const int full = number - number % chain_length;
  const std::string id = set_id(resource, number);
  Oscar_Brcmd_Backup_Set set;
  set.set_uid("0b7a9f54-4c7e-4f0e-9d7b-4f2f6a1c0001");
  set.set_definition_uuid("0b7a9f54-4c7e-4f0e-9d7b-definition" + std::to_string(resource));
  set.set_name("nightly backup of database " + std::to_string(resource));
  set.set_agent("agent");
  set.set_host_uuid("0b7a9f54-4c7e-4f0e-9d7b-4f2f6a1c0002");
  set.set_resource_uuid("resource-" + std::to_string(resource));
  set.set_uri("resource-" + std::to_string(resource));
  set.set_type(number == full ? "full" : "incr");
  set.set_uuid(id);
  set.set_backup_id(id);
  set.set_backup_lsn(1000u + number);
  set.set_backup_scn(2000u + number);
  set.set_last_backup_id(number == full ? id : set_id(resource, number - 1));
  set.set_last_full_backup_id(set_id(resource, full));
  set.set_full_backup_id(set_id(resource, full));
  set.set_backup_file(id + ".bak.zst");
  set.set_backup_set_size(1u << 30);
  set.set_total_size(1u << 30);
  set.set_catalog_type("oscar_brcmd_backup_set");
  set.set_minor_resource_id("0123456789abcdef0123456789abcdef");
  set.set_start_time(1700000000 + number * 3600 + resource);
  set.set_end_time(1700000000 + number * 3600 + resource + 600);
  set.set_compression("zstd");
  set.set_pump_size(1u << 30);
  set.set_pump_checksum("0123456789abcdef0123456789abcdef");
  set.set_original_checksum("0123456789abcdef0123456789abcdef");
  set.set_storage_checksum("0123456789abcdef0123456789abcdef");
  set.add_storage(Backup_Set_Storage("pool-" + std::to_string(resource % 5), 1u << 29));
  set.add_piece(id + ".bak.zst", 0);
  return set;
}

/// The filled catalog, made once in a temporary directory and removed at the end of the program.
class Filled_Catalog
{
public:
  Filled_Catalog()
  {
    char directory[] = "/tmp/catalog_bench_XXXXXX";
    if (!::mkdtemp(directory))
      ::abort();
    directory_ = directory;
    ::setenv("KESTREL_ROOT", directory, 1);
    kestrel::Catalog_Database database(kestrel::default_catalog_place());
    kestrel::Catalog_Transaction transaction(database.session(), kestrel::Catalog_Transaction::Kind::write);
    for (int number = 0; number < sets_of_resource; ++number)
      for (int resource = 0; resource < resources; ++resource) {
        const kestrel::Backup_Record record = make_set(resource, number).record();
        if (kestrel::Commit_Row(record).insert(database.session()))
          ::abort();
      }
    transaction.commit();
  }
  ~Filled_Catalog()
  {
    const std::string command = "rm -rf " + directory_;
    if (::system(command.c_str()) != 0)
      ::abort();
  }

private:
  std::string directory_;
};

void run(benchmark::State& state, const char* view, const std::map<std::string, json_spirit::Value>& query,
         size_t expected_rows)
{
  static Filled_Catalog catalog;
  for (auto step : state) {
    json_spirit::Value result;
    if (!Catalog_Operator(-1, 0).get_view("oscar_brcmd", view, query, result) ||
        json_spirit::find_value(result.get_obj(), "rows").get_array().size() != expected_rows) {
      state.SkipWithError("the catalog gave another number of rows");
      break;
    }
  }
}

void newest_page_of_all(benchmark::State& state)
{
  run(state, "catalogs", {{"sort", "start_time"}, {"order", "desc"}, {"limit", 100}}, 100);
}

void newest_page_of_one_resource(benchmark::State& state)
{
  run(state, "catalogs",
      {{"resource_uuid", "resource-42"}, {"sort", "start_time"}, {"order", "desc"}, {"limit", 100}}, 100);
}

void page_in_the_middle_of_all(benchmark::State& state)
{
  run(state, "catalogs", {{"sort", "start_time"}, {"order", "desc"}, {"limit", 100}, {"offset", 50000}}, 100);
}

void all_of_one_resource(benchmark::State& state)
{
  run(state, "catalogs", {{"resource_uuid", "resource-42"}, {"sort", "backup_start_time"}, {"order", "desc"}},
      1000);
}

void full_backup_of_a_chain(benchmark::State& state)
{
  run(state, "catalogs",
      {{"resource_uuid", "resource-42"},
       {"backup_id", set_id(42, 900)},
       {"backup_lsn", 1900},
       {"backup_scn", 2900},
       {"sort", "start_time"},
       {"order", "desc"}},
      1);
}

void chain_of_100(benchmark::State& state)
{
  run(state, "catalog_sequences", {{"backup_id", set_id(42, 999)}, {"order", "desc"}}, 100);
}

void newest_page_with_its_chains(benchmark::State& state)
{
  run(state, "catalogs", {{"sort", "start_time"}, {"order", "desc"}, {"limit", 100}, {"with_chain", true}},
      100);
}

void a_whole_chain_as_a_tree(benchmark::State& state)
{
  run(state, "catalogs",
      {{"resource_uuid", "resource-42"},
       {"sort", "start_time"},
       {"order", "desc"},
       {"limit", 100},
       {"with_chain", true}},
      100);
}

void all_100000_rows(benchmark::State& state)
{
  run(state, "catalogs", {{"sort", "start_time"}, {"order", "desc"}}, 100000);
}

void all_100000_rows_as_text(benchmark::State& state)
{
  json_spirit::Value result;
  for (auto step : state) {
    if (!Catalog_Operator(-1, 0).get_view("oscar_brcmd", "catalogs", {}, result))
      state.SkipWithError("the catalog did not answer");
    benchmark::DoNotOptimize(kestrel::write_json(result));
  }
}

void commit_one(benchmark::State& state)
{
  static int number = sets_of_resource;
  for (auto step : state) {
    Oscar_Brcmd_Backup_Set set = make_set(7, number++);
    set.set_resource_uuid("another resource");
    set.set_type("full");
    if (!Catalog_Operator(-1, 0).commit(set, true))
      state.SkipWithError("the catalog took no set");
  }
}
} // namespace

// bench/run.sh leaves the first repetition out.
BENCHMARK(newest_page_of_all)->Unit(benchmark::kMillisecond)->Repetitions(6);
BENCHMARK(newest_page_of_one_resource)->Unit(benchmark::kMillisecond)->Repetitions(6);
BENCHMARK(page_in_the_middle_of_all)->Unit(benchmark::kMillisecond)->Repetitions(6);
BENCHMARK(all_of_one_resource)->Unit(benchmark::kMillisecond)->Repetitions(6);
BENCHMARK(full_backup_of_a_chain)->Unit(benchmark::kMillisecond)->Repetitions(6);
BENCHMARK(chain_of_100)->Unit(benchmark::kMillisecond)->Repetitions(6);
BENCHMARK(newest_page_with_its_chains)->Unit(benchmark::kMillisecond)->Repetitions(6);
BENCHMARK(a_whole_chain_as_a_tree)->Unit(benchmark::kMillisecond)->Repetitions(6);
BENCHMARK(all_100000_rows)->Unit(benchmark::kMillisecond)->Repetitions(6);
BENCHMARK(all_100000_rows_as_text)->Unit(benchmark::kMillisecond)->Repetitions(6);
BENCHMARK(commit_one)->Unit(benchmark::kMillisecond)->Repetitions(6)->Iterations(20); // last: it adds sets
