#include "archive/archive_reader.h"
#include "archive/archive_writer.h"
#include "tar_builder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

using namespace kestrel;
using kestrel_test::Tar_Builder;

namespace
{
struct Content {
  std::string name, data;
};

Archive_Record record_of(const std::vector<Content>& files)
{
  Archive_Record record;
  record.uuid = "u";
  record.minor_resource_id = "m";
  record.seq = 1;
  record.metadata = json_spirit::Object();
  for (const Content& file : files)
    record.files.push_back({file.name, "/dump/" + file.name, file.data.size()});
  return record;
}

std::string write_archive(const std::vector<Content>& files)
{
  std::string tar;
  Archive_Writer writer([&](const char* data, unsigned n) {
    tar.append(data, n);
    return true;
  });
  EXPECT_TRUE(writer.begin(record_of(files))) << writer.error();
  for (const Content& file : files) {
    EXPECT_TRUE(writer.begin_file(0640, 1700000000));
    // In two pieces, so that a file is more than one write.
    const size_t half = file.data.size() / 2;
    EXPECT_TRUE(writer.data(file.data.data(), static_cast<unsigned>(half)));
    EXPECT_TRUE(writer.data(file.data.data() + half, static_cast<unsigned>(file.data.size() - half)));
    EXPECT_TRUE(writer.end_file()) << writer.error();
  }
  EXPECT_TRUE(writer.finish()) << writer.error();
  EXPECT_EQ(tar.size(), writer.size());
  EXPECT_EQ(xxh3_128_hex(tar.data(), tar.size()), writer.checksum());
  return tar;
}

/// Gives a text in portions.
Archive_Reader::Input input_of(const std::string& tar, size_t portion = 100000)
{
  auto offset = std::make_shared<size_t>(0);
  return [&tar, offset, portion](char* data, unsigned n) {
    const size_t count = std::min({portion, static_cast<size_t>(n), tar.size() - *offset});
    std::memcpy(data, tar.data() + *offset, count);
    *offset += count;
    return static_cast<int>(count);
  };
}

/// Reads everything; the error, or "" with the files.
std::string read_archive(const std::string& tar, std::vector<Content>& files, size_t portion = 100000)
{
  Archive_Reader reader(input_of(tar, portion));
  if (!reader.open())
    return reader.error();
  for (;;) {
    const Archive_Reader::Step step = reader.next();
    if (step == Archive_Reader::Step::failed)
      return reader.error();
    if (step == Archive_Reader::Step::end)
      return std::string();
    files.push_back({reader.file().name, std::string()});
    const char* data = nullptr;
    int count;
    while ((count = reader.read(data)) > 0)
      files.back().data.append(data, static_cast<size_t>(count));
    if (count < 0)
      return reader.error();
  }
}

std::string read_index(const std::string& tar, Archive_Record& record, Archive_Index& index)
{
  std::string error;
  const auto read_at = [&](uint64_t offset, char* data, unsigned n) {
    if (offset >= tar.size())
      return 0;
    const size_t count = std::min<size_t>(n, tar.size() - static_cast<size_t>(offset));
    std::memcpy(data, tar.data() + offset, count);
    return static_cast<int>(count);
  };
  const bool read = read_archive_index(tar.size(), read_at, record, index, error);
  EXPECT_EQ(read, error.empty());
  return error;
}

const std::vector<Content> example = {
    {"S_DB/a.dump", std::string(3000, 'a')},
    {"S_DB/empty.dump", ""},
    {"b", "bee"},
    {"S_\xe6\x95\xb0\xe6\x8d\xae/" + std::string(200, 'x'), std::string(512, 'c')}};
} // namespace

TEST(Archive_Stream, comes_back_as_it_was_written)
{
  const std::string tar = write_archive(example);
  for (const size_t portion : {size_t(1000000), size_t(512), size_t(7)}) {
    std::vector<Content> files;
    ASSERT_EQ("", read_archive(tar, files, portion));
    ASSERT_EQ(example.size(), files.size());
    for (size_t i = 0; i < files.size(); ++i) {
      EXPECT_EQ(example[i].name, files[i].name);
      EXPECT_EQ(example[i].data, files[i].data);
    }
  }
}

