#include "support/corpus.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

TEST(Isql_Output_Fuzz, replays_its_corpus)
{
  kestrel_test::Log_Capture log;
  log.allow(LM_ERROR, "Failed info: ");
  kestrel_test::replay_corpus("isql_output");
}
