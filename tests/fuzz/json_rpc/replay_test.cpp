#include "support/corpus.h"

#include <gtest/gtest.h>

TEST(JSON_RPC_Fuzz, replays_its_corpus)
{
  kestrel_test::replay_corpus("json_rpc");
}