TEST(Archive_Stream, without_files_is_an_archive_too)
{
  std::vector<Content> files;
  EXPECT_EQ("", read_archive(write_archive({}), files));
  EXPECT_TRUE(files.empty());
}

TEST(Archive_Stream, has_its_index_where_the_end_says)
{
  const std::string tar = write_archive(example);
  Archive_Record record;
  Archive_Index index;
  ASSERT_EQ("", read_index(tar, record, index));
  ASSERT_EQ(example.size(), index.files.size());
  EXPECT_EQ("u", record.uuid);
  for (size_t i = 0; i < example.size(); ++i)
    EXPECT_EQ(example[i].data, tar.substr(index.files[i].data_offset, index.files[i].member.size));
}

TEST(Archive_Stream, cut_anywhere_is_refused)
{
  const std::string tar = write_archive(example);
  for (size_t length = 0; length < tar.size(); length += length % 512 == 511 ? 1 : 73) {
    std::vector<Content> files;
    EXPECT_NE("", read_archive(tar.substr(0, length), files)) << length;
    Archive_Record record;
    Archive_Index index;
    EXPECT_NE("", read_index(tar.substr(0, length), record, index)) << length;
  }
}

// A flipped bit may go unnoticed only where no meaning is: in what pads an entry and in header fields such as
// the owner, which have no effect on what is restored.
TEST(Archive_Stream, with_a_flipped_bit_gives_the_same_files_or_an_error)
{
  const std::string tar = write_archive(example);
  unsigned refused = 0;
  for (size_t i = 0; i < tar.size(); i += 3) {
    std::string flipped = tar;
    flipped[i] = static_cast<char>(flipped[i] ^ (1 << i % 8));
    std::vector<Content> files;
    if (!read_archive(flipped, files).empty()) {
      ++refused;
      continue;
    }
    ASSERT_EQ(example.size(), files.size());
    for (size_t file = 0; file < files.size(); ++file) {
      ASSERT_EQ(example[file].name, files[file].name) << i;
      ASSERT_EQ(example[file].data, files[file].data) << i;
    }
  }
  EXPECT_GT(refused, tar.size() / 3 / 3);
}

TEST(Archive_Stream, followed_by_anything_is_refused)
{
  const std::string tar = write_archive(example);
  std::vector<Content> files;
  EXPECT_NE("", read_archive(tar + std::string(512, '\0'), files));
  EXPECT_NE("", read_archive(tar + "x", files));
  EXPECT_NE("", read_archive(tar + tar, files));
}

namespace
{
/// An archive around one entry that is not what the record announces.
std::string hostile(const std::string& name, char type, const std::string& link, const std::string& announced)
{
  const Archive_Record record = record_of({{announced, "data"}});
  const std::string text = archive_record_text(record);
  Tar_Builder tar;
  Archive_Index index;
  index.record_offset = tar.add(archive_record_name, text);
  index.record_size = text.size();
  index.record_checksum = xxh3_128_hex(text.data(), text.size());
  Archive_Index::File file;
  file.member = {record.files[0].path, announced, 4, xxh3_128_hex("data", 4)};
  file.header_offset = tar.size();
  file.data_offset = tar.add(name, type == Tar_Builder::file ? "data" : "", type, link);
  index.files.push_back(file);
  Archive_Tail tail;
  const std::string index_text = archive_index_text(index);
  tail.index_offset = tar.add(archive_index_name, index_text);
  tail.index_size = index_text.size();
  tail.index_checksum = xxh3_128_hex(index_text.data(), index_text.size());
  tar.add(archive_tail_name, archive_tail_text(tail));
  tar.end();
  return tar.tar();
}

std::string refusal(const std::string& tar)
{
  std::vector<Content> files;
  const std::string error = read_archive(tar, files);
  EXPECT_TRUE(files.empty());
  return error;
}
} // namespace

TEST(Hostile_Archive, made_by_hand_but_sound_is_read)
{
  std::vector<Content> files;
  EXPECT_EQ("", read_archive(hostile("a/b", Tar_Builder::file, "", "a/b"), files));
  ASSERT_EQ(1u, files.size());
  EXPECT_EQ("data", files[0].data);
}

