#include "json/json_util.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Pair;
using json_spirit::Value;
using kestrel::Json_Limits;

namespace
{
Value read(const std::string& text)
{
  Value value;
  std::string error;
  EXPECT_TRUE(kestrel::read_json(text, value, error)) << error;
  return value;
}

std::string refusal(const std::string& text, const Json_Limits& limits = Json_Limits())
{
  Value value("before");
  std::string error;
  EXPECT_FALSE(kestrel::read_json(text, limits, value, error)) << text.substr(0, 100);
  EXPECT_EQ(value, Value("before"));
  return error;
}

std::string nested(unsigned depth)
{
  return std::string(depth, '[') + std::string(depth, ']');
}

template <class T> std::string thrown(const Object& obj, const std::string& key)
{
  try {
    kestrel::required<T>(obj, key);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "nothing";
}
} // namespace

TEST(Json_Reader, reads_every_kind_of_value)
{
  const Value value = read(R"({"n":null,"t":true,"f":false,"i":-5,"r":1.5,"s":"x","a":[1,[]],"o":{}})");
  const Object& obj = value.get_obj();
  ASSERT_EQ(obj.size(), 8u);
  EXPECT_TRUE(find_value(obj, "n").is_null());
  EXPECT_TRUE(find_value(obj, "t").get_bool());
  EXPECT_FALSE(find_value(obj, "f").get_bool());
  EXPECT_EQ(find_value(obj, "i").get_int(), -5);
  EXPECT_EQ(find_value(obj, "r").get_real(), 1.5);
  EXPECT_EQ(find_value(obj, "s").get_str(), "x");
  EXPECT_EQ(find_value(obj, "a").get_array(), (Array{1, Array()}));
  EXPECT_TRUE(find_value(obj, "o").get_obj().empty());
  EXPECT_EQ(obj[7].name_, "o");
}

TEST(Json_Reader, keeps_integers_of_64_bits_exactly)
{
  EXPECT_EQ(read("9223372036854775807").get_int64(), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(read("-9223372036854775808").get_int64(), std::numeric_limits<int64_t>::min());
  EXPECT_EQ(read("18446744073709551615").get_uint64(), std::numeric_limits<uint64_t>::max());
  EXPECT_EQ(read("9007199254740993").get_int64(), 9007199254740993);
}

TEST(Json_Reader, refuses_numbers_that_no_type_holds)
{
  EXPECT_NE(refusal("[18446744073709551616]").find("an integer does not fit 64 bits"), std::string::npos);
  EXPECT_NE(refusal("[-9223372036854775809]").find("an integer does not fit 64 bits"), std::string::npos);
  EXPECT_NE(refusal("[1e999]").find("a number is too large"), std::string::npos);
  EXPECT_EQ(read("1e-999").get_real(), 0.0);
}

TEST(Json_Reader, keeps_both_members_of_a_repeated_name_and_finds_the_first)
{
  const Value value = read(R"({"a":1,"a":2})");
  EXPECT_EQ(value.get_obj().size(), 2u);
  EXPECT_EQ(find_value(value.get_obj(), "a").get_int(), 1);
}

TEST(Json_Reader, decodes_escapes_and_keeps_raw_utf8)
{
  EXPECT_EQ(read(R"("a\u0000b")").get_str(), std::string("a\0b", 3));
  EXPECT_EQ(read(R"("\u00e4\n\/")").get_str(), "\xC3\xA4\n/");
  EXPECT_EQ(read("\"\xE8\xA1\xA8\"").get_str(), "\xE8\xA1\xA8");
}

TEST(Json_Reader, refuses_what_is_not_one_document)
{
  for (const char* text :
       {"", " ", "{", "[1,]", "{\"a\"}", "{} {}", "[] x", "nul", "'a'", "\"a", "[1 2]", "\xEF\xBB\xBF{}"})
    EXPECT_NE(refusal(text).find("JSON document refused near byte "), std::string::npos) << text;
  EXPECT_NE(refusal("\"\xFF\"").find("invalid bytes in UTF8 string"), std::string::npos);
}

TEST(Json_Reader, does_not_quote_the_document_in_an_error)
{
  EXPECT_EQ(refusal(R"({"password":"secret-word" oops})").find("secret"), std::string::npos);
}

TEST(Json_Reader, allows_64_levels_and_refuses_65)
{
  EXPECT_EQ(read(nested(64)).type(), json_spirit::array_type);
  EXPECT_NE(refusal(nested(65)).find("nested deeper than 64 levels"), std::string::npos);
}

TEST(Json_Reader, survives_a_hostile_depth)
{
  EXPECT_NE(refusal(std::string(10 << 20, '[')).find("nested deeper than 64 levels"), std::string::npos);
}

TEST(Json_Reader, refuses_a_document_over_the_size_limit)
{
  Json_Limits limits;
  limits.bytes = 4;
  EXPECT_EQ(refusal("[1,2]", limits), "JSON document refused: longer than 4 bytes");
}

TEST(Json_Reader, refuses_more_values_than_the_limit)
{
  Json_Limits limits;
  limits.values = 4;
  EXPECT_NE(refusal("[1,2,3,4]", limits).find("more than 4 values"), std::string::npos);
}

TEST(Json_Writer, writes_on_one_line_in_insertion_order)
{
  const Object obj = {{"b", 1}, {"a", Array{true, Value(), "x\"\n"}}, {"c", Object()}, {"r", 2.0}};
  EXPECT_EQ(kestrel::write_json(obj), R"({"b":1,"a":[true,null,"x\"\n"],"c":{},"r":2.0})");
}

