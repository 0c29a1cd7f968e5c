#include "base/version.h"

#include <gtest/gtest.h>

#include <regex>

TEST(Version, has_three_numbers)
{
  EXPECT_TRUE(std::regex_match(kestrel::version(), std::regex("[0-9]+\\.[0-9]+\\.[0-9]+")));
}
