#include "oscar/oscar_cmd_handler.h"
#include "support/corpus.h"

#include <boost/algorithm/string.hpp>

#include <cstdlib>
#include <string>

namespace
{
typedef Oscar_Query_Handler::Result_type Rows;
typedef std::vector<std::string> Lines;

void check(bool holds)
{
  if (!holds)
    ::abort();
}

template <class Handler> int feed(Handler& handler, const std::string& line)
{
  return handler.handle_stdout_line(line.c_str(), static_cast<unsigned>(line.size()));
}

/// Every line behind the headings is a footer, blank, or the row that the splitting rule of the library
/// gives.
void query(const Lines& lines)
{
  std::ostringstream output;
  Rows rows;
  Oscar_Query_Handler::Isql_Query_Line_Handler handler(output, &rows);
  std::string collected;
  size_t row = 0;
  for (size_t i = 0; i < lines.size(); ++i) {
    const size_t before = rows.size();
    if (lines[i].empty())
      continue; // ends the parsing, and its report is no matter for this target
    check(feed(handler, lines[i]) == 0);
    collected += lines[i] + "\n";
    check(rows.size() <= before + 1);
    if (rows.size() == before)
      continue;
    const std::string trimmed = boost::trim_copy(lines[i]);
    Lines cells;
    boost::split(cells, trimmed, boost::is_any_of("|"), boost::token_compress_on);
    check(!trimmed.empty() && rows[row++] == cells);
  }
  check(output.str() == collected);
}

void versions(const Lines& lines)
{
  std::string build;
  std::string whole;
  std::string import;
  Version_Line_Handler short_form(build, false);
  Version_Line_Handler full_form(whole, true);
  Osrimp_Version_Line_Handler osrimp(import);
  for (const std::string& line : lines) {
    check(feed(short_form, line) == 0 && feed(full_form, line) == 0);
    check(whole.find(build) != std::string::npos);
    if (feed(osrimp, line) != 0)
      check(line.find("osrimp") != std::string::npos && boost::ends_with(line, import));
  }
}

void errors(const Lines& lines)
{
  std::string error;
  Execute_Cmd_Line_Handler handler(&error, false);
  for (const std::string& line : lines) {
    check(handler.handle_stderr_line(line.c_str(), static_cast<unsigned>(line.size())) == 0);
    check(error.empty() || (boost::starts_with(error, "Error, ") && boost::ends_with(error, ".")));
    check(error.empty() || line.find("isql: ERROR, ") == std::string::npos || error.size() <= line.size());
  }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  const std::string text(reinterpret_cast<const char*>(data), size);
  Lines lines;
  boost::split(lines, text, boost::is_any_of("\n"));
  query(lines);
  versions(lines);
  errors(lines);
  return 0;
}
