#include "json/yajl_gen.h"

#include <gtest/gtest.h>

#include <clocale>
#include <limits>

using kestrel::Json_Generator;

TEST(Yajl_Gen, writes_each_kind_of_event)
{
  Json_Generator generator;
  YAJL_Gen gen(generator.handle());
  gen.map_open().string("a").array_open().integer(-1).number(~0ull).real(0.5).boolean(true).null();
  gen.value(json_spirit::Object{{"b", 1}}).array_close().map_close();
  EXPECT_TRUE(gen.ok());
  EXPECT_EQ(generator.text(), R"({"a":[-1,18446744073709551615,0.5,true,null,{"b":1}]})");
}

TEST(Yajl_Gen, several_views_write_to_one_generator)
{
  Json_Generator generator;
  YAJL_Gen(generator.handle()).array_open();
  YAJL_Gen(generator.handle()).string("x");
  YAJL_Gen(generator.handle()).array_close();
  EXPECT_EQ(generator.text(), R"(["x"])");
}

TEST(Yajl_Gen, the_first_failure_sticks)
{
  Json_Generator generator;
  YAJL_Gen gen(generator.handle());
  EXPECT_FALSE(gen.map_open().integer(1).ok()) << "a number where a name belongs";
  EXPECT_FALSE(gen.string("a").integer(1).map_close().ok());
  EXPECT_EQ(generator.text(), "{");
}

TEST(Yajl_Gen, refuses_a_value_nested_too_deep)
{
  json_spirit::Value value;
  for (int depth = 0; depth < 65; ++depth)
    value = json_spirit::Array{value};
  Json_Generator generator;
  EXPECT_FALSE(YAJL_Gen(generator.handle()).value(value).ok());
}

TEST(Yajl_Gen, reals_are_written_alike_in_every_locale)
{
  // Any locale with a decimal comma will do; without one installed the test still holds the plain form.
  const std::string before = ::setlocale(LC_ALL, nullptr);
  for (const char* name : {"de_DE.UTF-8", "fr_FR.UTF-8", "de_DE", "C"})
    if (::setlocale(LC_ALL, name))
      break;
  Json_Generator generator;
  YAJL_Gen(generator.handle()).array_open().real(1.5).real(-3).real(1e22).real(5e-324).array_close();
  ::setlocale(LC_ALL, before.c_str());
  EXPECT_EQ(generator.text(), "[1.5,-3.0,1e+22,5e-324]");
}
