#include "process/line_splitter.h"
#include "process/text_process_handler.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace
{
// Rows as isql prints them.
std::string rows(unsigned count)
{
  std::string text;
  for (unsigned row = 0; row < count; ++row)
    text += " SALES       | ORDER_LINE_" + std::to_string(100000 + row) + "      | TABLE\n";
  return text;
}

class Counter : public kestrel::Line_Sink
{
public:
  int line(const char* text, unsigned int length) override
  {
    benchmark::DoNotOptimize(text);
    bytes += length;
    return 0;
  }
  int segment(const char*, unsigned int) override { return 0; }
  uint64_t bytes = 0;
};

// The splitting alone, in pieces as they come from a pipe.
void split_lines(benchmark::State& state)
{
  const unsigned count = 100000;
  const std::string text = rows(count);
  const size_t piece = 65535;
  std::vector<char> buffer(piece + 1);
  for (auto _ : state) {
    Counter counter;
    kestrel::Line_Splitter splitter(counter, 16u * 1024 * 1024);
    for (size_t at = 0; at < text.size(); at += piece) {
      const size_t length = std::min(piece, text.size() - at);
      ::memcpy(buffer.data(), text.data() + at, length);
      splitter.feed(buffer.data(), length);
    }
    splitter.finish();
    if (counter.bytes != text.size() - count)
      state.SkipWithError("lines were lost");
  }
  state.SetItemsProcessed(state.iterations() * count);
}

class Counting_Handler : public Text_Process_Handler
{
public:
  Counting_Handler() : Text_Process_Handler(0, 60) {}
  int handle_stdout_line(const char*, unsigned int) override
  {
    ++lines;
    return 0;
  }
  unsigned lines = 0;
};

// A whole run: start of a child, its output through the pipe, its end.
void run_tool(benchmark::State& state)
{
  const unsigned count = static_cast<unsigned>(state.range(0));
  ACE_Process_Options options;
  options.handle_inheritance(0);
  options.command_line("/usr/bin/seq %u", count);
  for (auto _ : state) {
    Counting_Handler handler;
    if (handler.call(6, options) != 0 || handler.lines != count)
      state.SkipWithError("lines were lost");
  }
  state.SetItemsProcessed(state.iterations() * count);
}
} // namespace

BENCHMARK(split_lines);
BENCHMARK(run_tool)->Arg(1)->Arg(1000000)->UseRealTime();
