#include "lab/brcmd/log_segments.h"
#include "lab/brcmd/page_delta.h"
#include "lab/common/text.h"
#include "support/temp_dir.h"

#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>

using namespace oscar_lab;
using kestrel_test::Temp_Dir;

namespace
{

constexpr std::uint64_t segment_bytes = 16 * 1024 * 1024;

/// A page of log that says where it belongs.
std::string log_page(std::uint64_t lsn, std::uint32_t timeline)
{
  std::string page(log_page_bytes, 'r');
  std::memcpy(&page[4], &timeline, sizeof timeline);
  std::memcpy(&page[8], &lsn, sizeof lsn);
  return page;
}

std::string data_page(std::uint64_t lsn)
{
  std::string page(data_page_bytes, 'd');
  const std::uint32_t high = static_cast<std::uint32_t>(lsn >> 32);
  const std::uint32_t low = static_cast<std::uint32_t>(lsn);
  std::memcpy(&page[0], &high, sizeof high);
  std::memcpy(&page[4], &low, sizeof low);
  return page;
}

Set_Notes notes_of(const Data_Files& data, std::uint64_t lsn)
{
  Set_Notes notes;
  notes.lsn = lsn;
  for (const Data_File& entry : data.entries)
    if (!entry.is_directory)
      notes.files[note_key("", entry.path)] = entry.note;
  return notes;
}

const File_Change& change_of(const Data_Files& data, const std::vector<File_Change>& changes,
                             const std::string& path)
{
  for (std::size_t i = 0; i < data.entries.size(); ++i)
    if (data.entries[i].path == path)
      return changes[i];
  throw Failure("no entry " + path);
}

} // namespace

TEST(Log_Segment, has_a_name_with_timeline_and_number)
{
  const Log_Shape shape{1, segment_bytes};
  EXPECT_EQ(segment_name(shape, 1), "000000010000000000000001");
  EXPECT_EQ(segment_name(shape, 0x1ff), "0000000100000001000000FF");
  for (const std::uint64_t segment : {0U, 1U, 255U, 256U, 70000U})
    EXPECT_EQ(segment_of_name(shape, segment_name(shape, segment)), segment);
  for (const char* const name :
       {"", "00000001000000000000000", "000000020000000000000001", "00000001000000000000000g",
        "0000000100000000000001FF", "../../../../../../../../x"})
    EXPECT_THROW(segment_of_name(shape, name), Failure) << name;
}

TEST(Log_Page, must_say_where_it_belongs)
{
  const Log_Shape shape{1, segment_bytes};
  const std::uint64_t lsn = 3 * segment_bytes + 2 * log_page_bytes;
  const std::string good = log_page(lsn, 1) + log_page(lsn + log_page_bytes, 1);
  EXPECT_NO_THROW(check_log_pages(shape, lsn, good));
  EXPECT_NO_THROW(check_log_pages(shape, lsn + 100, good.substr(100)));
  EXPECT_NO_THROW(check_log_pages(shape, lsn + 100, good.substr(100, 50)));
  EXPECT_THROW(check_log_pages(shape, lsn + log_page_bytes, good), Failure);
  EXPECT_THROW(check_log_pages(shape, lsn, log_page(lsn, 2)), Failure);
}

TEST(Log_Page, may_be_empty_behind_a_switch_only)
{
  const Log_Shape shape{1, segment_bytes};
  const std::uint64_t begin = 3 * segment_bytes;
  const std::string empty(log_page_bytes, '\0');
  EXPECT_NO_THROW(check_log_pages(shape, begin, log_page(begin, 1) + empty));
  EXPECT_THROW(check_log_pages(shape, begin, empty), Failure) << "a segment that was never written";
  std::string half = empty;
  half[5000] = 'x';
  EXPECT_THROW(check_log_pages(shape, begin, log_page(begin, 1) + half), Failure);
}

