#include "support/corpus.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

TEST(Backup_Stream_Fuzz, replays_its_corpus)
{
  kestrel_test::Log_Capture log; // a failing pump logs why
  log.allow(LM_ERROR, "");
  log.allow(LM_WARNING, "can be stored but not restored");
  kestrel_test::replay_corpus("backup_stream");
}
