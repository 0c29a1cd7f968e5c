#include "base/charset.h"
#include "base/key_value.h"
#include "base/snprintf_t.h"
#include "base/string_sprintf.h"

#include <gtest/gtest.h>

#include <clocale>

TEST(Snprintf_T, formats_and_cuts)
{
  snprintf_t<8> text;
  EXPECT_STREQ("", text.c_str());
  EXPECT_EQ(6, text.set("%s-%d", "abcd", 7));
  EXPECT_STREQ("abcd-7", text.c_str());
  EXPECT_EQ(10, text.set("%s", "0123456789"));
  EXPECT_STREQ("0123456", text.c_str());
}

TEST(Snprintf_T, cuts_the_extension_of_a_long_instance_name)
{
  EXPECT_STREQ("abcdefghijklmnopqrstuvwxyz1.con",
               snprintf_t<32>("%s.conf", "abcdefghijklmnopqrstuvwxyz1").c_str());
  const std::string name(31, 'n');
  EXPECT_EQ(name, snprintf_t<32>("%s.conf", name.c_str()).c_str());
}

TEST(String_Sprintf, replaces_and_appends_texts_of_any_length)
{
  std::string text = "old";
  EXPECT_EQ("a 1", string_sprintf(text, "%s %d", "a", 1));
  EXPECT_EQ("a 1 b", string_sprintf_append(text, " %s", "b"));
  for (size_t length : {510u, 511u, 512u, 513u, 100000u}) {
    const std::string content(length, 'x');
    EXPECT_EQ(content, string_sprintf(text, "%s", content.c_str()));
  }
}

TEST(String_Sprintf, takes_the_string_itself_as_argument)
{
  std::string text = "abc";
  EXPECT_EQ("<abc>", string_sprintf(text, "<%s>", text.c_str()));
  EXPECT_EQ("<abc><abc>", string_sprintf_append(text, "%s", text.c_str()));
}

namespace
{
class Scoped_Locale
{
public:
  explicit Scoped_Locale(const char* name) : previous_(::setlocale(LC_CTYPE, nullptr))
  {
    set_ = ::setlocale(LC_CTYPE, name) != nullptr;
  }
  ~Scoped_Locale() { ::setlocale(LC_CTYPE, previous_.c_str()); }
  bool set() const { return set_; }

private:
  const std::string previous_;
  bool set_;
};
} // namespace

TEST(Charset, passes_text_through_that_the_code_page_cannot_hold)
{
  // The "C" locale holds ASCII only.
  Scoped_Locale locale("C");
  ASSERT_TRUE(locale.set());
  EXPECT_STREQ("plain", UTF16_String("plain").c_local());
  EXPECT_STREQ("gr\xc3\xb6\xc3\x9f"
               "e",
               UTF16_String("gr\xc3\xb6\xc3\x9f"
                            "e")
                   .c_local());
  EXPECT_EQ("\xff\xfe", Local_String("\xff\xfe").to_utf8());
}

TEST(Charset, passes_invalid_utf8_through)
{
  Scoped_Locale locale("C.UTF-8");
  ASSERT_TRUE(locale.set());
  EXPECT_STREQ("a\xffz", UTF16_String("a\xffz").c_local());
  EXPECT_EQ("a\xffz", Local_String("a\xffz").to_utf8());
  EXPECT_EQ("\xc3\xb6", Local_String("\xc3\xb6").to_utf8());
}

TEST(Charset, converts_between_code_pages)
{
  std::string text = "gr\xc3\xb6\xc3\x9f"
                     "e";
  EXPECT_TRUE(kestrel::convert_charset("ISO-8859-1", "UTF-8", text, text));
  EXPECT_EQ("gr\xf6\xdf"
            "e",
            text);
  EXPECT_TRUE(kestrel::convert_charset("UTF-8", "ISO-8859-1", text, text));
  EXPECT_EQ("gr\xc3\xb6\xc3\x9f"
            "e",
            text);
  const std::string longer(10000, '\xf6');
  EXPECT_TRUE(kestrel::convert_charset("UTF-8", "ISO-8859-1", longer, text));
  EXPECT_EQ(20000u, text.size());
}

TEST(Charset, ends_a_text_of_a_code_page_with_shift_states)
{
  std::string text;
  ASSERT_TRUE(kestrel::convert_charset("ISO-2022-JP", "UTF-8", "\xe6\x97\xa5", text));
  EXPECT_EQ("\x1b(B", text.substr(text.size() - 3));
}

TEST(Charset, leaves_the_result_alone_when_a_character_does_not_fit)
{
  std::string text = "before";
  EXPECT_FALSE(kestrel::convert_charset("ISO-8859-1", "UTF-8", "\xe6\x97\xa5", text));
  EXPECT_FALSE(kestrel::convert_charset("ISO-8859-1", "UTF-8", "cut \xc3", text));
  EXPECT_FALSE(kestrel::convert_charset("NO-SUCH-PAGE", "UTF-8", "a", text));
  EXPECT_EQ("before", text);
}

TEST(Charset, takes_null_and_empty_text)
{
  EXPECT_STREQ("", UTF16_String(nullptr).c_local());
  EXPECT_STREQ("", UTF16_String("").c_local());
  EXPECT_EQ("", Local_String("").to_utf8());
}

namespace
{
const Key2_Value_T<int> table[] = {{"id", 2, 1}, {"name", 4, 2}, {"alias", 5, 2}, {nullptr, 0, 0}};
} // namespace

TEST(Key_Value, finds_values_by_the_exact_key)
{
  EXPECT_EQ(1, get_key_value_entry(table, "id", 2, -1));
  EXPECT_EQ(2, get_key_value_entry(table, "names", 4, -1));
  EXPECT_EQ(-1, get_key_value_entry(table, "names", 5, -1));
  EXPECT_EQ(-1, get_key_value_entry(table, "Id", 2, -1));
  EXPECT_EQ(-1, get_key_value_entry(table, "", 0, -1));
}

TEST(Key_Value, finds_the_first_key_by_value)
{
  EXPECT_STREQ("id", get_key_value_entry(table, 1));
  EXPECT_STREQ("name", get_key_value_entry(table, 2));
  EXPECT_EQ(nullptr, get_key_value_entry(table, 3));
}
