#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <vector>

namespace kestrel
{
/// Plain functions that turn values into short text for people. No state; any thread; never fail.

/// Tables for people fit a screen of so many columns as far as names allow.
constexpr size_t SCREEN_COLUMNS = 80;

/// "512 B", "1.5 KiB", "203.4 MiB": three or four digits and a binary unit.
std::string format_bytes(uint64_t bytes);
/// "7 s", "3 min 05 s", "2 h 10 min". Negative values count as 0.
std::string format_duration(int64_t seconds);
/// Local time, "2026-11-21 10:30:00"; "-" for 0.
std::string format_time(time_t time);
/// Local time with its offset as RFC 3339, "2026-11-21T10:30:00+01:00"; empty for 0. Used by --json.
std::string format_time_rfc3339(time_t time);
/// Ratio of original to stored bytes, "4.2"; "-" when either is 0.
std::string format_ratio(uint64_t original_bytes, uint64_t stored_bytes);

/// Columns lined up by the widest cell, two blanks between them, no blanks at line ends. The first row is the
/// heading; columns named in `right_aligned` (by position) are aligned right. Lines of their own, which do
/// not count for the columns, stand before the row that they are given for, or behind the last row.
std::string format_table(const std::vector<std::vector<std::string>>& rows,
                         const std::vector<size_t>& right_aligned = {},
                         const std::multimap<size_t, std::string>& lines_before_row = {});
/// The text in lines of at most so many columns, broken at blanks, each with `indent` before it and a line
/// end. A word that is longer has a line of its own.
std::string format_wrapped(const std::string& text, const std::string& indent, size_t columns);
/// Number of terminal columns that UTF-8 text takes, counting one for each code point.
size_t display_width(const std::string& text);
} // namespace kestrel
