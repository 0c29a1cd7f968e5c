#include "oscar/restore_job_options_parser.h"
#include "oscar/restore_job_source_parser.h"

#include "parse_document.h"
#include "support/log_capture.h"

#include <limits>

using kestrel_test::generated;
using kestrel_test::Log_Capture;
using kestrel_test::parse;

namespace
{
const char lack_of_id[] = "Failed to parse job definition source, lack of 'id'.\n";
const char lack_of_database[] = "Failed to parse job definition source, lack of 'database'.\n";

struct Parsed : oscar::Restore_Job_Source_Parser {
  explicit Parsed(const std::string& text) : code(parse(*this, text)) {}
  const oscar::Restore_Job_Source& source() { return *document(); }
  int code;
};
} // namespace

TEST(Restore_Job_Source, keeps_every_field_and_writes_them_in_a_fixed_order)
{
  Parsed parsed(R"({"restore_as":{"table":"rt","schema":"rs","database":"rd"},
                    "original":{"backup_file":"f","table":"t","schema":"s","database":"d"},
                    "catalog_id":"c","pool_uuid":"p","seq":12,"backup_definition_id":"bd","backup_host_id":"bh",
                    "name":"n","id":"i"})");
  EXPECT_EQ(parsed.code, 0);
  const oscar::Restore_Job_Source& source = parsed.source();
  EXPECT_EQ(source.id(), "i");
  EXPECT_EQ(source.name(), "n");
  EXPECT_EQ(source.backup_host_id(), "bh");
  EXPECT_EQ(source.backup_definition_id(), "bd");
  EXPECT_EQ(source.catalog_id(), "c");
  EXPECT_EQ(source.seq(), 12u);
  EXPECT_EQ(source.pool_uuid(), "p");
  EXPECT_EQ(source.original().database, "d");
  EXPECT_EQ(source.original().schema, "s");
  EXPECT_EQ(source.original().table, "t");
  EXPECT_EQ(source.original().backup_file, "f");
  EXPECT_EQ(source.restore_as().database, "rd");
  EXPECT_EQ(source.restore_as().schema, "rs");
  EXPECT_EQ(source.restore_as().table, "rt");
  EXPECT_EQ(
      generated(parsed),
      R"({"id":"i","seq":12,"name":"n","backup_host_id":"bh","backup_definition_id":"bd","pool_uuid":"p",)"
      R"("catalog_id":"c","original":{"database":"d","schema":"s","table":"t","backup_file":"f"},)"
      R"("restore_as":{"database":"rd","schema":"rs","table":"rt"}})");
}

TEST(Restore_Job_Source, needs_only_an_id)
{
  Parsed parsed(R"({"id":"x"})");
  EXPECT_EQ(parsed.code, 0);
  EXPECT_EQ(generated(parsed), R"({"id":"x","seq":0,"original":{},"restore_as":{}})");
}

TEST(Restore_Job_Source, reports_a_missing_id)
{
  Log_Capture log;
  EXPECT_EQ(Parsed(R"({"seq":1})").code, 7);
  EXPECT_TRUE(log.expect_exactly(LM_ERROR, lack_of_id));
}

TEST(Restore_Job_Source, an_original_needs_its_database)
{
  Log_Capture log;
  EXPECT_EQ(Parsed(R"({"id":"x","original":{"schema":"s"}})").code, 7);
  EXPECT_TRUE(log.expect_exactly(LM_ERROR, lack_of_database));
}

TEST(Restore_Job_Source, a_target_name_needs_its_database)
{
  Log_Capture log;
  EXPECT_EQ(Parsed(R"({"id":"x","restore_as":{}})").code, 7);
  EXPECT_TRUE(log.expect_exactly(LM_ERROR, lack_of_database));
}

TEST(Restore_Job_Source, objects_written_empty_are_not_accepted_back)
{
  Log_Capture log;
  EXPECT_EQ(Parsed(R"({"id":"x","seq":0,"original":{},"restore_as":{}})").code, 7);
  EXPECT_TRUE(log.expect_exactly(LM_ERROR, lack_of_database));
}

TEST(Restore_Job_Source, the_sequence_number_is_an_exact_unsigned_number_of_64_bits)
{
  Parsed parsed(R"({"id":"x","seq":18446744073709551615})");
  EXPECT_EQ(parsed.source().seq(), std::numeric_limits<uint64_t>::max());
  EXPECT_EQ(generated(parsed), R"({"id":"x","seq":18446744073709551615,"original":{},"restore_as":{}})");
  EXPECT_EQ(Parsed(R"({"id":"x","seq":18446744073709551616})").source().seq(),
            std::numeric_limits<uint64_t>::max());
}

TEST(Restore_Job_Source, a_sequence_number_given_as_a_text_is_refused)
{
  EXPECT_EQ(Parsed(R"({"id":"x","seq":"5"})").code, 9);
}

