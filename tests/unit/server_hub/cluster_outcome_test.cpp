#include "server/cluster_outcome.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

using namespace kestrel;

namespace
{
Node_Outcome outcome(const std::string& host, const std::string& state, const std::string& reason,
                     int64_t queued_at = 1700000000)
{
  Node_Outcome made;
  made.host_name = host;
  made.record.emplace_back("state", state);
  made.record.emplace_back("reason", reason);
  made.record.emplace_back("queued_at", queued_at);
  return made;
}
} // namespace

TEST(Cluster_Outcome, tells_each_hosts_reason_when_nobody_worked)
{
  EXPECT_EQ(
      why_nobody_worked("nightly",
                        {outcome("db1", "error", "Failed to get node info of instance DB1\n"),
                         outcome("db2", "skipped", "", 1700000300), Node_Outcome{"db3", {}, false}}),
      "no node did the work of nightly when it was started last: host db1: error, Failed to get node info of "
      "instance DB1; host db2: skipped; host db3: no run of this start is known");
}

TEST(Cluster_Outcome, says_nothing_when_one_worked_or_still_may)
{
  EXPECT_EQ(why_nobody_worked("job", {outcome("db1", "skipped", ""), outcome("db2", "completed", "")}), "");
  EXPECT_EQ(
      why_nobody_worked("job", {outcome("db1", "skipped", ""), outcome("db2", "completed with errors", "")}),
      "");
  Node_Outcome running = outcome("db2", "error", "of before");
  running.running = true;
  EXPECT_EQ(why_nobody_worked("job", {outcome("db1", "error", ""), running}), "");
  EXPECT_EQ(why_nobody_worked("job", {Node_Outcome{"db1", {}, false}}), "") << "it was never started";
}

TEST(Cluster_Outcome, a_success_of_long_ago_does_not_count_for_the_newest_start)
{
  const std::string text = why_nobody_worked(
      "job", {outcome("db1", "completed", "", 1700000000), outcome("db2", "error", "down", 1700086400)});
  EXPECT_NE(text.find("host db1: no run of this start is known; host db2: error, down"), std::string::npos)
      << text;
}
