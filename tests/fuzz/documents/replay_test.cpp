#include "support/corpus.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

TEST(Documents_Fuzz, replays_its_corpus)
{
  kestrel_test::Log_Capture log;
  log.allow(LM_ERROR, "Failed to parse job definition source, lack of '");
  log.allow(LM_ERROR, "Failed to collect oscar source:");
  kestrel_test::replay_corpus("documents");
}
