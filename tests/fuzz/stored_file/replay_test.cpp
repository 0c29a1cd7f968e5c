#include "support/corpus.h"

#include <gtest/gtest.h>

TEST(Stored_File_Fuzz, replays_its_corpus)
{
  kestrel_test::replay_corpus("stored_file");
}
