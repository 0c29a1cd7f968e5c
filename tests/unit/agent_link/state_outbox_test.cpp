#include "agent/state_outbox.h"

#include "agent/server_link.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

using kestrel::Job_Notice;
using kestrel::State_Outbox;

namespace
{
Job_Notice notice(const std::string& id, int progress)
{
  Job_Notice made;
  made.id = id;
  made.run_id = "run-" + id;
  made.state = JOB_STATE_RUNNING;
  made.progress = progress;
  return made;
}

/// "id progress" of everything that waits.
std::string drained(State_Outbox& outbox)
{
  std::string text;
  Job_Notice next;
  while (outbox.take(next))
    text += next.id + " " + std::to_string(next.progress) + ";";
  return text;
}

TEST(State_Outbox, keeps_the_newest_of_each_job_in_the_order_of_the_first)
{
  State_Outbox outbox;
  for (int progress = 1; progress <= 1000; ++progress)
    for (const char* id : {"a", "b", "c"})
      outbox.put(notice(id, progress));
  EXPECT_EQ(3u, outbox.size());
  EXPECT_EQ("a 1000;b 1000;c 1000;", drained(outbox));
  EXPECT_EQ(0u, outbox.size());
}

TEST(State_Outbox, a_job_queues_again_behind_the_others_after_it_was_taken)
{
  State_Outbox outbox;
  outbox.put(notice("a", 1));
  outbox.put(notice("b", 1));
  Job_Notice taken;
  ASSERT_TRUE(outbox.take(taken));
  outbox.put(notice("a", 2));
  EXPECT_EQ("b 1;a 2;", drained(outbox));
}

TEST(State_Outbox, drops_the_job_that_waits_longest_beyond_its_limit)
{
  State_Outbox outbox(2);
  for (const char* id : {"a", "b", "c"})
    outbox.put(notice(id, 1));
  outbox.put(notice("b", 2));
  EXPECT_EQ("b 2;c 1;", drained(outbox));
}

TEST(State_Outbox, is_empty_after_clear_and_takes_more)
{
  State_Outbox outbox;
  outbox.put(notice("a", 1));
  outbox.clear();
  Job_Notice untouched = notice("x", 9);
  EXPECT_FALSE(outbox.take(untouched));
  EXPECT_EQ("x", untouched.id);
  outbox.put(notice("a", 2));
  EXPECT_EQ("a 2;", drained(outbox));
}

TEST(Job_Notice_Params, hold_what_consoles_show)
{
  Job_Notice given = notice("d1", 42);
  given.done_bytes = 18446744073709551615u;
  given.total_bytes = 7;
  given.item = "SALES";
  given.time = 1700000000;
  EXPECT_EQ("{\"id\":\"d1\",\"run_id\":\"run-d1\",\"state\":\"running\",\"progress\":42,"
            "\"done_bytes\":18446744073709551615,\"total_bytes\":7,\"item\":\"SALES\",\"time\":1700000000}",
            kestrel::write_json(kestrel::job_notice_params(given)));
}
} // namespace
