#include "server/host_workers.h"

#include "base/heartbeat.h"
#include "support/clocks.h"
#include "support/waiting.h"

#include <gtest/gtest.h>

#include <future>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
typedef std::vector<std::string> Names;
constexpr int64_t LONG_MSEC = 20 * 60 * 1000;

TEST(Host_Workers, a_host_that_hangs_is_no_stuck_server_and_tasks_that_nobody_begins_are)
{
  Fake_Clock clock;
  Heartbeats heartbeats;
  Host_Workers workers(2, 1);
  workers.watch(&heartbeats, "workers");
  std::promise<void> release;
  const std::shared_future<void> released = release.get_future().share();
  const auto hang_up = [&](const std::string& host) {
    const auto begun = std::make_shared<std::promise<void>>();
    workers.add(host, [begun, released] {
      begun->set_value();
      released.wait();
    });
    begun->get_future().wait();
  };
  hang_up("one");
  workers.add("one", [] {});
  clock.advance_msec(LONG_MSEC);
  EXPECT_TRUE(heartbeats.stuck().empty()) << "what waits behind a host that hangs";
  hang_up("two");
  clock.advance_msec(LONG_MSEC);
  EXPECT_TRUE(heartbeats.stuck().empty()) << "nobody waits for a thread";
  std::promise<void> third;
  workers.add("three", [&] { third.set_value(); });
  EXPECT_TRUE(heartbeats.stuck().empty());
  clock.advance_msec(LONG_MSEC);
  EXPECT_EQ(Names{"workers"}, heartbeats.stuck());
  release.set_value();
  third.get_future().wait();
  EXPECT_TRUE(eventually([&] { return heartbeats.stuck().empty(); }));
  workers.stop();
  clock.advance_msec(LONG_MSEC);
  EXPECT_TRUE(heartbeats.stuck().empty());
}
} // namespace
