#include "agent_bench.h"

#include "base/path_conf.h"
#include "jobs/job_definition_loader.h"
#include "support/paths.h"
#include "support/waiting.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

namespace kestrel_test
{
namespace
{
constexpr unsigned time_factor = 20;
}

std::string text_of(const json_spirit::Object& object, const std::string& key)
{
  const json_spirit::Value& value = find_value(object, key);
  return value.type() == json_spirit::str_type ? value.get_str() : kestrel::write_json(value);
}

int64_t number_of(const json_spirit::Object& object, const std::string& key)
{
  const json_spirit::Value& value = find_value(object, key);
  return value.type() == json_spirit::int_type ? value.get_int64() : -1;
}

Agent_Bench::Agent_Bench(unsigned max_concurrent) : bench(time_factor)
{
  std::vector<kestrel::Module_Config> configs = kestrel::default_agent_config().modules;
  configs.front().path = lib_dir() + "/oscar.so";
  std::string error;
  EXPECT_TRUE(modules.open(configs, error)) << error;
  set_good_brcmd();
  settings.host_uuid = "host-1";
  settings.max_concurrent = max_concurrent;
}

void Agent_Bench::set_good_brcmd()
{
  // Every backup has an id of its own. Jobs run at once: none may see what another's tool has written in
  // part.
  const std::string state = bench.dir / "state_${pid}";
  bench.set_brcmd("begin ${option:-f}\nput_file " + (bench.dir / "stream") + "\nfinish\nwrite_file " + state +
                  " \"PHYS7_lastfullbackupid=full-${run}\\nPHYS7_lastfullbackuplsn=10\\n"
                  "PHYS7_lastfullbackupscn=11\\nPHYS7_lastbackupid=full-${run}\\nPHYS7_lastbackuplsn=10\\n"
                  "PHYS7_lastbackupscn=11\\n\"\nreplace " +
                  state + " " + bench.home + "/agent/lastlsn.dat\n");
}

Agent_Bench::~Agent_Bench()
{
  if (jobs) {
    EXPECT_TRUE(jobs->stop(0, true));
  }
  jobs.reset();
}

std::string Agent_Bench::id(unsigned number)
{
  char text[40];
  std::snprintf(text, sizeof text, "7d3a1c52-0000-4000-9000-0000%08u", number);
  return text;
}

std::string Agent_Bench::source(unsigned number)
{
  char text[40];
  std::snprintf(text, sizeof text, "7d3a1c52-0000-4000-8000-0000%08u", number);
  return text;
}

json_spirit::Object Agent_Bench::document(unsigned number, bool waits) const
{
  return document_of_source(number, number, waits);
}

json_spirit::Object Agent_Bench::document_of_source(unsigned number, unsigned source_number, bool waits) const
{
  kestrel::Job_Definition_Fields fields = bench.backup_fields();
  fields.id = id(number);
  fields.name = "job " + std::to_string(number);
  if (waits) {
    const std::string end = std::to_string(number);
    fields.pre_action = "echo x >" + (bench.dir / ("up_" + end)) + "; while [ ! -e " +
                        (bench.dir / ("go_" + end)) + " ]; do sleep 0.01; done";
  }
  std::string text, error;
  EXPECT_TRUE(kestrel::Job_Definition_Loader::generate(Job_Definition(fields), text, error)) << error;
  json_spirit::Value value;
  EXPECT_TRUE(kestrel::read_json(text, value, error)) << error;
  json_spirit::Object document = value.get_obj();
  json_spirit::Object source_document = find_value(document, "source").get_obj();
  kestrel::set_value(source_document, "id", source(source_number));
  kestrel::set_value(document, "source", source_document);
  return document;
}

json_spirit::Object Agent_Bench::definition(const json_spirit::Object& document, uint64_t revision,
                                            bool enabled)
{
  json_spirit::Object object;
  kestrel::set_value(object, "id", text_of(document, "id"));
  kestrel::set_value(object, "revision", revision);
  kestrel::set_value(object, "enabled", enabled);
  kestrel::set_value(object, "document", document);
  return object;
}

kestrel::Agent_Jobs& Agent_Bench::make()
{
  jobs.reset();
  jobs = std::make_unique<kestrel::Agent_Jobs>(modules, settings);
  jobs->set_listener([this](const kestrel::Job_Notice& notice) {
    const std::lock_guard<std::mutex> guard(mutex_);
    notices_.push_back(notice);
  });
  return *jobs;
}

void Agent_Bench::open()
{
  std::string error;
  ASSERT_TRUE(make().open(error)) << error;
}

void Agent_Bench::start()
{
  std::string error;
  if (!jobs)
    open();
  ASSERT_TRUE(jobs->start(error)) << error;
}

void Agent_Bench::stop(unsigned grace_seconds, bool cancel)
{
  EXPECT_TRUE(jobs->stop(grace_seconds, cancel));
  jobs.reset();
}

json_spirit::Array Agent_Bench::sync(const json_spirit::Array& definitions)
{
  json_spirit::Array refused;
  kestrel::Jobs_Error error;
  EXPECT_TRUE(jobs->sync(definitions, refused, error)) << error.text;
  return refused;
}

void Agent_Bench::sync_documents(const std::vector<json_spirit::Object>& documents)
{
  json_spirit::Array definitions;
  for (const json_spirit::Object& document : documents)
    definitions.push_back(definition(document));
  const json_spirit::Array refused = sync(definitions);
  EXPECT_TRUE(refused.empty()) << kestrel::write_json(refused);
}

std::string Agent_Bench::control(unsigned number, const std::string& action)
{
  std::string run_id;
  kestrel::Jobs_Error error;
  EXPECT_TRUE(jobs->control(id(number), action, json_spirit::Object(), run_id, error))
      << action << ": " << error.text;
  return run_id;
}

std::string Agent_Bench::refusal(unsigned number, const std::string& action, int code)
{
  std::string run_id = "untouched";
  kestrel::Jobs_Error error;
  EXPECT_FALSE(jobs->control(id(number), action, json_spirit::Object(), run_id, error)) << action;
  EXPECT_EQ(code, error.code) << error.text;
  EXPECT_EQ("untouched", run_id);
  return error.text;
}

json_spirit::Array Agent_Bench::history(const std::string& definition_id) const
{
  json_spirit::Array runs;
  kestrel::Jobs_Error error;
  EXPECT_TRUE(jobs->history(definition_id, 1000, runs, error)) << error.text;
  return runs;
}

json_spirit::Value Agent_Bench::record(const std::string& run_id) const
{
  for (const json_spirit::Value& run : history())
    if (text_of(run.get_obj(), "run_id") == run_id)
      return run;
  return json_spirit::Value();
}

json_spirit::Object Agent_Bench::wait_ended(const std::string& run_id) const
{
  EXPECT_TRUE(eventually([&] {
    const json_spirit::Value run = record(run_id);
    return !run.is_null() && number_of(run.get_obj(), "ended_at") > 0;
  })) << kestrel::write_json(record(run_id));
  const json_spirit::Value run = record(run_id);
  return run.is_null() ? json_spirit::Object() : run.get_obj();
}

json_spirit::Object Agent_Bench::entry(unsigned number) const
{
  for (const json_spirit::Value& job : jobs->list())
    if (text_of(job.get_obj(), "id") == id(number))
      return job.get_obj();
  return json_spirit::Object();
}

std::string Agent_Bench::state(unsigned number) const
{
  return text_of(entry(number), "state");
}

std::string Agent_Bench::log_text(const std::string& run_id) const
{
  json_spirit::Object part;
  kestrel::Jobs_Error error;
  EXPECT_TRUE(jobs->log(run_id, 0, 0, part, error)) << error.text;
  return text_of(part, "text");
}

std::vector<std::string> Agent_Bench::heard(const std::string& run_id) const
{
  std::vector<std::string> states;
  const std::lock_guard<std::mutex> guard(mutex_);
  for (const kestrel::Job_Notice& notice : notices_) {
    const std::string state = kestrel::job_state_text(notice.state);
    if (notice.run_id == run_id && (states.empty() || states.back() != state))
      states.push_back(state);
  }
  return states;
}

std::string Agent_Bench::activity_path(unsigned number) const
{
  return Job_Activity_Path_Conf::path(id(number));
}

std::string Agent_Bench::database() const
{
  return kestrel::state_path("agent.db");
}
} // namespace kestrel_test
