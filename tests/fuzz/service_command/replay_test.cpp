#include "support/corpus.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

TEST(Service_Command_Fuzz, replays_its_corpus)
{
  kestrel_test::Log_Capture log;
  log.allow(LM_ERROR, "Failed to get OSCAR instance ");
  log.allow(LM_ERROR, "SZ_OSCAR_HOME is empty");
  log.allow(LM_ERROR, "Oscar command of ");
  kestrel_test::replay_corpus("service_command");
}
