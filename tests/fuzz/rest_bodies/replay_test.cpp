#include "support/corpus.h"

#include <gtest/gtest.h>

TEST(Rest_Bodies_Fuzz, replays_its_corpus)
{
  kestrel_test::replay_corpus("rest_bodies", 60);
}
