#include "support/corpus.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

TEST(Instance_Conf_Fuzz, replays_its_corpus)
{
  kestrel_test::Log_Capture log;
  log.allow(LM_ERROR, "Failed to find pid.");
  log.allow(LM_ERROR, "admin/DB1.db");
  kestrel_test::replay_corpus("instance_conf");
}
