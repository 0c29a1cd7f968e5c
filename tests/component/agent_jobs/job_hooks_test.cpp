#include "agent/agent_jobs.h"
#include "agent/module_table.h"
#include "base/file_system.h"
#include "base/path_conf.h"
#include "jobs/job_activity.h"
#include "support/log_capture.h"
#include "support/paths.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"
#include "support/waiting.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <sqlite3.h>
#include <thread>
#include <unistd.h>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
typedef std::vector<std::string> Lines;

std::string id(unsigned number)
{
  char text[40];
  std::snprintf(text, sizeof text, "7d3a1c52-0000-4000-9000-0000%08u", number);
  return text;
}

/// An agent's job side with a module that writes down what is called of its jobs.
class Job_Hooks_Test : public testing::Test
{
protected:
  Job_Hooks_Test()
  {
    Module_Config config;
    config.name = "recorder";
    config.path = lib_dir() + "/hook_recorder.so";
    config.jobs = {{"backup", {"Recording_Creator", {record_}}},
                   {"restore", {"Recording_Creator", {record_}}},
                   {"backup/export", {"Other_Creator", {record_}}}};
    std::string error;
    EXPECT_TRUE(modules_.open({config}, error)) << error;
    open();
  }
  ~Job_Hooks_Test() override { close(); }

  void open(const std::string& database = std::string())
  {
    Agent_Jobs::Settings settings;
    settings.database = database;
    jobs_ = std::make_unique<Agent_Jobs>(modules_, settings);
    std::string error;
    ASSERT_TRUE(jobs_->open(error)) << error;
    ASSERT_TRUE(jobs_->start(error)) << error;
  }
  void close()
  {
    if (jobs_) {
      EXPECT_TRUE(jobs_->stop(600, false));
    }
    jobs_.reset();
  }

  /// A definition as the server sends it.
  static json_spirit::Value offer(unsigned number, const std::string& name, bool on_demand,
                                  uint64_t revision = 1, bool enabled = true,
                                  const std::string& kind = "\"type\":\"backup\",\"subtype\":\"full\"")
  {
    const std::string text = "{\"id\":\"" + id(number) + "\",\"revision\":" + std::to_string(revision) +
                             ",\"enabled\":" + (enabled ? "true" : "false") + ",\"document\":{\"id\":\"" +
                             id(number) + "\",\"uid\":\"01020304-0506-4708-890a-0b0c0d0e0f10\",\"name\":\"" +
                             name + "\"," + kind + ",\"target\":{\"id\":\"pool\"},\"schedules\":[" +
                             (on_demand ? "{\"type\":7}" : "{\"type\":1,\"cron\":\"0 0 1 1 *\"}") + "]}}";
    json_spirit::Value value;
    std::string error;
    EXPECT_TRUE(read_json(text, value, error)) << error << text;
    return value;
  }
  /// The complete set of definitions; gives how many were refused.
  size_t sync(const json_spirit::Array& offers)
  {
    json_spirit::Array refused;
    Jobs_Error error;
    EXPECT_TRUE(jobs_->sync(offers, refused, error)) << error.text;
    return refused.size();
  }
  void control(unsigned number, const std::string& action)
  {
    std::string run_id;
    Jobs_Error error;
    EXPECT_TRUE(jobs_->control(id(number), action, json_spirit::Object(), run_id, error)) << error.text;
  }
  json_spirit::Object entry(unsigned number) const
  {
    for (const json_spirit::Value& job : jobs_->list())
      if (find_value(job.get_obj(), "id").get_str() == id(number))
        return job.get_obj();
    return json_spirit::Object();
  }

