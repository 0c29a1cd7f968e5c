#include "oscar/backup_job_source_parser.h"

#include "parse_document.h"
#include "support/log_capture.h"

using kestrel_test::generated;
using kestrel_test::Log_Capture;
using kestrel_test::parse;

namespace
{
const char lack_of_id[] = "Failed to parse job definition source, lack of 'id'.\n";
const char lack_of_entries[] = "Failed to parse job definition source, lack of 'entries'.\n";

/// A parser with the document it fills.
struct Parsed : oscar::Backup_Job_Source_Parser {
  explicit Parsed(const std::string& text) : code(parse(*this, text)) {}
  const oscar::Backup_Job_Source& source() { return *document(); }
  int code;
};

typedef std::vector<std::string> Strings;
} // namespace

TEST(Backup_Job_Source, keeps_id_name_and_entries_in_document_order)
{
  Parsed parsed(R"({"id":"i","name":"n","entries":["oscar/S/D","oscar/A","oscar/S/D"]})");
  EXPECT_EQ(parsed.code, 0);
  EXPECT_EQ(parsed.source().id(), "i");
  EXPECT_EQ(parsed.source().name(), "n");
  EXPECT_EQ(parsed.source().entries(), (Strings{"oscar/S/D", "oscar/A", "oscar/S/D"}));
  EXPECT_EQ(generated(parsed), R"({"id":"i","name":"n","entries":["oscar/S/D","oscar/A","oscar/S/D"]})");
}

TEST(Backup_Job_Source, name_is_optional)
{
  Parsed parsed(R"({"entries":["oscar/S"],"id":"i"})");
  EXPECT_EQ(parsed.code, 0);
  EXPECT_EQ(generated(parsed), R"({"id":"i","entries":["oscar/S"]})");
}

TEST(Backup_Job_Source, reports_a_missing_id)
{
  Log_Capture log;
  EXPECT_EQ(Parsed(R"({"entries":["oscar/S"]})").code, 7);
  EXPECT_TRUE(log.expect_exactly(LM_ERROR, lack_of_id));
}

TEST(Backup_Job_Source, reports_missing_entries)
{
  Log_Capture log;
  EXPECT_EQ(Parsed(R"({"id":"i","name":"n"})").code, 7);
  EXPECT_TRUE(log.expect_exactly(LM_ERROR, lack_of_entries));
}

TEST(Backup_Job_Source, reports_each_missing_key_on_its_own_line_the_id_first)
{
  Log_Capture log;
  EXPECT_EQ(Parsed("{}").code, 7);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].text, lack_of_id);
  EXPECT_EQ(lines[1].text, lack_of_entries);
  EXPECT_TRUE(log.expect_exactly(LM_ERROR, lack_of_id));
  EXPECT_TRUE(log.expect_exactly(LM_ERROR, lack_of_entries));
}

TEST(Backup_Job_Source, an_empty_list_counts_as_given_and_is_not_written)
{
  Parsed parsed(R"({"id":"i","entries":[]})");
  EXPECT_EQ(parsed.code, 0);
  EXPECT_EQ(generated(parsed), R"({"id":"i"})");
}

TEST(Backup_Job_Source, entries_as_a_text_are_refused)
{
  EXPECT_EQ(Parsed(R"({"id":"i","entries":"x"})").code, 9);
}

TEST(Backup_Job_Source, an_empty_id_counts_as_given)
{
  EXPECT_EQ(Parsed(R"({"id":"","entries":[]})").code, 0);
}

TEST(Backup_Job_Source, an_unknown_key_before_any_known_one_is_ignored)
{
  Parsed parsed(R"({"x":"b","y":["c"],"z":{"id":"d"},"id":"a","entries":[]})");
  EXPECT_EQ(parsed.code, 0);
  EXPECT_EQ(parsed.source().id(), "a");
  EXPECT_TRUE(parsed.source().entries().empty());
}

TEST(Backup_Job_Source, a_value_of_an_unknown_key_belongs_to_the_known_key_before_it)
{
  Parsed parsed(R"({"id":"a","x":"b","entries":[]})");
  EXPECT_EQ(parsed.code, 0);
  EXPECT_EQ(parsed.source().id(), "b");
}

