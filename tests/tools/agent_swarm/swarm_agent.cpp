#include "swarm_agent.h"

#include "base/clock.h"
#include "base/uuid.h"
#include "json/json_util.h"

#include <chrono>

using namespace kestrel;

namespace
{
constexpr size_t BATCH = 50;
} // namespace

Swarm_Agent::Swarm_Agent(Network_Threads& network, kestrel_test::Enrollment enrollment, Swarm_Counts& counts,
                         uint32_t seed)
    : counts_(counts), random_(seed), agent_(network, std::move(enrollment))
{
  agent_.set_node(static_cast<int>(seed), seed % 3 == 0, true);
  agent_.on("job.control", [this](const json_spirit::Value& params, json_spirit::Value& result,
                                  JSON_RPC_Error& error) { return serve_control(params, result, error); });
}

Swarm_Agent::~Swarm_Agent()
{
  ending_ = true;
  if (thread_.joinable())
    thread_.join();
}

bool Swarm_Agent::serve_control(const json_spirit::Value& params, json_spirit::Value& result,
                                JSON_RPC_Error& error)
{
  const std::string id = required<std::string>(params.get_obj(), "id");
  json_spirit::Object answer;
  std::string run_id;
  if (required<std::string>(params.get_obj(), "action") == "run") {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (ending_) {
      error.code = JSON_RPC_WRONG_STATE;
      error.message = "the agent is ending";
      return false;
    }
    run_id = make_uuid();
    asked_.push_back(Run{run_id, id, "console"});
    runs_.insert(run_id);
  }
  answer.emplace_back("run_id", run_id);
  result = std::move(answer);
  return true;
}

void Swarm_Agent::start()
{
  thread_ = std::thread([this] { work(); });
}

int Swarm_Agent::random(int least, int most)
{
  return std::uniform_int_distribution<int>(least, most)(random_);
}

void Swarm_Agent::pause(int msec)
{
  std::this_thread::sleep_for(std::chrono::milliseconds(msec));
}

void Swarm_Agent::keep_connection()
{
  if (!agent_.connected()) {
    if (std::exchange(was_connected_, false))
      --counts_.connected;
    std::string error;
    if (!agent_.connect(error)) {
      ++counts_.failed_connections;
      agent_.disconnect();
      pause(random(200, 1000));
      return;
    }
    ++counts_.connections;
    ++counts_.connected;
    was_connected_ = true;
  } else if (random(0, 40) == 0) {
    agent_.disconnect();
  }
}

void Swarm_Agent::ask_for_node(const std::string& definition)
{
  int64_t time = 0;
  REST_Problem problem;
  if (!agent_.request_selection(definition, random(0, 1) == 0, time, problem)) {
    ++counts_.failed_selections;
    return;
  }
  ++counts_.selections;
  ++selections_;
}

void Swarm_Agent::perform(const Run& run)
{
  const int64_t began = kestrel::clock().now();
  (void)agent_.tell_state(run.definition, run.id, "running");
  if (random(0, 4) == 0)
    ask_for_node(run.definition);
  pause(random(5, 50));
  (void)agent_.tell_state(run.definition, run.id, "completed");
  json_spirit::Object record;
  record.emplace_back("run_id", run.id);
  record.emplace_back("definition_id", run.definition);
  record.emplace_back("revision", 1);
  record.emplace_back("name", "swarm");
  record.emplace_back("trigger", run.trigger);
  record.emplace_back("state", "completed");
  record.emplace_back("queued_at", began);
  record.emplace_back("started_at", began);
  record.emplace_back("ended_at", static_cast<int64_t>(kestrel::clock().now()));
  const std::lock_guard<std::mutex> guard(mutex_);
  unreported_.push_back(std::move(record));
  runs_.insert(run.id);
  ++counts_.runs;
}

void Swarm_Agent::report()
{
  json_spirit::Array batch;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    batch.assign(unreported_.begin(),
                 unreported_.begin() + static_cast<std::ptrdiff_t>(std::min(BATCH, unreported_.size())));
  }
  if (batch.empty())
    return;
  std::vector<std::string> stored;
  REST_Problem problem;
  if (!agent_.report_runs(batch, stored, problem)) {
    ++counts_.failed_reports;
    return;
  }
  // Now and then the answer is taken as lost, so that the batch goes out twice.
  if (random(0, 20) == 0)
    return;
  const std::set<std::string> done(stored.begin(), stored.end());
  const std::lock_guard<std::mutex> guard(mutex_);
  json_spirit::Array left;
  for (json_spirit::Value& record : unreported_)
    if (done.count(kestrel_test::member_text(record.get_obj(), "run_id")) == 0)
      left.push_back(std::move(record));
  counts_.reported += unreported_.size() - left.size();
  unreported_ = std::move(left);
}

void Swarm_Agent::work()
{
  for (;;) {
    keep_connection();
    Run run;
    {
      const std::lock_guard<std::mutex> guard(mutex_);
      if (!asked_.empty()) {
        run = asked_.front();
        asked_.pop_front();
      } else if (ending_ && unreported_.empty())
        break;
    }
    if (run.id.empty() && !ending_) {
      const std::vector<std::string> known = agent_.definitions();
      if (!known.empty() && random(0, 1) == 0)
        run = Run{make_uuid(), known[static_cast<size_t>(random(0, static_cast<int>(known.size()) - 1))],
                  "schedule"};
    }
    if (!run.id.empty())
      perform(run);
    report();
    const uint64_t told = agent_.announcements().size();
    counts_.announcements += told - counted_announcements_;
    counted_announcements_ = told;
    if (told > selections_)
      ++counts_.surplus_announcements;
    if (!ending_)
      pause(random(50, 400));
  }
  reported_all_ = true;
}

void Swarm_Agent::end()
{
  const std::lock_guard<std::mutex> guard(mutex_);
  ending_ = true;
}

bool Swarm_Agent::finish(int limit_seconds)
{
  end();
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(limit_seconds);
  while (!reported_all_ && std::chrono::steady_clock::now() < end)
    pause(20);
  return reported_all_;
}

std::set<std::string> Swarm_Agent::runs() const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return runs_;
}