  Lines calls() const
  {
    Lines lines;
    std::ifstream file(record_);
    for (std::string line; std::getline(file, line);)
      lines.push_back(line);
    return lines;
  }
  /// The calls since the last time.
  Lines new_calls()
  {
    const Lines all = calls();
    const Lines lines(all.begin() + static_cast<std::ptrdiff_t>(seen_), all.end());
    seen_ = all.size();
    return lines;
  }
  /// The agent's database as a kill at this moment would leave it.
  std::string database_of_a_kill()
  {
    const std::string copy = root_ / "killed.db";
    sqlite3* database = nullptr;
    EXPECT_EQ(SQLITE_OK, sqlite3_open(state_path("agent.db").c_str(), &database));
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(database, ("VACUUM INTO '" + copy + "'").c_str(), nullptr, nullptr, nullptr))
        << sqlite3_errmsg(database);
    sqlite3_close(database);
    return copy;
  }
  static bool has_record(unsigned number)
  {
    return ::access(Job_Activity_Path_Conf::path(id(number)).c_str(), F_OK) == 0;
  }

  const Temp_Dir root_;
  const Scoped_Env env_{"KESTREL_ROOT", root_.path()};
  const std::string record_ = root_ / "calls";
  Module_Table modules_;
  std::unique_ptr<Agent_Jobs> jobs_;
  size_t seen_ = 0;
};
} // namespace

TEST_F(Job_Hooks_Test, sets_up_what_comes_with_an_on_demand_schedule_and_nothing_else)
{
  EXPECT_EQ(0u, sync({offer(1, "a", true), offer(2, "b", false), offer(3, "c", true, 1, false)}));
  EXPECT_EQ((Lines{"setup_ondemand full a", "setup_ondemand full c"}), new_calls());
  sync({offer(1, "a", true), offer(2, "b", false), offer(3, "c", true, 1, false)});
  EXPECT_EQ(Lines(), new_calls()) << "it was there already";
}

TEST_F(Job_Hooks_Test, updates_the_job_of_the_old_definition_with_the_new_one)
{
  sync({offer(1, "a", true), offer(2, "b", false)});
  new_calls();
  sync({offer(1, "a2", true, 2), offer(2, "b2", false, 2)});
  EXPECT_EQ((Lines{"update full a -> a2", "update full b -> b2"}), new_calls());
  sync({offer(1, "a2", true, 2), offer(2, "b3", true, 3)});
  EXPECT_EQ((Lines{"update full b2 -> b3", "setup_ondemand full b3"}), new_calls())
      << "it becomes one on demand";
}

TEST_F(Job_Hooks_Test, calls_nothing_for_a_definition_that_stays_as_it_is)
{
  const json_spirit::Array both = {offer(1, "a", true), offer(2, "b", false)};
  sync(both);
  new_calls();
  close();
  open();
  sync(both);
  EXPECT_EQ(Lines(), new_calls()) << "after a restart";
  sync({offer(1, "a", true, 7), offer(2, "b", false, 8)});
  EXPECT_EQ(Lines(), new_calls()) << "another revision of the same document";
  sync({offer(1, "a", true, 7, false), offer(2, "b", false, 8)});
  EXPECT_EQ(Lines(), new_calls()) << "disabled";
  control(1, "enable");
  EXPECT_EQ(Lines(), new_calls());
}

TEST_F(Job_Hooks_Test, takes_a_set_up_back_when_the_schedule_or_the_definition_goes)
{
  sync({offer(1, "a", true), offer(2, "b", true), offer(3, "c", false)});
  new_calls();
  sync({offer(1, "a2", false, 2), offer(2, "b", true), offer(3, "c", false)});
  EXPECT_EQ((Lines{"remove_ondemand full a", "remove full a", "update full a -> a2"}), new_calls());
  sync({offer(1, "a2", false, 2)});
  EXPECT_EQ((Lines{"remove_ondemand full b", "remove full b"}), new_calls())
      << "the third one never had a job";
  EXPECT_FALSE(has_record(2));
  EXPECT_TRUE(has_record(1));
  sync({offer(1, "a2", false, 2), offer(2, "b", true)});
  EXPECT_EQ((Lines{"setup_ondemand full b"}), new_calls()) << "it comes again";
}

TEST_F(Job_Hooks_Test, a_job_without_its_set_up_stays_disabled)
{
  sync({offer(1, "a", true, 1, false)});
  sync({offer(1, "a2", false, 2, false)});
  EXPECT_EQ("disabled", find_value(entry(1), "state").get_str());
  Mem_Map_Handle<Job_Activity, Job_Activity_Path_Conf, 4096u> record(id(1));
  EXPECT_EQ(JOB_STATE_DISABLED, record->state.load()) << "the record is a new one";
}

