#include "cli/reference.h"

#include <gtest/gtest.h>

using namespace kestrel;

namespace
{
const std::vector<Candidate> candidates = {
    {"aa11", "nightly"}, {"aa22", "weekly"}, {"bb33", "nightly"}, {"cc44", "aa"}, {"cc4", ""}};

Reference_Fit resolve(const std::string& reference, size_t& position, std::string& error)
{
  return resolve_reference("job", reference, candidates, position, error);
}
} // namespace

TEST(Reference, takes_a_whole_id_even_when_others_begin_so)
{
  size_t position = 99;
  std::string error;
  EXPECT_EQ(Reference_Fit::one, resolve("cc4", position, error));
  EXPECT_EQ(4u, position);
}

TEST(Reference, takes_a_unique_beginning_and_a_unique_name)
{
  size_t position = 99;
  std::string error;
  EXPECT_EQ(Reference_Fit::one, resolve("bb", position, error));
  EXPECT_EQ(2u, position);
  EXPECT_EQ(Reference_Fit::one, resolve("weekly", position, error));
  EXPECT_EQ(1u, position);
}

TEST(Reference, prefers_a_name_to_the_beginning_of_ids)
{
  size_t position = 99;
  std::string error;
  EXPECT_EQ(Reference_Fit::one, resolve("aa", position, error));
  EXPECT_EQ(3u, position);
}

TEST(Reference, lists_what_fits_when_several_do)
{
  size_t position = 99;
  std::string error;
  EXPECT_EQ(Reference_Fit::several, resolve("nightly", position, error));
  EXPECT_EQ("2 jobs fit nightly: aa11 (nightly), bb33 (nightly); give more of the id", error);
  EXPECT_EQ(99u, position);
}

TEST(Reference, says_so_when_nothing_fits)
{
  size_t position = 99;
  std::string error;
  EXPECT_EQ(Reference_Fit::none, resolve("zz", position, error));
  EXPECT_EQ("there is no job zz", error);
  EXPECT_EQ(Reference_Fit::none, resolve("", position, error));
  EXPECT_EQ(99u, position);
}

TEST(Reference, lists_only_the_first_of_many)
{
  std::vector<Candidate> many;
  for (int i = 0; i < 9; ++i)
    many.push_back({"x" + std::to_string(i), ""});
  size_t position = 99;
  std::string error;
  EXPECT_EQ(Reference_Fit::several, resolve_reference("run", "x", many, position, error));
  EXPECT_EQ("9 runs fit x: x0, x1, x2, x3, x4 and 4 more; give more of the id", error);
}
