#include "support/corpus.h"

#include <gtest/gtest.h>

TEST(Line_Splitter_Fuzz, replays_its_corpus)
{
  kestrel_test::replay_corpus("line_splitter");
}