TEST_F(Job_Hooks_Test, another_kind_of_job_takes_the_place_of_the_old_one)
{
  sync({offer(1, "a", true), offer(2, "b", true)});
  new_calls();
  sync({offer(1, "a2", true, 2, true, R"("type":"backup","subtype":"export")"),
        offer(2, "b2", false, 2, true, R"("type":"restore","subtype":"import")")});
  EXPECT_EQ((Lines{"remove_ondemand full a", "remove full a", "setup_ondemand export a2",
                   "remove_ondemand full b", "remove full b"}),
            new_calls());
  sync({offer(1, "a3", true, 3, true, R"("type":"backup","subtype":"incr")"), offer(2, "b2", true)});
  new_calls();
  sync({offer(1, "a4", true, 4, true, R"("type":"backup","subtype":"diff")"), offer(2, "b2", true)});
  EXPECT_EQ((Lines{"update incr a3 -> a4"}), new_calls()) << "another level is no other kind";
}

TEST_F(Job_Hooks_Test, a_refused_definition_takes_the_set_up_back_until_it_is_usable_again)
{
  const std::string unusable = R"("type":"backup","subtype":"full","source":{})";
  sync({offer(1, "a", true), offer(2, "b", false)});
  new_calls();
  EXPECT_EQ(2u, sync({offer(1, "a2", true, 2, true, unusable), offer(2, "b2", false, 2, true, unusable)}));
  EXPECT_EQ((Lines{"remove_ondemand full a", "remove full a"}), new_calls());
  EXPECT_EQ(0u, sync({offer(1, "a3", true, 3), offer(2, "b3", false, 3)}));
  EXPECT_EQ((Lines{"setup_ondemand full a3"}), new_calls());
}

TEST_F(Job_Hooks_Test, the_job_of_a_failed_hook_stays)
{
  Log_Capture log;
  EXPECT_EQ(0u, sync({offer(1, "refuses", true), offer(2, "throws", true)}));
  const std::string later = "it can be run all the same; tried again when its definition changes";
  log.expect(LM_WARNING, "setup_ondemand() of job refuses (" + id(1) + "): the module refuses; " + later);
  log.expect(LM_WARNING, "setup_ondemand() of job throws (" + id(2) + "): thrown on purpose; " + later);
  new_calls();
  EXPECT_EQ(0u, sync({offer(1, "good", true, 2), offer(2, "throws 2", true, 2)}));
  EXPECT_EQ((Lines{"update full refuses -> good", "setup_ondemand full good",
                   "update full throws -> throws 2", "setup_ondemand full throws 2"}),
            new_calls())
      << "the set-ups that failed are made again";
  const std::string all_the_same = "its next run has the new definition all the same";
  log.expect(LM_WARNING, "update() of job refuses (" + id(1) + "): the module refuses; " + all_the_same);
  log.expect(LM_WARNING, "update() of job throws (" + id(2) + "): thrown on purpose; " + all_the_same);
  log.expect(LM_WARNING, "setup_ondemand() of job throws 2");
  EXPECT_EQ(2, find_value(entry(1), "revision").get_int64());
  EXPECT_EQ(2, find_value(entry(2), "revision").get_int64());
  sync({offer(1, "better", true, 3)});
  log.expect(LM_WARNING, "remove() of job throws 2 (" + id(2) +
                             "): thrown on purpose; the module may keep something of it");
  EXPECT_EQ((Lines{"update full good -> better", "remove_ondemand full throws 2"}), new_calls());
  EXPECT_FALSE(has_record(2));
  EXPECT_EQ(1u, jobs_->list().size());
}

TEST_F(Job_Hooks_Test, nothing_but_the_runs_of_its_job_waits_for_a_hook)
{
  std::atomic<bool> told{false};
  std::thread server([&] {
    sync({offer(1, "waits", true), offer(2, "b", false)});
    told = true;
  });
  EXPECT_TRUE(eventually([&] { return calls().size() == 1; }));
  EXPECT_EQ(2u, jobs_->list().size()) << "no lock is held";
  control(1, "run");
  control(2, "run");
  EXPECT_TRUE(eventually([&] { return calls().size() == 2; }));
  EXPECT_EQ((Lines{"setup_ondemand full waits", "run b"}), calls());
  EXPECT_EQ(1u, jobs_->counts().queued);
  EXPECT_FALSE(told);
  root_.write("calls.go", "");
  server.join();
  EXPECT_TRUE(eventually([&] { return calls().size() == 3; }));
  EXPECT_EQ("run waits", calls().back());
}