TEST(Hostile_Archive, with_a_name_that_leads_elsewhere_is_refused)
{
  for (const char* name : {"../b", "/etc/cron.d/b", "a/../../b", "..", "a/b/c"}) {
    const std::string error = refusal(hostile(name, Tar_Builder::file, "", "a/b"));
    EXPECT_NE(std::string::npos, error.find("would not lie in the directory")) << error;
    // The record is checked by the same rule.
    EXPECT_NE(std::string::npos, refusal(hostile(name, Tar_Builder::file, "", name)).find("would not lie"));
  }
  EXPECT_NE(std::string::npos,
            refusal(hostile(archive_index_name, Tar_Builder::file, "", "a/b")).find("the archive's own"));
  EXPECT_NE(std::string::npos, refusal(hostile("a/c", Tar_Builder::file, "", "a/b")).find("instead of"));
}

TEST(Hostile_Archive, with_anything_but_plain_files_is_refused)
{
  for (const char type : {'1', '2', '3', '4', '5', '6'}) {
    const bool link = type == Tar_Builder::hard_link || type == Tar_Builder::symbolic_link;
    const std::string error = refusal(hostile("a/b", type, link ? "/etc/passwd" : "", "a/b"));
    EXPECT_NE(std::string::npos, error.find("is a link, a device, a directory")) << type << error;
  }
}

TEST(Hostile_Archive, without_our_record_first_is_refused)
{
  Tar_Builder tar;
  tar.add("a/b", "data");
  tar.end();
  EXPECT_NE(std::string::npos, refusal(tar.tar()).find("metadata.json is missing; instead there is \"a/b\""));
  EXPECT_NE("", refusal(std::string(10240, '\0')));
  EXPECT_NE("", refusal(""));
  EXPECT_NE("", refusal("not a tar file at all"));
}

TEST(Hostile_Archive, with_a_huge_record_is_refused_before_it_is_read)
{
  Tar_Builder tar;
  tar.add_header(archive_record_name, 8589934591, Tar_Builder::file, "");
  tar.add_bytes(std::string(100000, ' '));
  EXPECT_NE(std::string::npos, refusal(tar.tar()).find("is too long"));
}

TEST(Archive_Index_Reader, refuses_offsets_that_lead_out_of_the_archive)
{
  for (const uint64_t offset : {uint64_t(1) << 40, ~uint64_t(0), ~uint64_t(0) - 3}) {
    Archive_Record record = record_of({{"a/b", "data"}});
    const std::string text = archive_record_text(record);
    Tar_Builder tar;
    Archive_Index index;
    index.record_offset = tar.add(archive_record_name, text);
    index.record_size = text.size();
    index.record_checksum = xxh3_128_hex(text.data(), text.size());
    Archive_Index::File file;
    file.member = {record.files[0].path, "a/b", 4, xxh3_128_hex("data", 4)};
    file.data_offset = offset;
    tar.add("a/b", "data");
    index.files.push_back(file);
    const std::string index_text = archive_index_text(index);
    Archive_Tail tail;
    tail.index_offset = tar.add(archive_index_name, index_text);
    tail.index_size = index_text.size();
    tail.index_checksum = xxh3_128_hex(index_text.data(), index_text.size());
    tar.add(archive_tail_name, archive_tail_text(tail));
    tar.end();
    EXPECT_NE(std::string::npos, read_index(tar.tar(), record, index).find("lies outside"));
  }
}

TEST(Archive_Writer_Test, wants_exactly_the_bytes_that_were_announced)
{
  const auto sink = [](const char*, unsigned) { return true; };
  {
    Archive_Writer writer(sink);
    ASSERT_TRUE(writer.begin(record_of({{"a/b", "data"}})) && writer.begin_file(0640, 0));
    EXPECT_FALSE(writer.data("data+", 5));
    EXPECT_NE(std::string::npos, writer.error().find("longer"));
    EXPECT_FALSE(writer.end_file());
  }
  {
    Archive_Writer writer(sink);
    ASSERT_TRUE(writer.begin(record_of({{"a/b", "data"}})) && writer.begin_file(0640, 0));
    ASSERT_TRUE(writer.data("dat", 3));
    EXPECT_FALSE(writer.end_file());
    EXPECT_NE(std::string::npos, writer.error().find("shorter"));
    EXPECT_FALSE(writer.finish());
  }
  {
    Archive_Writer writer(sink);
    ASSERT_TRUE(writer.begin(record_of({{"a/b", "data"}})));
    EXPECT_FALSE(writer.finish());
  }
}

