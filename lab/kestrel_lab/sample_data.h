/// The tables that load fills and change works on. A row depends on the seed, its table and its number only.
/// Threads: no shared state. Errors: Failure.
#pragma once

#include "lab/common/database.h"
#include "lab/kestrel_lab/copy_stream.h"

#include <cstdint>

namespace oscar_lab
{

constexpr const char* sample_tablespace = "labspace";

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

struct Sample_Table {
  const char* name;
  const char* create; // columns
  const char* indexes;
  bool in_tablespace;
  unsigned share_percent; // of the wanted megabytes
  unsigned bytes_per_row; // measured, with the indexes' part
  void (*make_row)(Copy_Stream&, Row_Random&, std::int64_t);
  unsigned change_percent; // of the bytes that change
  const char* change;      // assignments that change a row; $1 stands for a short text
};

constexpr unsigned sample_table_count = 4;
const Sample_Table& sample_table(unsigned index);

/// Appends rows, numbered from first on.
void append_rows(Connection& connection, unsigned table, std::int64_t first, std::uint64_t rows,
                 std::uint64_t seed);

} // namespace oscar_lab