TEST(Relation_File, is_told_from_maps_and_other_files)
{
  for (const char* const path : {"base/5/1259", "global/1262", "base/5/16385.1", "PG_15_202209061/5/16400"})
    EXPECT_TRUE(is_relation_file(path)) << path;
  for (const char* const path : {"base/5/1259_fsm", "base/5/1259_vm", "base/5/1259_init", "pg_xact/0000",
                                 "PG_VERSION", "base/5/pg_filenode.map", "base/5/16385.x", "", "1259"})
    EXPECT_FALSE(is_relation_file(path)) << path;
}

TEST(Page_Run, grows_up_to_what_fits_one_frame)
{
  std::vector<Page_Run> runs;
  for (std::uint32_t page = 0; page < 40; ++page)
    add_page(runs, page);
  add_page(runs, 50);
  ASSERT_EQ(runs.size(), 3U);
  EXPECT_EQ(runs[0].count, 32U);
  EXPECT_EQ(runs[1].first, 32U);
  EXPECT_EQ(runs[1].count, 8U);
  EXPECT_EQ(runs[2].first, 50U);
}

TEST(Changes_Of_Files, are_pages_with_a_later_position)
{
  const Temp_Dir dir;
  const std::uint64_t base = 10 * segment_bytes;
  dir.write("base/5/100", data_page(base - 5) + data_page(base - 5) + data_page(base - 5));
  dir.write("base/5/101", data_page(base - 5));
  dir.write("base/5/102", data_page(base - 5));
  dir.write("base/5/102_init", "");
  dir.write("base/5/103_vm", data_page(base - 5));
  dir.write("pg_xact/0000", "old");
  const Set_Notes notes = notes_of(list_data_files(dir.path()), base);

  // Written in place, as a server does.
  const auto overwrite = [&dir](const char* path, const std::string& content) {
    const Descriptor file = open_file(dir / path, O_WRONLY | O_TRUNC);
    write_all(file.get(), content.data(), content.size(), path);
  };
  overwrite("base/5/100", data_page(base - 5) + data_page(base + 1) + data_page(0) + data_page(base - 7));
  overwrite("base/5/102", data_page(base - 5) + data_page(base - 5));
  overwrite("base/5/103_vm", data_page(base - 5) + data_page(base - 5));
  overwrite("pg_xact/0000", "later");
  dir.write("base/5/104", data_page(base + 9));
  const Data_Files data = list_data_files(dir.path());
  const std::vector<File_Change> changes = find_changes(data, notes, segment_bytes);

  const File_Change& pages = change_of(data, changes, "base/5/100");
  EXPECT_EQ(pages.kind, Change::pages);
  ASSERT_EQ(pages.runs.size(), 1U) << "a later one, one without a position, and one behind the old end";
  EXPECT_EQ(pages.runs[0].first, 1U);
  EXPECT_EQ(pages.runs[0].count, 3U);
  EXPECT_EQ(pages.bytes, 3 * data_page_bytes);
  EXPECT_EQ(change_of(data, changes, "base/5/101").kind, Change::none);
  EXPECT_EQ(change_of(data, changes, "base/5/102").kind, Change::whole) << "an unlogged table";
  EXPECT_EQ(change_of(data, changes, "base/5/103_vm").kind, Change::whole);
  EXPECT_EQ(change_of(data, changes, "base/5/104").kind, Change::whole);
  EXPECT_EQ(change_of(data, changes, "pg_xact/0000").kind, Change::whole);
}

TEST(Changes_Of_Files, are_whole_files_when_another_file_took_the_place)
{
  const Temp_Dir dir;
  const std::uint64_t base = 10 * segment_bytes;
  dir.write("base/5/100", data_page(base - 5));
  Set_Notes notes = notes_of(list_data_files(dir.path()), base);
  notes.files[":base/5/100"].inode += 1;
  const Data_Files data = list_data_files(dir.path());
  EXPECT_EQ(change_of(data, find_changes(data, notes, segment_bytes), "base/5/100").kind, Change::whole);
}
