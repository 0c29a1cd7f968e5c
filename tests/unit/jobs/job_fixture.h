#pragma once

#include "base/ignore_result.h"
#include "job/default_job_t.h"
#include "job/job_executor_t.h"
#include "jobs/job.h"
#include "jobs/job_event.h"
#include "support/clocks.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"
#include "json/yajl_gen.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace kestrel_test
{
const char* const DEFINITION_ID = "11111111-2222-4333-8444-555555555555";
const char* const USER_ID = "01020304-0506-4708-890a-0b0c0d0e0f10";

class Plain_Source : public Job_Source
{
public:
  int generate(yajl_gen_t* gen) const override
  {
    YAJL_Gen(gen).map_open().string("id").string(id()).map_close();
    return 0;
  }
};

class Plain_Options : public Job_Options
{
public:
  int generate(yajl_gen_t* gen) override
  {
    YAJL_Gen(gen).map_open().map_close();
    return 0;
  }
};

inline kestrel::Job_Definition_Fields plain_fields()
{
  kestrel::Job_Definition_Fields fields;
  fields.type = JOB_DEFINITION_BACKUP;
  fields.subtype = JOB_DEFINITION_SUBTYPE_FULL;
  fields.id = DEFINITION_ID;
  fields.uid = USER_ID;
  fields.name = "nightly";
  fields.target = Job_Target("pool-1");
  fields.source = ACE_Refcounted_Auto_Ptr<Job_Source, ACE_Thread_Mutex>(new Plain_Source);
  fields.options = ACE_Refcounted_Auto_Ptr<Job_Options, ACE_Thread_Mutex>(new Plain_Options);
  return fields;
}

inline Job_Definition_Ptr make_definition(kestrel::Job_Definition_Fields fields = plain_fields())
{
  return Job_Definition_Ptr(new Job_Definition(std::move(fields)));
}

/// A door that threads wait at until it is opened.
class Gate
{
public:
  void open()
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  void wait()
  {
    std::unique_lock<std::mutex> guard(mutex_);
    changed_.wait(guard, [this] { return open_; });
  }

private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

/// What the executors of a test do, and what was asked of them.
struct Script {
  std::function<bool(Job&)> work = [](Job&) { return true; };
  std::function<bool(Job&)> active = [](Job&) { return true; };
  std::function<bool()> pre_action; // empty: the executor's own
  std::function<void()> constructing = [] {};
  std::function<void(const Job_Definition&)> rolling_back = [](const Job_Definition&) {};
  bool condition = true;
  int password_code = 0;
  bool results = true; // of everything else

  std::atomic<unsigned> works{0}, removes{0}, remove_ondemands{0}, setups{0}, updates{0}, rollbacks{0},
      post_actions{0};
  std::atomic<unsigned> alive{0}; // executors
  std::mutex mutex;
  bool got_options = false;
  std::map<std::string, json_spirit::Value> options;
};

inline Script*& current_script()
{
  static Script* script = nullptr;
  return script;
}

class Scripted_Executor : public Job_Executor_T<Plain_Source, Plain_Options, Job_Event_Handler>
{
public:
  explicit Scripted_Executor(Job& job) : Job_Executor_T(job), script_(*current_script())
  {
    script_.constructing();
    ++script_.alive;
  }
  ~Scripted_Executor() override { --script_.alive; }

  bool remove() override { return ++script_.removes, script_.results; }
  bool setup_ondemand() override { return ++script_.setups, script_.results; }
  bool remove_ondemand() override { return ++script_.remove_ondemands, script_.results; }
  bool update(Job_Definition_Ptr) override { return ++script_.updates, script_.results; }
  bool rollback() override
  {
    ++script_.rollbacks;
    script_.rolling_back(def_);
    return script_.results;
  }

protected:
  bool execute_i(const Opts* opts) override
  {
    {
      const std::lock_guard<std::mutex> guard(script_.mutex);
      script_.got_options = opts != nullptr;
      if (opts) {
        script_.options = *opts;
      }
    }
    ++script_.works;
    return script_.work(job_);
  }
  bool execute_pre_action() override
  {
    if (script_.pre_action) {
      return script_.pre_action();
    }
    return Job_Executor_T::execute_pre_action();
  }
  bool execute_post_action() override
  {
    ++script_.post_actions;
    return Job_Executor_T::execute_post_action();
  }
  bool check_condition() override { return script_.condition; }
  bool is_active(const Opts*) override { return script_.active(job_); }
  int check_password() override { return script_.password_code; }

private:
  Script& script_;
};

/// Writes down what it hears, one line an event.
class Recorder : public kestrel::Job_Event_Listener
{
public:
  Recorder() { Job_Event_Manager::instance()->add_listener(this); }
  ~Recorder() override { Job_Event_Manager::instance()->remove_listener(this); }

  void handle_start(const kestrel::Job_Start_Event&) override { note("start"); }
  void handle_progress(const Job_Progress_Event& event) override
  {
    note("progress " + std::to_string(event.progress()) + " " + std::to_string(event.a()) + " " +
         std::to_string(event.b()) + " " + std::to_string(event.c()));
  }
  void handle_state(const kestrel::Job_State_Event& event) override
  {
    note(std::string("state ") + kestrel::job_state_text(event.state()));
  }
  void handle_alert(const kestrel::Job_Alert_Event& event) override
  {
    note("alert " + std::to_string(event.category()) + " " + std::to_string(event.code()));
  }
  void handle_outcome(const kestrel::Job_Outcome_Event& event) override
  {
    std::string line = std::string("outcome ") + kestrel::job_state_text(event.state());
    if (event.state() == JOB_STATE_ERROR) {
      line += " " + std::to_string(event.code()) + " \"" + event.text() + "\"";
    }
    note(line);
  }
  void handle_end(const kestrel::Job_End_Event& event) override
  {
    note(std::string("end ") + kestrel::job_state_text(event.state()));
  }

  /// Everything that was put so far.
  std::vector<std::string> lines()
  {
    Job_Event_Manager::instance()->flush();
    const std::lock_guard<std::mutex> guard(mutex_);
    return lines_;
  }

private:
  void note(const std::string& line)
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    lines_.push_back(line);
  }

  std::mutex mutex_;
  std::vector<std::string> lines_;
};

typedef ACE_Intrusive_Auto_Ptr<Job> Job_Ptr;
typedef std::vector<std::string> Lines;

/// A product root of its own, a script, and nothing of a job left at the end.
class Job_Test : public testing::Test
{
protected:
  Job_Test() : root_env_("KESTREL_ROOT", root_.path()) { current_script() = &script_; }
  ~Job_Test() override
  {
    EXPECT_TRUE(Job::wait_all_runs(30000));
    EXPECT_EQ(0u, script_.alive.load());
    Job_Event_Manager::instance()->flush();
    current_script() = nullptr;
  }

  static Job_Ptr make_job(kestrel::Job_Definition_Fields fields = plain_fields())
  {
    return Job_Ptr(new Controllable_Job_T<Scripted_Executor>(make_definition(std::move(fields))), false);
  }
  /// One whole run.
  static void run(Job& job, const Job::Opts* opts = nullptr)
  {
    ASSERT_EQ(0, job.start(opts));
    ASSERT_TRUE(job.wait_end(30000));
  }

  Temp_Dir root_;
  Scoped_Env root_env_;
  Script script_;
};
} // namespace kestrel_test
