#include "base/uri.h"

#include <gtest/gtest.h>

namespace
{
typedef std::vector<std::string> Segments;

Segments segments_of(const std::string& path, bool decode = true)
{
  URI uri;
  EXPECT_EQ(0, uri.path("left/over", true));
  EXPECT_EQ(0, uri.path(path, decode));
  return uri.segments();
}
} // namespace

TEST(Uri, splits_a_path_at_slashes)
{
  EXPECT_EQ((Segments{"oscar", "S", "D"}), segments_of("oscar/S/D"));
  EXPECT_EQ((Segments{"oscar"}), segments_of("oscar"));
  EXPECT_EQ((Segments{"oscar", "S"}), segments_of("/oscar/S"));
  EXPECT_EQ(Segments{}, segments_of(""));
}

TEST(Uri, keeps_empty_segments)
{
  EXPECT_EQ((Segments{"oscar", "", "D"}), segments_of("oscar//D"));
  EXPECT_EQ((Segments{"oscar", "S", ""}), segments_of("oscar/S/"));
  EXPECT_EQ((Segments{""}), segments_of("/"));
}

TEST(Uri, decodes_escapes_inside_segments)
{
  EXPECT_EQ((Segments{"oscar", "a/b", "c d"}), segments_of("oscar/a%2Fb/c%20d"));
  EXPECT_EQ((Segments{"%41"}), segments_of("%2541"));
  EXPECT_EQ((Segments{"oscar", "a%2Fb"}), segments_of("oscar/a%2Fb", false));
}

TEST(Uri, leaves_invalid_escapes_alone)
{
  EXPECT_EQ((Segments{"100%", "%4", "%zz", "%"}), segments_of("100%/%4/%zz/%"));
  EXPECT_EQ((Segments{"%4", "1"}), segments_of("%4/1"));
}
