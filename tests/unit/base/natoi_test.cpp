#include "base/natoi.h"

#include <gtest/gtest.h>

#include <string>

namespace
{
template <class T> struct Parsed {
  T value;
  int error;
  size_t stop;
};

template <class T> Parsed<T> parse(const std::string& text)
{
  Parsed<T> parsed;
  const char* stop = nullptr;
  errno = EPERM;
  parsed.value = natoi<T>(text.c_str(), &stop);
  parsed.error = errno;
  parsed.stop = static_cast<size_t>(stop - text.c_str());
  return parsed;
}

template <class T> void expect_parsed(const std::string& text, T value, int error, size_t stop)
{
  const Parsed<T> parsed = parse<T>(text);
  EXPECT_EQ(value, parsed.value) << text;
  EXPECT_EQ(error, parsed.error) << text;
  EXPECT_EQ(stop, parsed.stop) << text;
}
} // namespace

TEST(Natoi, reads_digits_up_to_the_first_other_character)
{
  expect_parsed<int>("2010", 2010, 0, 4);
  expect_parsed<int>("2x", 2, 0, 1);
  expect_parsed<int>("+7", 7, 0, 2);
  expect_parsed<int>("-7 ", -7, 0, 2);
  expect_parsed<int>("007", 7, 0, 3);
  expect_parsed<int>("-0", 0, 0, 2);
}

TEST(Natoi, says_that_there_are_no_digits)
{
  for (const char* text : {"", "x", " 1", "+", "-", "+-1", "--1", "\t1"})
    expect_parsed<int>(text, 0, EINVAL, 0);
}

TEST(Natoi, gives_the_maximum_for_every_overflow)
{
  expect_parsed<int>("2147483647", 2147483647, 0, 10);
  expect_parsed<int>("2147483648", 2147483647, ERANGE, 10);
  expect_parsed<int>("99999999999x", 2147483647, ERANGE, 11);
  expect_parsed<int>("-2147483648", INT32_MIN, 0, 11);
  expect_parsed<int>("-2147483649", 2147483647, ERANGE, 11);
  expect_parsed<signed char>("-128", -128, 0, 4);
  expect_parsed<signed char>("128", 127, ERANGE, 3);
  expect_parsed<int64_t>("9223372036854775807", INT64_MAX, 0, 19);
  expect_parsed<int64_t>("9223372036854775808", INT64_MAX, ERANGE, 19);
  expect_parsed<int64_t>("-9223372036854775808", INT64_MIN, 0, 20);
  expect_parsed<int64_t>("-9223372036854775809", INT64_MAX, ERANGE, 20);
  expect_parsed<int64_t>(std::string(100, '9'), INT64_MAX, ERANGE, 100);
}

TEST(Natoi, takes_no_minus_sign_for_unsigned_types)
{
  expect_parsed<unsigned short>("65535", 65535, 0, 5);
  expect_parsed<unsigned short>("65536", 65535, ERANGE, 5);
  expect_parsed<unsigned short>("-5", 0, EINVAL, 0);
  expect_parsed<unsigned>("+5", 5, 0, 2);
  expect_parsed<uint64_t>("18446744073709551615", UINT64_MAX, 0, 20);
  expect_parsed<uint64_t>("18446744073709551616", UINT64_MAX, ERANGE, 20);
}

TEST(Natoi, stays_inside_a_length)
{
  const char* stop = nullptr;
  const char text[] = {'1', '2', '3', '4'};
  EXPECT_EQ(12, natoi<int>(text, 2, &stop));
  EXPECT_EQ(text + 2, stop);
  EXPECT_EQ(1234, natoi<int>(text, 4, &stop));
  EXPECT_EQ(text + 4, stop);
  EXPECT_EQ(0, natoi<int>(text, 0, &stop));
  EXPECT_EQ(EINVAL, errno);
}

TEST(Natoi, takes_null_for_text_and_stop)
{
  const char* stop = "x";
  EXPECT_EQ(0, natoi<int>(nullptr, &stop));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(nullptr, stop);
  EXPECT_EQ(5, natoi<int>("5", nullptr));
}
