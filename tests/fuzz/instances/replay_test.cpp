#include "support/corpus.h"

#include <gtest/gtest.h>

TEST(Instances_Fuzz, replays_its_corpus)
{
  kestrel_test::replay_corpus("instances");
}
