#include "oscar/oscar_cmd_handler.h"

#include <benchmark/benchmark.h>

#include <memory>

namespace
{
// What isql prints for a table of this many rows with three columns, such as the tables of a schema.
std::vector<std::string> three_columns(unsigned rows)
{
  std::vector<std::string> lines = {" TABLE_SCHEM | TABLE_NAME             | TABLE_TYPE ",
                                    "-------------+------------------------+------------"};
  for (unsigned row = 0; row < rows; ++row)
    lines.push_back(" SALES       | ORDER_LINE_" + std::to_string(100000 + row) + "      | TABLE");
  lines.push_back("(" + std::to_string(rows) + " rows)");
  return lines;
}

std::vector<std::string> one_column(unsigned rows)
{
  std::vector<std::string> lines = {" TABLE_SCHEM ", "-------------"};
  for (unsigned row = 0; row < rows; ++row)
    lines.push_back(" SCHEMA_" + std::to_string(row));
  lines.push_back("(" + std::to_string(rows) + " rows)");
  return lines;
}

// The line handler alone, without the child and its pipes.
void parse(benchmark::State& state, const std::vector<std::string>& lines)
{
  for (auto _ : state) {
    state.PauseTiming();
    auto output = std::make_unique<std::ostringstream>();
    auto rows = std::make_unique<Oscar_Query_Handler::Result_type>();
    Oscar_Query_Handler::Isql_Query_Line_Handler handler(*output, rows.get());
    state.ResumeTiming();
    for (const std::string& line : lines)
      benchmark::DoNotOptimize(handler.handle_stdout_line(line.c_str(), static_cast<unsigned>(line.size())));
    state.PauseTiming();
    if (rows->size() + 3 != lines.size())
      state.SkipWithError("wrong number of rows");
    output.reset();
    rows.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(lines.size() - 3));
}

void isql_three_columns(benchmark::State& state)
{
  parse(state, three_columns(static_cast<unsigned>(state.range(0))));
}

void isql_one_column(benchmark::State& state)
{
  parse(state, one_column(static_cast<unsigned>(state.range(0))));
}
} // namespace

// bench/run.sh leaves the first repetition out.
BENCHMARK(isql_three_columns)->Arg(100)->Arg(100000)->Unit(benchmark::kMillisecond)->Repetitions(6);
BENCHMARK(isql_one_column)->Arg(100)->Arg(100000)->Unit(benchmark::kMillisecond)->Repetitions(6);