TEST(Archive_Writer_Test, leaves_the_reason_of_a_failing_output_to_the_output)
{
  const std::string whole = write_archive(example);
  size_t most = 0;
  for (bool failed = true; failed; most += 700) {
    size_t taken = 0;
    Archive_Writer writer([&](const char*, unsigned n) { return (taken += n) <= most; });
    bool done = writer.begin(record_of(example));
    for (const Content& file : example)
      done = done && writer.begin_file(0640, 0) &&
             writer.data(file.data.data(), static_cast<unsigned>(file.data.size())) && writer.end_file();
    failed = !(done && writer.finish());
    EXPECT_EQ("", writer.error());
  }
  EXPECT_GE(most, whole.size());
}

// Nothing is written or read but the headers: the bytes of the file exist in nobody's memory.
TEST(Archive_Of_A_Large_File, is_found_and_skipped_beyond_eight_gibibytes)
{
  const uint64_t large = (20ull << 30) + 5;
  Archive_Record record = record_of({{"a/large.dump", ""}, {"b", "bee"}});
  record.files[0].size = large;
  std::string head;
  Archive_Writer writer([&](const char* data, unsigned n) {
    head.append(data, n);
    return true;
  });
  ASSERT_TRUE(writer.begin(record) && writer.begin_file(0640, 0));
  EXPECT_NE(std::string::npos, head.find(" size=" + std::to_string(large) + "\n"))
      << "a pax header has the size";

  Archive_Index index = writer.index();
  const uint64_t hole = (large + 511) / 512 * 512;
  Tar_Builder rest;
  index.files[0].member.checksum = std::string(32, '0');
  Archive_Index::File second;
  second.member = {record.files[1].path, "b", 3, xxh3_128_hex("bee", 3)};
  second.header_offset = head.size() + hole;
  second.data_offset = head.size() + hole + rest.add("b", "bee");
  index.files.push_back(second);
  const std::string index_text = archive_index_text(index);
  Archive_Tail tail;
  tail.index_offset = head.size() + hole + rest.add(archive_index_name, index_text);
  tail.index_size = index_text.size();
  tail.index_checksum = xxh3_128_hex(index_text.data(), index_text.size());
  rest.add(archive_tail_name, archive_tail_text(tail));
  rest.end();

  const uint64_t size = head.size() + hole + rest.size();
  const auto read_at = [&](uint64_t offset, char* data, unsigned n) {
    n = static_cast<unsigned>(std::min<uint64_t>(n, size - offset));
    const uint64_t rest_begin = head.size() + hole;
    if (offset < head.size())
      n = static_cast<unsigned>(std::min<uint64_t>(n, head.size() - offset));
    else if (offset < rest_begin)
      n = static_cast<unsigned>(std::min<uint64_t>(n, rest_begin - offset));
    if (offset < head.size())
      std::memcpy(data, head.data() + offset, n);
    else if (offset >= rest_begin)
      std::memcpy(data, rest.tar().data() + (offset - rest_begin), n);
    return static_cast<int>(n);
  };
  uint64_t offset = 0;
  Archive_Reader reader([&](char* data, unsigned n) {
    const int count = read_at(offset, data, n);
    offset += static_cast<unsigned>(count);
    return count;
  });
  ASSERT_TRUE(reader.open()) << reader.error();
  ASSERT_EQ(Archive_Reader::Step::file, reader.next()) << reader.error();
  EXPECT_EQ(large, reader.file().size);
  ASSERT_EQ(Archive_Reader::Step::file, reader.next()) << reader.error();
  const char* data = nullptr;
  ASSERT_EQ(3, reader.read(data));
  EXPECT_EQ("bee", std::string(data, 3));
  ASSERT_EQ(0, reader.read(data));
  EXPECT_EQ(Archive_Reader::Step::end, reader.next()) << reader.error();
  EXPECT_EQ(size, reader.bytes_taken());

  Archive_Record found_record;
  Archive_Index found;
  std::string error;
  ASSERT_TRUE(read_archive_index(size, read_at, found_record, found, error)) << error;
  EXPECT_GT(found.files[1].data_offset, 20ull << 30);
}
