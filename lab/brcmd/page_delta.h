/// What changed in the files of a stopped server since a backup of it.
/// A file whose size, number and times are as noted is the same. Of a table's or index's file that was there
/// before, the pages with a position (LSN) after that backup have changed: the server, which logs every
/// change of a page while archive logging is off, sees to that. Everything else goes along whole. Threads:
/// none. Errors: Failure.
#pragma once

#include "lab/brcmd/data_files.h"
#include "lab/common/set_notes.h"

#include <cstdint>
#include <string>
#include <vector>

namespace oscar_lab
{

constexpr std::uint64_t data_page_bytes = 8192;

struct Page_Run {
  std::uint32_t first = 0;
  std::uint32_t count = 0; // at most what fits one frame
};

enum class Change { none, pages, whole };

struct File_Change {
  Change kind = Change::whole;
  std::vector<Page_Run> runs;
  std::uint64_t bytes = 0; // to be sent
};

/// One for each of the entries; directories are "none".
std::vector<File_Change> find_changes(const Data_Files& data, const Set_Notes& base,
                                      std::uint64_t segment_bytes);

/// "base/5/1259", "16385.2": the pages of a table or an index, not one of its maps.
bool is_relation_file(const std::string& path);

/// Adds a page to the runs.
void add_page(std::vector<Page_Run>& runs, std::uint32_t page);

} // namespace oscar_lab