TEST(Restore_Job_Source, objects_given_as_texts_are_refused)
{
  EXPECT_EQ(Parsed(R"({"id":"x","original":"d"})").code, 9);
  EXPECT_EQ(Parsed(R"({"id":"x","restore_as":"d"})").code, 9);
}

TEST(Restore_Job_Source, a_number_under_another_key_marks_it_and_is_not_stored)
{
  Parsed parsed(R"({"id":5,"seq":2})");
  EXPECT_EQ(parsed.code, 0);
  EXPECT_EQ(parsed.source().id(), "");
  EXPECT_EQ(parsed.source().seq(), 2u);
}

TEST(Restore_Job_Source, numbers_below_the_top_object_are_refused)
{
  EXPECT_EQ(Parsed(R"({"id":"x","original":{"database":1}})").code, 9);
  EXPECT_EQ(Parsed("5").code, 9);
}

TEST(Restore_Job_Source, an_unknown_key_inside_an_original_leaves_the_key_before_it_in_force)
{
  Parsed parsed(R"({"id":"x","original":{"database":"d","x":"y"}})");
  EXPECT_EQ(parsed.code, 0);
  EXPECT_EQ(parsed.source().original().database, "y");
}

TEST(Restore_Job_Source, an_object_of_an_unknown_key_behind_an_original_is_taken_for_one)
{
  Log_Capture log;
  EXPECT_EQ(Parsed(R"({"id":"x","original":{"database":"d"},"foo":{"bar":"q"}})").code, 7);
  EXPECT_TRUE(log.expect_exactly(LM_ERROR, lack_of_database));
}

TEST(Restore_Job_Source, an_object_of_another_key_is_ignored)
{
  Parsed parsed(R"({"foo":{"database":"q"},"id":"x","bar":{"id":"y"}})");
  EXPECT_EQ(parsed.code, 0);
  EXPECT_EQ(generated(parsed), R"({"id":"x","seq":0,"original":{},"restore_as":{}})");
}

TEST(Restore_Job_Source, the_same_key_names_stay_apart_in_the_two_objects)
{
  Parsed parsed(R"({"id":"x","original":{"database":"a"},"restore_as":{"database":"b","backup_file":"c"}})");
  EXPECT_EQ(parsed.code, 0);
  EXPECT_EQ(parsed.source().original().database, "a");
  EXPECT_EQ(parsed.source().original().backup_file, "");
  EXPECT_EQ(parsed.source().restore_as().database, "c") << "\"backup_file\" is no key of a target name";
}

TEST(Restore_Job_Source, arrays_are_left_out_whole)
{
  Parsed parsed(R"({"id":"x","tags":["a",{"id":"b"},[1,"c"],5],"seq":3})");
  EXPECT_EQ(parsed.code, 0);
  EXPECT_EQ(parsed.source().id(), "x");
  EXPECT_EQ(parsed.source().seq(), 3u);
}

TEST(Restore_Job_Source, an_array_inside_an_original_is_left_out_too)
{
  Parsed parsed(R"({"id":"x","original":{"database":"d","schema":[["s"]],"table":"t"}})");
  EXPECT_EQ(parsed.code, 0);
  EXPECT_EQ(parsed.source().original().schema, "");
  EXPECT_EQ(parsed.source().original().table, "t");
}

TEST(Restore_Job_Source, booleans_and_nulls_are_ignored)
{
  Parsed parsed(R"({"id":"x","name":null,"seq":true,"original":null})");
  EXPECT_EQ(parsed.code, 0);
  EXPECT_EQ(generated(parsed), R"({"id":"x","seq":0,"original":{},"restore_as":{}})");
}

TEST(Restore_Job_Source, texts_deeper_than_the_second_level_are_refused)
{
  EXPECT_EQ(Parsed(R"({"id":"x","original":{"database":"d","y":{"z":"w"}}})").code, 9);
  EXPECT_EQ(Parsed(R"("x")").code, 9);
}

TEST(Restore_Job_Source, ends_and_keys_without_an_open_container_are_refused)
{
  oscar::Restore_Job_Source_Parser end;
  EXPECT_FALSE(end.handle_end_map_i());
  EXPECT_EQ(end.error(), 3);
  oscar::Restore_Job_Source_Parser key;
  EXPECT_FALSE(key.handle_map_key_i("id", 2));
  EXPECT_EQ(key.error(), 3);
}

TEST(Restore_Job_Options, any_document_is_accepted_and_written_back_empty)
{
  for (const char* text :
       {"{}", R"({"a":"b","c":1,"d":{"e":["f"]},"g":[{"h":null}],"i":true})", "[]", "\"x\""}) {
    oscar::Restore_Job_Options_Parser parser;
    EXPECT_EQ(parse(parser, text), 0) << text;
    EXPECT_EQ(generated(parser), "{}") << text;
  }
}
