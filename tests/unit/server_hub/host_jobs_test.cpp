#include "server/host_jobs.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

using kestrel::Host_Jobs;

namespace
{
json_spirit::Value json(const std::string& text)
{
  json_spirit::Value value;
  std::string error;
  EXPECT_TRUE(kestrel::read_json(text, value, error)) << error;
  return value;
}

bool tell(Host_Jobs& jobs, const std::string& text)
{
  return jobs.changed(json(text).get_obj());
}
} // namespace

TEST(Host_Jobs, counts_the_runs_under_way)
{
  Host_Jobs jobs;
  jobs.greeted(json(R"([{"id":"one","running":true,"run_id":"r1"},{"id":"two","running":false}])").get_array());
  EXPECT_EQ(jobs.running(), 1u);
  EXPECT_TRUE(tell(jobs, R"({"id":"two","run_id":"r2","state":"running"})"));
  EXPECT_TRUE(tell(jobs, R"({"id":"two","run_id":"r2","state":"running","progress":10})"));
  EXPECT_EQ(jobs.running(), 2u);
  EXPECT_EQ(jobs.running_but("two"), 1u);
  EXPECT_TRUE(tell(jobs, R"({"id":"two","run_id":"r2","state":"completed"})"));
  EXPECT_EQ(jobs.running(), 1u);
}

TEST(Host_Jobs, a_new_greeting_forgets_and_a_new_list_keeps_the_last_state)
{
  Host_Jobs jobs;
  EXPECT_TRUE(tell(jobs, R"({"id":"one","run_id":"r1","state":"running","done_bytes":5,"other":1})"));
  jobs.listed(json(R"([{"id":"one","running":true,"run_id":"r1","next_run":9}])").get_array());
  EXPECT_EQ(kestrel::write_json(jobs.job("one")),
            R"({"id":"one","running":true,"run_id":"r1","next_run":9,)"
            R"("now":{"run_id":"r1","state":"running","done_bytes":5,"item":""}})");
  jobs.greeted(json(R"([{"id":"one","running":false}])").get_array());
  EXPECT_EQ(kestrel::write_json(jobs.job("one")), R"({"id":"one","running":false})");
  EXPECT_EQ(jobs.running(), 0u);
  EXPECT_TRUE(jobs.job("two").is_null());
}

TEST(Host_Jobs, finds_the_job_of_a_run)
{
  Host_Jobs jobs;
  jobs.greeted(json(R"([{"id":"one","running":true,"run_id":"r1","state":"running"}])").get_array());
  EXPECT_TRUE(tell(jobs, R"({"id":"two","run_id":"r2","state":"paused"})"));
  std::string definition, state;
  EXPECT_TRUE(jobs.find_run("r1", definition, state));
  EXPECT_EQ(definition + " " + state, "one running");
  EXPECT_TRUE(jobs.find_run("r2", definition, state));
  EXPECT_EQ(definition + " " + state, "two paused");
  EXPECT_FALSE(jobs.find_run("r3", definition, state));
}

TEST(Host_Jobs, leaves_out_what_is_no_job)
{
  Host_Jobs jobs;
  jobs.greeted(json(R"([1,null,{},{"id":7},{"id":""},{"id":"one","running":"yes","run_id":{}}])").get_array());
  EXPECT_EQ(jobs.running(), 0u);
  EXPECT_FALSE(tell(jobs, "{}"));
  EXPECT_FALSE(tell(jobs, R"({"id":"one"})"));
  EXPECT_FALSE(tell(jobs, R"({"id":1,"run_id":2,"state":3})"));
  EXPECT_TRUE(tell(jobs, R"({"id":"one","state":"no such state","run_id":"r9"})"));
  EXPECT_EQ(jobs.running(), 0u);
}

TEST(Host_Jobs, tells_runs_under_way_from_others)
{
  for (const char* state : {"queued", "starting", "running", "pausing", "canceling"})
    EXPECT_TRUE(kestrel::run_under_way(state)) << state;
  for (const char* state : {"completed", "canceled", "error", "skipped", "paused", "idle", "", "anything"})
    EXPECT_FALSE(kestrel::run_under_way(state)) << state;
}
