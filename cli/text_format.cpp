#include "cli/text_format.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <sstream>

namespace kestrel
{
namespace
{
std::string format_local(time_t time, const char* format)
{
  struct tm broken_down;
  if (!::localtime_r(&time, &broken_down))
    return "-";
  char text[64];
  return std::string(text, ::strftime(text, sizeof text, format, &broken_down));
}
} // namespace

std::string format_bytes(uint64_t bytes)
{
  static const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  char text[32];
  if (bytes < 1024) {
    std::snprintf(text, sizeof text, "%" PRIu64 " B", bytes);
    return text;
  }
  double value = static_cast<double>(bytes);
  size_t unit = 0;
  while (value >= 1023.95 && unit + 1 < sizeof units / sizeof *units) {
    value /= 1024;
    ++unit;
  }
  std::snprintf(text, sizeof text, "%.1f %s", value, units[unit]);
  return text;
}

std::string format_duration(int64_t seconds)
{
  const int64_t left = std::max<int64_t>(seconds, 0);
  char text[48];
  if (left < 60)
    std::snprintf(text, sizeof text, "%" PRId64 " s", left);
  else if (left < 3600)
    std::snprintf(text, sizeof text, "%" PRId64 " min %02" PRId64 " s", left / 60, left % 60);
  else
    std::snprintf(text, sizeof text, "%" PRId64 " h %02" PRId64 " min", left / 3600, left % 3600 / 60);
  return text;
}

std::string format_time(time_t time)
{
  return time ? format_local(time, "%Y-%m-%d %H:%M:%S") : "-";
}

std::string format_time_rfc3339(time_t time)
{
  if (!time)
    return "";
  std::string text = format_local(time, "%Y-%m-%dT%H:%M:%S%z");
  // strftime writes +0100; the colon belongs there.
  if (text.size() > 5)
    text.insert(text.size() - 2, ":");
  return text;
}

std::string format_ratio(uint64_t original_bytes, uint64_t stored_bytes)
{
  if (!original_bytes || !stored_bytes)
    return "-";
  char text[32];
  std::snprintf(text, sizeof text, "%.1f",
                static_cast<double>(original_bytes) / static_cast<double>(stored_bytes));
  return text;
}

size_t display_width(const std::string& text)
{
  return static_cast<size_t>(std::count_if(
      text.begin(), text.end(), [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0) != 0x80; }));
}

std::string format_wrapped(const std::string& text, const std::string& indent, size_t columns)
{
  std::istringstream words(text);
  std::string wrapped, line, word;
  while (words >> word) {
    if (!line.empty() && display_width(indent + line) + 1 + display_width(word) > columns) {
      wrapped += indent + line + "\n";
      line.clear();
    }
    line += (line.empty() ? "" : " ") + word;
  }
  return line.empty() ? wrapped : wrapped + indent + line + "\n";
}

std::string format_table(const std::vector<std::vector<std::string>>& rows,
                         const std::vector<size_t>& right_aligned,
                         const std::multimap<size_t, std::string>& lines_before_row)
{
  std::vector<size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t column = 0; column < row.size(); ++column)
      widths[column] = std::max(widths[column], display_width(row[column]));
  }
  std::string table;
  auto own_line = lines_before_row.begin();
  for (size_t number = 0; number < rows.size(); ++number) {
    for (; own_line != lines_before_row.end() && own_line->first <= number; ++own_line)
      table += own_line->second + "\n";
    const std::vector<std::string>& row = rows[number];
    std::string line;
    for (size_t column = 0; column < row.size(); ++column) {
      const std::string padding(widths[column] - display_width(row[column]), ' ');
      const bool right = std::find(right_aligned.begin(), right_aligned.end(), column) != right_aligned.end();
      line += (column ? "  " : "") + (right ? padding + row[column] : row[column] + padding);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    table += line + "\n";
  }
  for (; own_line != lines_before_row.end(); ++own_line)
    table += own_line->second + "\n";
  return table;
}
} // namespace kestrel
