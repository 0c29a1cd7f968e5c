#include "support/corpus.h"

#include <gtest/gtest.h>

TEST(Archive_Fuzz, replays_its_corpus)
{
  kestrel_test::replay_corpus("archive");
}
