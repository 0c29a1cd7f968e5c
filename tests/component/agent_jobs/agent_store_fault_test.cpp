// Every write and sync of agent.db fails once, or from then on, while a definition arrives, a run is asked
// for, begins and ends, and its record is acknowledged: no run is lost or done twice, and what was refused
// works when it is asked again.

#include "agent_bench.h"

#include "support/fault_vfs.h"
#include "json/json_util.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>

using namespace kestrel_test;
using kestrel::Jobs_Error;

namespace
{
struct Store_Fault {
  const char* kind;
  int result;
  const char* cause; ///< as the refusal names it
};

const Store_Fault faults[] = {{"write", SQLITE_FULL, "disk is full"},
                              {"sync", SQLITE_IOERR_FSYNC, "disk I/O error"}};

/// An agent with one job, on a store whose faults the test sets. Every round is an agent of its own, on the
/// same store.
class Failing_Store
{
public:
  Failing_Store()
  {
    agent.bench.log.allow(LM_ERROR, "the agent's database");
    agent.bench.log.allow(LM_WARNING, "the agent's database");
    vfs.only("/agent.db");
    agent.start();
    agent.sync(json_spirit::Array(1, next_definition()));
    agent.stop();
  }
  ~Failing_Store() { vfs.heal(); }

  json_spirit::Object next_definition()
  {
    json_spirit::Object document = agent.document(1);
    kestrel::set_value(document, "pre_action", "echo x >>" + (agent.bench.dir / "work"));
    return Agent_Bench::definition(document, ++revision);
  }
  /// How often the work of a run was done.
  size_t done() const
  {
    const std::string path = agent.bench.dir / "work";
    const std::string text = exists(path) ? read_file(path) : std::string();
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
  }
  bool sync(Jobs_Error& error)
  {
    json_spirit::Array refused;
    return agent.jobs->sync(json_spirit::Array(1, definition), refused, error);
  }
  bool ask(Jobs_Error& error)
  {
    return agent.jobs->control(Agent_Bench::id(1), "run", json_spirit::Object(), run_id, error);
  }
  bool mark_sent(Jobs_Error& error) { return agent.jobs->mark_sent({run_id}, error); }
  void expect_refused(const Jobs_Error& error, const Store_Fault& fault) const
  {
    EXPECT_EQ(Jobs_Error::internal, error.code) << error.text;
    EXPECT_NE(std::string::npos, error.text.find("agent.db")) << error.text;
    EXPECT_NE(std::string::npos, error.text.find(fault.cause)) << error.text;
  }
  void wait_idle() const
  {
    EXPECT_TRUE(eventually([&] {
      const auto counts = agent.jobs->counts();
      return counts.running + counts.queued == 0;
    }));
  }
  /// Of a new agent on a store without faults: every run is told of once.
  std::vector<std::string> unsent_ids() const
  {
    std::vector<std::string> ids;
    for (const json_spirit::Value& run : agent.jobs->unsent_runs(100))
      ids.push_back(text_of(run.get_obj(), "run_id"));
    return ids;
  }