TEST(Backup_Job_Source, an_array_of_an_unknown_key_behind_entries_is_appended)
{
  Parsed parsed(R"({"id":"a","entries":["e"],"x":["b"]})");
  EXPECT_EQ(parsed.code, 0);
  EXPECT_EQ(parsed.source().entries(), (Strings{"e", "b"}));
}

TEST(Backup_Job_Source, a_text_of_an_unknown_key_behind_entries_is_refused)
{
  EXPECT_EQ(Parsed(R"({"id":"a","entries":[],"comment":"x"})").code, 9);
}

TEST(Backup_Job_Source, an_array_of_another_key_is_ignored)
{
  Log_Capture log;
  Parsed parsed(R"({"id":["b"],"name":"n","entries":["e"]})");
  EXPECT_EQ(parsed.code, 7);
  EXPECT_TRUE(log.expect_exactly(LM_ERROR, lack_of_id));
  EXPECT_EQ(parsed.source().entries(), (Strings{"e"}));
}

TEST(Backup_Job_Source, keys_and_texts_inside_an_inner_object_are_ignored)
{
  Parsed parsed(R"({"x":{"entries":"e","id":"f"},"id":"a","entries":[]})");
  EXPECT_EQ(parsed.code, 0);
  EXPECT_EQ(parsed.source().id(), "a");
}

TEST(Backup_Job_Source, texts_deeper_than_the_second_level_are_refused)
{
  EXPECT_EQ(Parsed(R"({"id":"a","entries":[["e"]]})").code, 9);
  EXPECT_EQ(Parsed(R"({"id":"a","entries":[{"x":"e"}]})").code, 9);
  EXPECT_EQ(Parsed(R"({"x":{"y":["e"]},"id":"a","entries":[]})").code, 9);
}

TEST(Backup_Job_Source, numbers_booleans_and_nulls_are_ignored)
{
  Parsed parsed(R"({"id":"a","name":5,"entries":[1,null,true,"e",{},[]]})");
  EXPECT_EQ(parsed.code, 0);
  EXPECT_EQ(parsed.source().name(), "");
  EXPECT_EQ(parsed.source().entries(), (Strings{"e"}));
}

TEST(Backup_Job_Source, a_repeated_key_takes_the_last_value)
{
  Parsed parsed(R"({"id":"a","id":"b","entries":["1"],"entries":["2"]})");
  EXPECT_EQ(parsed.source().id(), "b");
  EXPECT_EQ(parsed.source().entries(), (Strings{"1", "2"}));
}

TEST(Backup_Job_Source, keys_are_compared_by_length_and_bytes)
{
  Log_Capture log;
  EXPECT_EQ(Parsed(R"({"ID":"a","id ":"a","i":"a","entries":[]})").code, 7);
  EXPECT_TRUE(log.expect_exactly(LM_ERROR, lack_of_id));
}

TEST(Backup_Job_Source, a_top_level_that_is_no_object_is_tracked_without_reading_past_the_stack)
{
  EXPECT_EQ(Parsed(R"(["a",["b"]])").code, 0);
  EXPECT_EQ(Parsed(R"("a")").code, 9);
}

TEST(Backup_Job_Source, ends_and_keys_without_an_open_container_are_refused)
{
  oscar::Backup_Job_Source_Parser map_end;
  EXPECT_FALSE(map_end.handle_end_map_i());
  EXPECT_EQ(map_end.error(), 3);
  oscar::Backup_Job_Source_Parser array_end;
  EXPECT_FALSE(array_end.handle_end_array_i());
  EXPECT_EQ(array_end.error(), 3);
  oscar::Backup_Job_Source_Parser key;
  EXPECT_FALSE(key.handle_map_key_i("id", 2));
  EXPECT_EQ(key.error(), 3);
}

TEST(Backup_Job_Source, texts_outside_ascii_come_back_as_they_were)
{
  const std::string text = "{\"id\":\"\xE8\xA1\xA8\",\"entries\":[\"oscar/\xC3\x84/x y\"]}";
  Parsed parsed(text);
  EXPECT_EQ(generated(parsed), text);
}