TEST_F(Job_Hooks_Test, changes_of_several_threads_are_told_in_their_order)
{
  sync({offer(1, "a", false), offer(2, "b", false)});
  std::thread first([&] { sync({offer(1, "waits", true, 2), offer(2, "b", false)}); });
  EXPECT_TRUE(
      eventually([&] { return !calls().empty(); })); // in setup_ondemand: the update was of the old one
  std::thread second([&] { sync({offer(1, "last", true, 3), offer(2, "b", false)}); });
  EXPECT_TRUE(eventually([&] { return find_value(entry(1), "name").get_str() == "last"; }));
  control(2, "run");
  EXPECT_TRUE(eventually([&] { return calls().size() == 3; })) << "who adds nothing waits for nobody";
  root_.write("calls.go", "");
  first.join();
  second.join();
  EXPECT_EQ(
      (Lines{"update full a -> waits", "setup_ondemand full waits", "run b", "update full waits -> last"}),
      calls());
}

TEST_F(Job_Hooks_Test, a_change_during_a_run_is_told_when_the_run_has_ended)
{
  std::thread server([&] { sync({offer(1, "waits", true)}); });
  EXPECT_TRUE(eventually([&] { return calls().size() == 1; }));
  control(1, "run"); // waits for the hook
  json_spirit::Array refused;
  Jobs_Error error;
  EXPECT_TRUE(jobs_->sync({offer(1, "changed", true, 2)}, refused, error))
      << "no wait for the other thread's hook";
  root_.write("calls.go", "");
  server.join();
  EXPECT_TRUE(eventually([&] { return calls().size() == 3; }));
  EXPECT_EQ((Lines{"setup_ondemand full waits", "run waits", "update full waits -> changed"}), calls());
}

TEST_F(Job_Hooks_Test, what_a_killed_agent_did_not_come_to_tell_is_told_by_the_next)
{
  sync({offer(2, "b", false), offer(3, "c", true), offer(4, "d", true), offer(5, "e", true)});
  std::thread server([&] {
    sync({offer(1, "waits", true), offer(2, "b2", true, 2), offer(4, "d", true), offer(5, "e2", true, 2)});
  });
  EXPECT_TRUE(eventually([&] { return calls().size() == 4; })) << "three set-ups, and the one that waits";
  const std::string database = database_of_a_kill();
  root_.write("calls.go", "");
  server.join();
  close();
  const Lines untold = {"update full b -> b2",    "setup_ondemand full b2", "remove_ondemand full c",
                        "remove full c",          "update full e -> e2",    "setup_ondemand full waits"};
  new_calls();
  open(database);
  EXPECT_TRUE(eventually([&] { return calls().size() >= seen_ + untold.size(); }));
  close();
  EXPECT_EQ(untold, new_calls());
  open(database);
  sync({offer(1, "waits", true), offer(2, "b2", true, 2), offer(4, "d", true), offer(5, "e2", true, 2)});
  close();
  EXPECT_EQ(Lines(), new_calls()) << "once told is enough";
}

TEST_F(Job_Hooks_Test, a_change_that_a_killed_agent_had_put_off_is_told_by_the_next)
{
  sync({offer(1, "a", true)});
  std::thread server([&] { sync({offer(1, "a", true), offer(2, "waits", true)}); });
  EXPECT_TRUE(eventually([&] { return calls().size() == 2; }));
  control(2, "run"); // waits for the hook
  sync({offer(1, "a", true), offer(2, "later", true, 2)});
  const std::string database = database_of_a_kill();
  root_.write("calls.go", "");
  server.join();
  EXPECT_TRUE(eventually([&] { return calls().size() == 4; })) << "the run, and the update of its job";
  close();
  new_calls();
  open(database);
  EXPECT_TRUE(eventually([&] { return calls().size() >= seen_ + 1; }));
  close();
  EXPECT_EQ((Lines{"setup_ondemand full later"}), new_calls());
}
