#include "json/value.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

TEST(Json_Value, is_null_by_default_and_from_a_null_pointer)
{
  EXPECT_EQ(Value().type(), json_spirit::null_type);
  EXPECT_TRUE(Value(static_cast<const char*>(nullptr)).is_null());
  EXPECT_TRUE(Value(nullptr).is_null());
}

TEST(Json_Value, knows_its_type)
{
  EXPECT_EQ(Value("x").type(), json_spirit::str_type);
  EXPECT_EQ(Value(true).type(), json_spirit::bool_type);
  EXPECT_EQ(Value(1L).type(), json_spirit::int_type);
  EXPECT_EQ(Value(~0ull).type(), json_spirit::int_type);
  EXPECT_EQ(Value(1.0).type(), json_spirit::real_type);
  EXPECT_EQ(Value(Array()).type(), json_spirit::array_type);
  EXPECT_EQ(Value(Object()).type(), json_spirit::obj_type);
}

TEST(Json_Value, accessors_throw_on_another_type)
{
  const Value text("secret");
  EXPECT_THROW(text.get_obj(), std::runtime_error);
  EXPECT_THROW(text.get_array(), std::runtime_error);
  EXPECT_THROW(text.get_bool(), std::runtime_error);
  EXPECT_THROW(text.get_int(), std::runtime_error);
  EXPECT_THROW(text.get_int64(), std::runtime_error);
  EXPECT_THROW(text.get_uint64(), std::runtime_error);
  EXPECT_THROW(text.get_real(), std::runtime_error);
  EXPECT_THROW(Value(1).get_str(), std::runtime_error);
  EXPECT_THROW(Value(1.0).get_int64(), std::runtime_error);
  EXPECT_THROW(Value().get_str(), std::runtime_error);
  try {
    text.get_bool();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "JSON value is a text, expected a boolean");
  }
}

TEST(Json_Value, converts_signed_and_unsigned_by_bit_pattern)
{
  const uint64_t largest = std::numeric_limits<uint64_t>::max();
  EXPECT_EQ(Value(largest).get_int64(), -1);
  EXPECT_EQ(Value(largest).get_uint64(), largest);
  EXPECT_EQ(Value(-1).get_uint64(), largest);
  EXPECT_EQ(Value(uint64_t(1) << 63).get_int64(), std::numeric_limits<int64_t>::min());
}

TEST(Json_Value, get_int_throws_rather_than_cut)
{
  EXPECT_EQ(Value(int64_t(2147483647)).get_int(), 2147483647);
  EXPECT_THROW(Value(int64_t(2147483648)).get_int(), std::runtime_error);
  EXPECT_THROW(Value(int64_t(-2147483649)).get_int(), std::runtime_error);
  EXPECT_THROW(Value(std::numeric_limits<uint64_t>::max()).get_int(), std::runtime_error);
}

TEST(Json_Value, get_real_takes_integers)
{
  EXPECT_EQ(Value(3).get_real(), 3.0);
  EXPECT_EQ(Value(uint64_t(1) << 63).get_real(), 9223372036854775808.0);
}

TEST(Json_Value, equal_numbers_are_equal_whatever_stored_them)
{
  EXPECT_EQ(Value(5), Value(uint64_t(5)));
  EXPECT_NE(Value(-1), Value(std::numeric_limits<uint64_t>::max()));
  EXPECT_NE(Value(1), Value(1.0));
  EXPECT_NE(Value(1), Value(true));
}

TEST(Json_Value, copies_are_independent_and_moves_keep_the_content)
{
  Value first(Array{Object{{"a", 1}}});
  Value second = first;
  second.get_array()[0].get_obj()[0].value_ = 2;
  EXPECT_EQ(first, Value(Array{Object{{"a", 1}}}));
  const Value* element = &first.get_array()[0];
  const Value third = std::move(first);
  EXPECT_EQ(&third.get_array()[0], element);
}

TEST(Json_Value, find_value_gives_null_for_an_unknown_name)
{
  const Object obj = {{"a", 1}};
  EXPECT_EQ(find_value(obj, "a").get_int(), 1);
  EXPECT_TRUE(find_value(obj, "A").is_null());
  EXPECT_TRUE(find_value(Object(), "").is_null());
}
