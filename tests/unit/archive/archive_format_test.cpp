#include "archive/archive_format.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

using namespace kestrel;

TEST(Archive_Member_Name, is_the_last_two_components)
{
  EXPECT_EQ("SERVER_DB/a.dump", archive_member_name("/var/cache/dump/id/SERVER_DB/a.dump"));
  EXPECT_EQ("a/b", archive_member_name("/a/b"));
  EXPECT_EQ("b", archive_member_name("/b"));
  EXPECT_EQ("b", archive_member_name("b"));
  EXPECT_EQ("a/b", archive_member_name("a/b"));
  EXPECT_EQ("", archive_member_name("/a/b/"));
  EXPECT_EQ("", archive_member_name("/"));
  EXPECT_EQ("", archive_member_name(""));
}

TEST(Archive_Member_Name, must_lie_in_the_directory_that_is_restored_into)
{
  std::string error;
  for (const char* good : {"a", "a/b", "..a/b", "a/.b", "...", "DB 1/x y.dump"})
    EXPECT_TRUE(is_archive_member_name(good, error)) << good << error;
  for (const char* bad :
       {"", ".", "..", "/a", "/", "a/", "a//b", "../a", "a/..", "./a", "a/.", "a/b/c", "/etc/passwd"}) {
    error.clear();
    EXPECT_FALSE(is_archive_member_name(bad, error)) << bad;
    EXPECT_NE(std::string::npos, error.find("would not lie in the directory")) << error;
  }
  EXPECT_FALSE(is_archive_member_name(std::string("a\0b", 3), error));
  EXPECT_FALSE(is_archive_member_name(std::string(256, 'a'), error));
  EXPECT_TRUE(is_archive_member_name(std::string(255, 'a') + "/" + std::string(255, 'b'), error));
  EXPECT_FALSE(is_archive_member_name(".kestrel/index.json", error));
  EXPECT_NE(std::string::npos, error.find("the archive's own")) << error;
}

TEST(Archive_Member_Name, is_shown_without_control_characters)
{
  EXPECT_EQ("a?b", shown_name("a\nb"));
  std::string error;
  EXPECT_FALSE(is_archive_member_name("../\033[31m", error));
  EXPECT_EQ(std::string::npos, error.find('\033')) << error;
}

namespace
{
Archive_Record example_record()
{
  Archive_Record record;
  record.uuid = "u";
  record.definition_uuid = "d";
  record.host_uuid = "h";
  record.minor_resource_id = "m";
  record.pool_uuid = "p";
  record.device_uuid = "v";
  record.seq = ~0ull;
  record.incremental = true;
  record.compression = "zstd";
  record.time = 1700000000;
  json_spirit::Object metadata;
  metadata.emplace_back("dbinstance", "DB1");
  record.metadata = metadata;
  record.files = {{"A/a.dump", "/x/A/a.dump", 5}, {"b", "/b", 9ull << 40}};
  return record;
}

Archive_Index example_index()
{
  Archive_Index index;
  index.record_size = 7;
  index.record_offset = 512;
  index.record_checksum = std::string(32, 'a');
  for (const Archive_Record::File& file : example_record().files) {
    Archive_Index::File entry;
    entry.member = {file.path, file.name, file.size, std::string(32, '0')};
    entry.mode = 0640;
    entry.header_offset = 1024;
    entry.data_offset = 1536;
    index.files.push_back(entry);
  }
  return index;
}

void replace(std::string& text, const std::string& from, const std::string& to)
{
  ASSERT_NE(std::string::npos, text.find(from)) << from;
  text.replace(text.find(from), from.size(), to);
}
} // namespace

TEST(Archive_Record_Text, comes_back_the_same)
{
  const Archive_Record record = example_record();
  Archive_Record read;
  std::string error;
  ASSERT_TRUE(parse_archive_record(archive_record_text(record), read, error)) << error;
  EXPECT_EQ(archive_record_text(record), archive_record_text(read));
  EXPECT_EQ(~0ull, read.seq);
  EXPECT_EQ("v", read.device_uuid);
  EXPECT_EQ(9ull << 40, read.files[1].size);
  EXPECT_EQ(record.metadata, read.metadata);
}

TEST(Archive_Record_Text, is_refused_when_anything_in_it_is_wrong)
{
  const struct {
    const char *from, *to, *says;
  } changes[] = {
      {"\"format\": 1", "\"format\": 2", "use a newer one"},
      {"\"seq\": 18446744073709551615", "\"seq\": -1", "seq"},
      {"\"uuid\": \"u\"", "\"uuid\": 1", "uuid"},
      {"\"name\": \"b\"", "\"name\": \"A/a.dump\"", "two files"},
      {"\"name\": \"b\"", "\"name\": \"../b\"", "would not lie"},
      {"\"size\": 5", "\"size\": -5", "size"},
      {"\"files\": [", "\"felis\": [", "files"},
      {"{", "[", "byte"},
  };
  for (const auto& change : changes) {
    std::string text = archive_record_text(example_record());
    replace(text, change.from, change.to);
    Archive_Record read;
    read.uuid = "untouched";
    std::string error;
    EXPECT_FALSE(parse_archive_record(text, read, error)) << text;
    EXPECT_NE(std::string::npos, error.find(change.says)) << error;
    EXPECT_EQ("untouched", read.uuid);
  }
}

TEST(Archive_Index_Text, comes_back_the_same_and_must_list_the_record)
{
  const Archive_Index index = example_index();
  Archive_Index read;
  std::string error;
  ASSERT_TRUE(parse_archive_index(archive_index_text(index), read, error)) << error;
  EXPECT_EQ(archive_index_text(index), archive_index_text(read));
  EXPECT_TRUE(index_agrees(read, example_record(), error));
  for (int change = 0; change < 4; ++change) {
    Archive_Index other = index;
    if (change == 0)
      other.files.pop_back();
    else if (change == 1)
      std::swap(other.files[0], other.files[1]);
    else if (change == 2)
      other.files[0].member.size = 4;
    else
      other.files[0].member.path = "/other";
    EXPECT_FALSE(index_agrees(other, example_record(), error)) << change;
  }
}

TEST(Archive_Index_Text, is_refused_when_anything_in_it_is_wrong)
{
  for (const auto& [from, to] : {std::pair<const char*, const char*>{"aaaa", "AAAA"},
                                 {"\"mode\": 416", "\"mode\": \"rw\""},
                                 {"\"name\": \"b\"", "\"name\": \"/b\""},
                                 {"\"header_offset\": 1024", "\"header_offset\": -1"}}) {
    std::string text = archive_index_text(example_index());
    replace(text, from, to);
    Archive_Index read;
    std::string error;
    EXPECT_FALSE(parse_archive_index(text, read, error)) << text;
  }
}

TEST(Archive_Tail_Text, has_its_fixed_length_whatever_it_says)
{
  Archive_Tail tail;
  tail.index_checksum = std::string(32, 'f');
  EXPECT_EQ(archive_tail_bytes, archive_tail_text(tail).size());
  tail.index_offset = tail.index_size = ~0ull;
  const std::string text = archive_tail_text(tail);
  EXPECT_EQ(archive_tail_bytes, text.size());
  Archive_Tail read;
  std::string error;
  ASSERT_TRUE(parse_archive_tail(text, read, error)) << error;
  EXPECT_EQ(~0ull, read.index_offset);
  EXPECT_FALSE(parse_archive_tail(std::string(512, '\0'), read, error));
}
