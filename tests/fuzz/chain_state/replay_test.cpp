#include "support/corpus.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

TEST(Chain_State_Fuzz, replays_its_corpus)
{
  kestrel_test::Log_Capture log; // an incomplete file is an error that is logged
  log.allow(LM_ERROR, "Failed to get ");
  kestrel_test::replay_corpus("chain_state");
}
