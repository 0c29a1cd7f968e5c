#include "support/corpus.h"

#include "support/paths.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace kestrel_test
{
namespace
{
typedef std::minstd_rand Dice;

void give(const std::string& text)
{
  // A copy of exactly this size lets the address sanitizer see a read past the end.
  const std::vector<uint8_t> bytes(text.begin(), text.end());
  EXPECT_EQ(LLVMFuzzerTestOneInput(bytes.data(), bytes.size()), 0);
}

size_t below(Dice& dice, size_t limit)
{
  return limit == 0 ? 0 : dice() % limit;
}

std::string mutated(std::string text, const std::vector<std::string>& all, Dice& dice)
{
  for (size_t change = 1 + below(dice, 4); change > 0; --change) {
    const size_t at = below(dice, text.size() + 1);
    switch (dice() % 5) {
    case 0:
      text.insert(at, 1, static_cast<char>(dice()));
      break;
    case 1:
      if (at < text.size())
        text[at] = static_cast<char>(dice());
      break;
    case 2:
      text.erase(at, below(dice, 16));
      break;
    case 3:
      text.insert(at, text.substr(below(dice, text.size() + 1), below(dice, 64)));
      break;
    default: {
      const std::string& other = all[below(dice, all.size())];
      text = text.substr(0, at) + other.substr(below(dice, other.size() + 1));
    }
    }
  }
  return text;
}
} // namespace

void replay_corpus(const char* target, unsigned rounds)
{
  std::vector<std::string> paths;
  for (const auto& entry :
       std::filesystem::directory_iterator(source_dir() + "/tests/fuzz/" + target + "/corpus"))
    paths.push_back(entry.path());
  std::sort(paths.begin(), paths.end());
  ASSERT_FALSE(paths.empty());

  std::vector<std::string> all;
  for (const std::string& path : paths)
    all.push_back(read_file(path));
  Dice dice(1);
  for (size_t file = 0; file < all.size(); ++file) {
    SCOPED_TRACE(paths[file]);
    for (size_t length = 0; length <= all[file].size(); ++length)
      give(all[file].substr(0, length));
    for (unsigned round = 0; round < rounds; ++round)
      give(mutated(all[file], all, dice));
  }
}
} // namespace kestrel_test
