#include "process/line_splitter.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace
{
typedef std::vector<std::string> Texts;

class Keeper : public kestrel::Line_Sink
{
public:
  int line(const char* text, unsigned int length) override
  {
    EXPECT_EQ('\0', text[length]);
    got.emplace_back(text, length);
    return got.size() == stop_at ? -1 : 0;
  }
  int segment(const char* data, unsigned int length) override
  {
    got.push_back("+" + std::string(data, length));
    return got.size() == stop_at ? -1 : 0;
  }
  Texts got;
  size_t stop_at = 0;
};

/// Feeds the text in pieces of this size.
void feed(kestrel::Line_Splitter& splitter, const std::string& text, size_t piece)
{
  std::vector<char> buffer(piece + 1);
  for (size_t at = 0; at < text.size(); at += piece) {
    const size_t length = std::min(piece, text.size() - at);
    ::memcpy(buffer.data(), text.data() + at, length);
    splitter.feed(buffer.data(), length);
  }
}

Texts lines_of(const std::string& text, size_t piece, size_t max_line = 1000)
{
  Keeper keeper;
  kestrel::Line_Splitter splitter(keeper, max_line);
  feed(splitter, text, piece);
  splitter.finish();
  return keeper.got;
}
} // namespace

TEST(Line_Splitter, gives_the_same_lines_however_the_bytes_come)
{
  const std::string text = "first\n\nsecond line\r\n\n" + std::string("with\0nul", 8) + "\nlast";
  const Texts expected = {"first", "", "second line\r", "", std::string("with\0nul", 8), "last"};
  for (size_t piece = 1; piece <= text.size(); ++piece)
    EXPECT_EQ(expected, lines_of(text, piece)) << piece;
}

TEST(Line_Splitter, makes_no_line_of_nothing)
{
  EXPECT_EQ(Texts{}, lines_of("", 10));
  EXPECT_EQ((Texts{"a"}), lines_of("a\n", 10));
  EXPECT_EQ((Texts{""}), lines_of("\n", 10));
}

TEST(Line_Splitter, cuts_long_lines_and_hands_on_the_rest)
{
  for (size_t piece = 1; piece <= 20; ++piece) {
    const Texts got = lines_of("abcd\nabcdefgh\nx\n12345", piece, 4);
    std::string joined;
    Texts lines;
    for (const std::string& text : got) {
      if (text[0] == '+')
        joined += text.substr(1);
      else
        lines.push_back(text);
    }
    EXPECT_EQ((Texts{"abcd", "abcd", "x", "1234"}), lines) << piece;
    EXPECT_EQ("efgh5", joined) << piece;
  }
}

TEST(Line_Splitter, delivers_nothing_after_a_negative_result)
{
  for (size_t piece = 1; piece <= 12; ++piece) {
    Keeper keeper;
    keeper.stop_at = 2;
    kestrel::Line_Splitter splitter(keeper, 1000);
    feed(splitter, "one\ntwo\nthree\nfour", piece);
    EXPECT_TRUE(splitter.stopped());
    splitter.finish();
    EXPECT_EQ((Texts{"one", "two"}), keeper.got) << piece;
  }
}

TEST(Line_Splitter, stops_in_the_middle_of_a_long_line)
{
  Keeper keeper;
  keeper.stop_at = 2;
  kestrel::Line_Splitter splitter(keeper, 2);
  feed(splitter, "abcdef\nnext\n", 3);
  splitter.finish();
  EXPECT_EQ((Texts{"ab", "+c"}), keeper.got);
}
