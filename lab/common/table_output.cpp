#include "lab/common/table_output.h"

#include <algorithm>

namespace oscar_lab
{

namespace
{

std::size_t display_width(const std::string& text)
{
  return static_cast<std::size_t>(std::count_if(
      text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xc0) != 0x80; }));
}

/// A cell is one line: readers take the output line by line.
std::string one_line(std::string cell)
{
  std::replace_if(
      cell.begin(), cell.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
  return cell;
}

bool is_number(Oid type)
{
  switch (type) {
  case 20:
  case 21:
  case 23:
  case 26: // int8, int2, int4, oid
  case 700:
  case 701:
  case 1700: // float4, float8, numeric
    return true;
  default:
    return false;
  }
}

std::string pad(const std::string& cell, std::size_t width, bool right, bool last)
{
  const std::size_t used = display_width(cell);
  const std::string blanks(width > used ? width - used : 0, ' ');
  if (right)
    return blanks + cell;
  return last ? cell : cell + blanks;
}

} // namespace

std::string format_result(const Result& result)
{
  const int columns = result.columns();
  if (PQresultStatus(result.get()) != PGRES_TUPLES_OK)
    return std::string(PQcmdStatus(result.get())) + "\n";

  std::vector<std::size_t> widths;
  for (int c = 0; c < columns; ++c) {
    std::size_t width = std::max<std::size_t>(1, display_width(PQfname(result.get(), c)));
    for (int r = 0; r < result.rows(); ++r)
      width = std::max(width, display_width(one_line(result.text(r, c))));
    widths.push_back(width);
  }

  std::string titles, rule;
  for (int c = 0; c < columns; ++c) {
    const bool last = c + 1 == columns;
    titles += " " + pad(PQfname(result.get(), c), widths[c], false, last) + (last ? "" : " |");
    rule += std::string(widths[c] + 2, '-') + (last ? "" : "+");
  }
  std::string text = (columns == 0 ? "--\n--" : titles + "\n" + rule) + "\n";
  for (int r = 0; r < result.rows(); ++r) {
    for (int c = 0; c < columns; ++c) {
      const bool last = c + 1 == columns;
      text += " " + pad(one_line(result.text(r, c)), widths[c], is_number(PQftype(result.get(), c)), last);
      text += last ? "" : " |";
    }
    text += columns == 0 ? " \n" : "\n";
  }
  return text + "(" + std::to_string(result.rows()) + (result.rows() == 1 ? " row)\n" : " rows)\n");
}

} // namespace oscar_lab