  Fault_Vfs vfs; // before all that opens the store
  Agent_Bench agent;
  uint64_t revision = 0;
  json_spirit::Object definition;
  std::string run_id;
};

/// A life in which the store recovers after the first refusal, or when the run has ended. True when the fault
/// was met.
bool live(Failing_Store& store, const Store_Fault& fault, unsigned number, bool for_ever)
{
  Agent_Bench& agent = store.agent;
  agent.start();
  const size_t done = store.done();
  const size_t runs = agent.history().size();
  store.definition = store.next_definition();
  store.vfs.fail(fault.kind, number, fault.result, for_ever);
  const auto insist = [&](const std::function<bool(Jobs_Error&)>& what) {
    Jobs_Error error;
    if (what(error))
      return;
    store.expect_refused(error, fault);
    store.vfs.heal();
    EXPECT_TRUE(what(error)) << error.text;
  };
  const auto revision = [&] { return static_cast<uint64_t>(number_of(agent.entry(1), "revision")); };
  insist([&](Jobs_Error& error) {
    const bool stored = store.sync(error);
    EXPECT_EQ(store.revision - !stored, revision());
    return stored;
  });
  insist([&](Jobs_Error& error) {
    const bool accepted = store.ask(error);
    EXPECT_TRUE(accepted || text_of(agent.entry(1), "run_id").empty()) << "it is there, but was refused";
    return accepted;
  });
  store.wait_idle();
  // As the link does; a record that waits in memory is not sent yet.
  const bool sent = !store.unsent_ids().empty();
  if (sent)
    insist([&](Jobs_Error& error) { return store.mark_sent(error); });
  const bool met = store.vfs.met();
  store.vfs.heal(); // what waited in memory is stored now
  const std::vector<std::string> unsent(sent ? 0 : 1, store.run_id);
  EXPECT_EQ("completed", text_of(agent.wait_ended(store.run_id), "state"));
  EXPECT_EQ(unsent, store.unsent_ids());
  agent.stop();
  agent.open();
  EXPECT_EQ("completed", text_of(agent.wait_ended(store.run_id), "state"));
  EXPECT_EQ(unsent, store.unsent_ids());
  EXPECT_EQ(runs + 1, agent.history().size());
  EXPECT_EQ(store.revision, revision());
  EXPECT_EQ(done + 1, store.done()) << "the work was done once";
  Jobs_Error error;
  EXPECT_TRUE(store.mark_sent(error)) << error.text;
  agent.stop();
  return met;
}

/// A life whose agent ends while the store still fails. True when the fault was met.
bool live_and_end(Failing_Store& store, const Store_Fault& fault, unsigned number)
{
  Agent_Bench& agent = store.agent;
  agent.start();
  const size_t done = store.done();
  const size_t runs = agent.history().size();
  store.definition = store.next_definition();
  store.vfs.fail(fault.kind, number, fault.result, true);
  Jobs_Error error;
  const bool synced = store.sync(error);
  const bool accepted = store.ask(error);
  store.wait_idle();
  const bool sent = !store.unsent_ids().empty() && store.mark_sent(error);
  const bool met = store.vfs.met();
  agent.stop();
  store.vfs.heal();
  agent.open();
  EXPECT_EQ(done + accepted, store.done()) << "what was refused is not done";
  EXPECT_GE(agent.history().size(), runs + accepted) << "a run is lost";
  EXPECT_LE(agent.history().size(), runs + 1);
  for (const json_spirit::Value& run : agent.jobs->unsent_runs(100)) {
    const json_spirit::Object& record = run.get_obj();
    EXPECT_GT(number_of(record, "ended_at"), 0);
    const std::string state = text_of(record, "state"), reason = text_of(record, "reason");
    if (!accepted)
      EXPECT_EQ("the agent ended before the run began", reason) << "a refused one that had reached the disk";
    else if (state != "completed") {
      EXPECT_EQ("error", state) << reason;
      EXPECT_EQ(0u, reason.find("the agent ended while the job was ")) << reason;
    }
  }
  // What could not be noted as sent may have been noted all the same.
  EXPECT_LE(store.unsent_ids().size(), agent.history().size() - runs - sent);
  const int64_t revision = number_of(agent.entry(1), "revision");
  EXPECT_TRUE(revision == static_cast<int64_t>(store.revision) || !synced) << revision;
  EXPECT_TRUE(agent.jobs->mark_sent(store.unsent_ids(), error)) << error.text;
  agent.stop();
  return met;
}
} // namespace

TEST(Agent_Store_Fault, that_passes_loses_no_run_and_repeats_none)
{
  for (const Store_Fault& fault : faults)
    for (const bool for_ever : {false, true}) {
      Failing_Store store;
      unsigned number = 1;
      bool met = true;
      for (; met && !testing::Test::HasFailure(); number += 1 + number / 5) {
        ASSERT_LT(number, 2000u);
        SCOPED_TRACE(std::string(fault.kind) + " " + std::to_string(number) +
                     (for_ever ? " and all later ones" : ""));
        met = live(store, fault, number, for_ever);
      }
      EXPECT_GT(number, 5u) << "too few calls for so many changes";
    }
}

TEST(Agent_Store_Fault, that_stays_until_the_agent_ends_leaves_every_run_with_one_record)
{
  for (const Store_Fault& fault : faults) {
    Failing_Store store;
    bool met = true;
    for (unsigned number = 1; met && !testing::Test::HasFailure(); number += 1 + number / 5) {
      ASSERT_LT(number, 2000u);
      SCOPED_TRACE(std::string(fault.kind) + " " + std::to_string(number) + " and all later ones");
      met = live_and_end(store, fault, number);
    }
    store.agent.start();
    EXPECT_EQ("completed", text_of(store.agent.wait_ended(store.agent.control(1, "run")), "state"));
  }
}

TEST(Agent_Store_Fault, that_lasts_does_not_fill_the_memory_with_skipped_times)
{
  Fault_Vfs vfs;
  Agent_Bench agent;
  agent.settings.most_unstored = 3;
  agent.bench.log.allow(LM_ERROR, "the agent's database");
  agent.bench.log.allow(LM_WARNING, "the agent's database");
  vfs.only("/agent.db");
  agent.start();
  std::vector<json_spirit::Object> documents;
  for (unsigned number = 1; number <= 5; ++number) {
    json_spirit::Object schedule{{"type", 1}, {"cron", "* * * * *"}, {"time_zone", "UTC"}};
    json_spirit::Object document = agent.document(number);
    kestrel::set_value(document, "schedules", json_spirit::Array(1, schedule));
    documents.push_back(std::move(document));
  }
  agent.sync_documents(documents);
  vfs.fail("write", 1, SQLITE_FULL, true);
  EXPECT_TRUE(eventually([&] { return agent.bench.log.contains("skipped times are not noted"); }));
  vfs.heal();
  // The waiting ones are stored, and the schedules work again.
  const auto count = [&](const std::string& state, const std::string& reason) {
    unsigned found = 0;
    for (const json_spirit::Value& run : agent.history())
      found += text_of(run.get_obj(), "state") == state &&
               text_of(run.get_obj(), "reason").find(reason) != std::string::npos;
    return found;
  };
  EXPECT_TRUE(eventually([&] { return count("completed", "") > 0; }));
  EXPECT_GE(3u, count("skipped", "disk is full"));
  agent.stop();
}
