#include "lab/brcmd/page_delta.h"

#include "lab/brcmd/backup_parts.h"
#include "lab/brcmd/image.h"
#include "lab/common/text.h"

#include <cctype>
#include <cstring>
#include <fcntl.h>
#include <set>

namespace oscar_lab
{

namespace
{

constexpr std::uint32_t max_run_pages = max_piece_bytes / data_page_bytes;

std::string name_part(const std::string& path)
{
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

/// Files of tables that the log does not know, by root and path without the segment number: they have a
/// template beside them.
std::set<std::string> unlogged_files(const Data_Files& data)
{
  const std::string ending = "_init";
  std::set<std::string> names;
  for (const Data_File& entry : data.entries)
    if (ends_with(entry.path, ending))
      names.insert(note_key_of(data, entry).substr(0, note_key_of(data, entry).size() - ending.size()));
  return names;
}

std::string without_segment(const std::string& key)
{
  const auto dot = key.rfind('.');
  return dot == std::string::npos || key.find('/', dot) != std::string::npos ? key : key.substr(0, dot);
}

std::uint64_t page_lsn(const char* page)
{
  std::uint32_t high = 0, low = 0;
  std::memcpy(&high, page, sizeof high);
  std::memcpy(&low, page + sizeof high, sizeof low);
  return static_cast<std::uint64_t>(high) << 32 | low;
}

/// No log is that early: pages with such a position are empty, or were never meant to be compared.
bool is_real_lsn(std::uint64_t lsn, std::uint64_t segment_bytes)
{
  return lsn >= segment_bytes;
}

void scan_pages(const std::string& path, std::uint64_t bytes, std::uint64_t old_bytes, std::uint64_t base_lsn,
                std::uint64_t segment_bytes, File_Change& change)
{
  const Descriptor file = open_file(path, O_RDONLY);
  ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  std::string chunk(max_piece_bytes, '\0');
  for (std::uint64_t offset = 0; offset < bytes;) {
    const std::size_t count = read_full(file.get(), &chunk[0], chunk.size(), path);
    for (std::size_t place = 0; place + data_page_bytes <= count; place += data_page_bytes) {
      const std::uint64_t lsn = page_lsn(&chunk[place]);
      if (offset + place >= old_bytes || lsn > base_lsn || !is_real_lsn(lsn, segment_bytes))
        add_page(change.runs, static_cast<std::uint32_t>((offset + place) / data_page_bytes));
    }
    offset += count;
    if (count < chunk.size() && offset < bytes)
      throw Failure(path + " became shorter");
  }
  for (const Page_Run& run : change.runs)
    change.bytes += run.count * data_page_bytes;
}

} // namespace

bool is_relation_file(const std::string& path)
{
  const std::string name = name_part(path);
  if (name == path && !path.empty())
    return false; // such files lie in the directory of a database
  const auto dot = name.find('.');
  const auto digits = [](const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
  };
  const bool in_place =
      starts_with(path, "base/") || starts_with(path, "global/") || starts_with(path, "PG_");
  return in_place && digits(name.substr(0, dot)) &&
         (dot == std::string::npos || digits(name.substr(dot + 1)));
}

void add_page(std::vector<Page_Run>& runs, std::uint32_t page)
{
  if (!runs.empty() && runs.back().first + runs.back().count == page && runs.back().count < max_run_pages)
    ++runs.back().count;
  else
    runs.push_back({page, 1});
}

std::vector<File_Change> find_changes(const Data_Files& data, const Set_Notes& base,
                                      std::uint64_t segment_bytes)
{
  const std::set<std::string> unlogged = unlogged_files(data);
  std::vector<File_Change> changes(data.entries.size());
  for (std::size_t i = 0; i < data.entries.size(); ++i) {
    const Data_File& entry = data.entries[i];
    File_Change& change = changes[i];
    if (entry.is_directory) {
      change.kind = Change::none;
      continue;
    }
    const std::string key = note_key_of(data, entry);
    const auto before = base.files.find(key);
    change.bytes = entry.bytes;
    if (before == base.files.end())
      continue;
    if (before->second == entry.note) {
      change.kind = Change::none;
      change.bytes = 0;
    } else if (before->second.inode == entry.note.inode && is_relation_file(entry.path) &&
               entry.bytes % data_page_bytes == 0 && unlogged.count(without_segment(key)) == 0) {
      change.kind = Change::pages;
      change.bytes = 0;
      scan_pages(data.root_path(entry.root) + "/" + entry.path, entry.bytes, before->second.bytes, base.lsn,
                 segment_bytes, change);
    }
  }
  return changes;
}

} // namespace oscar_lab