TEST(Json_Writer, writes_numbers_exactly)
{
  EXPECT_EQ(kestrel::write_json(std::numeric_limits<uint64_t>::max()), "18446744073709551615");
  EXPECT_EQ(kestrel::write_json(std::numeric_limits<int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(kestrel::write_json(0.1), "0.1");
  EXPECT_EQ(kestrel::write_json(std::numeric_limits<double>::infinity()), "null");
}

TEST(Json_Writer, writes_raw_utf8_and_replaces_invalid_bytes)
{
  EXPECT_EQ(kestrel::write_json("\xE8\xA1\xA8"), "\"\xE8\xA1\xA8\"");
  EXPECT_EQ(kestrel::write_json("a\xFF"
                                "b"),
            "\"a\xEF\xBF\xBD"
            "b\"");
}

TEST(Json_Writer, pretty_form_is_indented_and_ends_with_a_line_end)
{
  EXPECT_EQ(kestrel::write_json_pretty(Object{{"a", Array{1, 2}}}), "{\n  \"a\": [\n    1,\n    2\n  ]\n}\n");
}

TEST(Json_Writer, refuses_what_the_reader_would_refuse)
{
  Value value = read(nested(64));
  EXPECT_EQ(kestrel::write_json(value), nested(64));
  EXPECT_THROW(kestrel::write_json(Array{value}), std::runtime_error);
}

TEST(Json_Writer, result_reads_back_equal)
{
  const Object obj = {{"", "\x01\x7F"},
                      {"max", std::numeric_limits<uint64_t>::max()},
                      {"neg", -1},
                      {"real", 1e300},
                      {"deep", Object{{"a", Array{Object{{"b", Value()}}}}}}};
  EXPECT_EQ(read(kestrel::write_json(obj)), Value(obj));
  EXPECT_EQ(read(kestrel::write_json_pretty(obj)), Value(obj));
}

TEST(Utf8_Without_Invalid, replaces_each_invalid_sequence_by_one_mark)
{
  const std::string mark = "\xEF\xBF\xBD";
  EXPECT_EQ(kestrel::utf8_without_invalid("ok \xC3\xA4 \xF0\x9F\x98\x80"), "ok \xC3\xA4 \xF0\x9F\x98\x80");
  EXPECT_EQ(kestrel::utf8_without_invalid("\x80"), mark);
  EXPECT_EQ(kestrel::utf8_without_invalid("\xC0\xAF"), mark + mark) << "overlong slash";
  EXPECT_EQ(kestrel::utf8_without_invalid("\xED\xA0\x80"), mark + mark + mark) << "surrogate";
  EXPECT_EQ(kestrel::utf8_without_invalid("\xF4\x90\x80\x80"), mark + mark + mark + mark)
      << "above the last code point";
  EXPECT_EQ(kestrel::utf8_without_invalid("\xE8\xA1"), mark) << "cut at the end";
  EXPECT_EQ(kestrel::utf8_without_invalid("\xE8\xA1z"), mark + "z") << "cut by another character";
  EXPECT_EQ(kestrel::utf8_without_invalid(""), "");
}

TEST(Json_Extractors, required_gives_the_value_as_the_asked_type)
{
  const Object obj = {{"s", "x"}, {"b", true}, {"i", 7}, {"r", 1.5}, {"o", Object()}, {"a", Array{1}}};
  EXPECT_EQ(kestrel::required<std::string>(obj, "s"), "x");
  EXPECT_TRUE(kestrel::required<bool>(obj, "b"));
  EXPECT_EQ(kestrel::required<int>(obj, "i"), 7);
  EXPECT_EQ(kestrel::required<unsigned>(obj, "i"), 7u);
  EXPECT_EQ(kestrel::required<int64_t>(obj, "i"), 7);
  EXPECT_EQ(kestrel::required<uint64_t>(obj, "i"), 7u);
  EXPECT_EQ(kestrel::required<double>(obj, "r"), 1.5);
  EXPECT_EQ(kestrel::required<Array>(obj, "a"), Array{1});
  EXPECT_TRUE(kestrel::required<Object>(obj, "o").empty());
  EXPECT_EQ(kestrel::required<Value>(obj, "s"), Value("x"));
}

TEST(Json_Extractors, required_names_the_key_and_not_the_value)
{
  const Object obj = {{"s", "secret"}, {"n", Value()}, {"neg", -1}, {"big", 1ull << 40}, {"max", ~0ull}};
  EXPECT_EQ(thrown<std::string>(obj, "none"), "JSON key \"none\" is missing");
  EXPECT_EQ(thrown<std::string>(obj, "n"), "JSON key \"n\" is missing");
  EXPECT_EQ(thrown<int>(obj, "s"), "JSON key \"s\" is not an integer of 32 bits");
  EXPECT_EQ(thrown<int>(obj, "big"), "JSON key \"big\" is not an integer of 32 bits");
  EXPECT_EQ(thrown<unsigned>(obj, "big"), "JSON key \"big\" is not an unsigned integer in range");
  EXPECT_EQ(thrown<uint64_t>(obj, "neg"), "JSON key \"neg\" is not an unsigned integer in range");
  EXPECT_EQ(thrown<int64_t>(obj, "max"), "JSON key \"max\" is not a signed integer of 64 bits");
}

TEST(Json_Extractors, optional_leaves_the_result_when_the_key_is_missing_or_null)
{
  const Object obj = {{"n", Value()}, {"s", "x"}};
  std::string text = "before";
  EXPECT_FALSE(kestrel::optional(obj, "none", text));
  EXPECT_FALSE(kestrel::optional(obj, "n", text));
  EXPECT_EQ(text, "before");
  EXPECT_TRUE(kestrel::optional(obj, "s", text));
  EXPECT_EQ(text, "x");
  bool flag = false;
  EXPECT_THROW(kestrel::optional(obj, "s", flag), std::runtime_error);
}

TEST(Json_Building, lists_of_objects_grow_in_place)
{
  Value value;
  Array& array = to_new_array(value);
  append_new_object(array).emplace_back("name", "a");
  append_new_object(array).emplace_back("name", "b");
  array += std::vector<std::string>{"c", "d"};
  EXPECT_EQ(kestrel::write_json(value), R"([{"name":"a"},{"name":"b"},"c","d"])");
}

TEST(Json_Building, set_value_replaces_or_appends)
{
  Object obj = {{"a", 1}};
  kestrel::set_value(obj, "b", 2);
  kestrel::set_value(obj, "a", "x");
  EXPECT_EQ(obj, (Object{{"a", "x"}, {"b", 2}}));
}
