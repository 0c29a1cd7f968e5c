#include "base/ignore_result.h"
#include "rpc/rest_router.h"
#include "server/agent_hub.h"
#include "server/cluster_coordinator.h"
#include "server/cluster_resources.h"
#include "server/database_failure.h"
#include "server/host_gate.h"
#include "server/job_definitions.h"
#include "server/run_records.h"
#include "server/run_resources.h"
#include "server/server_database.h"
#include "support/clocks.h"
#include "support/fault_vfs.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

#include <functional>
#include <sqlite3.h>

using namespace kestrel;
using namespace kestrel_test;
using json_spirit::Array;
using json_spirit::find_value;
using json_spirit::Object;

namespace
{
class No_Hosts : public Cluster_Hosts
{
public:
  std::string name(const std::string& host) override { return host; }
  bool connected(const std::string&) override { return false; }
  unsigned running_jobs(const std::string&, const std::string&) override { return 0; }
  int64_t last_chosen(const std::string&) override { return 0; }
  Agent_Call ask(const std::string&, const std::string&, const json_spirit::Value&, int, json_spirit::Value&,
                 JSON_RPC_Error&) override
  {
    return Agent_Call::offline;
  }
  Cluster_Job job_of(const Cluster_Request&) override { return Cluster_Job(); }
};

/// Runs and selections behind the router, on a database whose files fail as they are told. Nothing has
/// threads of its own, so that the calls to the disk come in the same order every time.
class Server_Faults : public testing::Test
{
protected:
  Server_Faults()
  {
    open_database();
    router_.set_authenticator([](const REST_Request& request, REST_Caller& caller, std::string&) {
      const bool agent = request.headers.count("x-host") != 0;
      caller.kind = agent ? REST_Caller::agent : REST_Caller::user;
      caller.role = agent ? "agent" : "viewer";
      caller.name = caller.uuid = agent ? request.headers.at("x-host") : "vic";
      return true;
    });
    router_.set_translator([this](const std::exception& error, REST_Reply& reply) {
      return database_failure_reply(database_, error, reply);
    });
    run_resources_.add_to(router_);
    cluster_resources_.add_to(router_);
    log_.allow(LM_ERROR, "Server_Host: ");
  }

  /// Without anything that an earlier connection had read.
  void open_database()
  {
    Server_Database::Options options;
    options.path = dir_ / "server.db";
    options.create = true;
    options.busy_timeout_msec = 1;
    std::string error;
    database_.close();
    EXPECT_TRUE(database_.open(options, error)) << error;
  }

  int ask(const std::string& method, const std::string& target, const std::string& body = std::string(),
          const std::string& host = std::string())
  {
    REST_Request request;
    request.method = method;
    request.body = body;
    if (!host.empty())
      request.headers["x-host"] = host;
    reply_ = router_.handle(request, "/k2/r/" + target);
    return reply_.status;
  }
  std::string answer() const { return write_json(reply_.json); }
  size_t size_of_list(const char* key) { return find_value(reply_.json.get_obj(), key).get_array().size(); }

  /// What a client is told of a failure.
  void expect_failure(const std::string& when)
  {
    EXPECT_TRUE(reply_.status == 500 || reply_.status == 503) << when << ": " << reply_.status << answer();
    EXPECT_EQ(reply_.status == 503, reply_.headers.count("Retry-After") != 0) << when;
    for (const char* inner : {"INSERT", "SELECT", "server.db", "stored", "selection_time"})
      EXPECT_EQ(std::string::npos, answer().find(inner)) << when << ": " << answer();
  }

  /// Calls attempt(NAME) while the first, second, ... call of each kind fails, until it does not come so far.
  void for_every_fault(const std::function<bool(const std::string& name)>& attempt)
  {
    const struct {
      const char* kind;
      int result;
    } faults[] = {{"write", SQLITE_FULL}, {"write", SQLITE_IOERR_WRITE}, {"sync", SQLITE_IOERR_FSYNC}};
    for (const auto& fault : faults)
      for (const bool for_ever : {false, true}) {
        unsigned failures = 0;
        bool met = true;
        for (unsigned number = 1; met; ++number) {
          ASSERT_LT(number, 1000u);
          failures += !attempt_with(fault.kind, number, fault.result, for_ever, attempt, met);
        }
        EXPECT_LT(0u, failures) << fault.kind << fault.result << for_ever;
      }
  }

  Log_Capture log_;
  Temp_Dir dir_;
  Fake_Clock clock_;
  Fault_Vfs files_; ///< before the database, which keeps its files open
  Server_Database database_;
  Agent_Hub hub_{database_};
  Host_Gate gate_{Host_Gate::Limits()};
  Job_Definitions definitions_{database_};
  Run_Records runs_{database_};
  Cluster_History history_{database_};
  No_Hosts hosts_;
  Cluster_Coordinator coordinator_{hosts_, history_, Cluster_Limits()};
  Run_Resources run_resources_{hub_, gate_, runs_, definitions_};
  Cluster_Resources cluster_resources_{coordinator_, history_, definitions_};
  REST_Router router_;
  REST_Reply reply_;

private:
  bool attempt_with(const char* kind, unsigned number, int result, bool for_ever,
                    const std::function<bool(const std::string& name)>& attempt, bool& met)
  {
    const std::string name =
        std::string(kind) + std::to_string(result) + (for_ever ? "-ever-" : "-") + std::to_string(number);
    files_.fail(kind, number, result, for_ever);
    const bool done = attempt(name);
    met = files_.met();
    return done;
  }

public:
  void repair() { files_.fail("none", 1, SQLITE_OK); }
};

std::string two_runs(const std::string& name)
{
  std::string runs;
  for (const char* part : {"a", "b"})
    runs += (runs.empty() ? "" : ",") + (R"({"run_id":")" + name + part + R"(","definition_id":")" + name) +
            R"(","state":"completed","queued_at":1700000000,"ended_at":1700000001})";
  return R"({"runs":[)" + runs + "]}";
}

std::string question(const std::string& name)
{
  return R"({"definition_uuid":")" + name + R"(","uid":"u","instance_uuid":"i","select_master":false})";
}
} // namespace

TEST_F(Server_Faults, a_report_of_runs_is_kept_whole_or_refused)
{
  for_every_fault([this](const std::string& name) {
    const bool done = ask("POST", "runs", two_runs(name), "host-1") == 200;
    if (!done)
      expect_failure(name);
    repair();
    const size_t there = done ? 2 : 0;
    EXPECT_EQ(200, ask("GET", "runs?limit=10000")) << name << answer();
    for (const char* part : {"a", "b"}) {
      EXPECT_EQ(done ? 200 : 404, ask("GET", "runs/" + name + part)) << name << answer();
      EXPECT_EQ(there, runs_.newest({{name, "host-1"}}).size() * 2) << name;
    }
    EXPECT_EQ(200, ask("POST", "runs", two_runs(name), "host-1")) << name << answer();
    EXPECT_EQ(2u, size_of_list("stored")) << name;
    EXPECT_EQ(200, ask("GET", "jobs/" + name + "/runs")) << name << answer();
    EXPECT_EQ(2u, size_of_list("runs")) << name;
    return done;
  });
}

TEST_F(Server_Faults, a_choice_of_nodes_begins_or_is_refused)
{
  int64_t latest = 0;
  for_every_fault([&](const std::string& name) {
    // A host of its own for each: no host may begin too many.
    const bool done = ask("POST", "oscar/cluster", question(name), name) == 200;
    if (!done)
      expect_failure(name);
    repair();
    EXPECT_EQ(200, ask("GET", "oscar/cluster?definition=" + name)) << name << answer();
    EXPECT_EQ(done ? 1u : 0u, size_of_list("selections")) << name << answer();
    EXPECT_EQ(200, ask("POST", "oscar/cluster", question(name), name + "-again")) << name << answer();
    const int64_t time = find_value(reply_.json.get_obj(), "selection_time").get_int64();
    EXPECT_LT(0, time);
    EXPECT_EQ(200, ask("GET", "oscar/cluster?definition=" + name)) << name << answer();
    EXPECT_EQ(1u, size_of_list("selections")) << "joined, or begun anew: " << name << answer();
    // The times of a definition rise over the failures of others.
    int64_t next = 0;
    ignore_result(history_.open("one", 1700000000, next), "only its time is of interest");
    EXPECT_LT(latest, next) << name;
    latest = next;
    return done;
  });
}

TEST_F(Server_Faults, a_choice_takes_no_end_of_requests_of_one_host)
{
  unsigned taken = 0;
  while (taken < 1000 && ask("POST", "oscar/cluster", question("s"), "host-1") == 200)
    ++taken;
  EXPECT_EQ(50u, taken);
  EXPECT_EQ(429, reply_.status) << answer();
  EXPECT_EQ(1u, reply_.headers.count("Retry-After"));
  EXPECT_EQ(200, ask("POST", "oscar/cluster", question("s"), "host-2")) << "others are not concerned";
  EXPECT_EQ(200, ask("POST", "oscar/cluster", question("t"), "host-1"));
}

TEST_F(Server_Faults, an_explanation_is_replaced_whole_or_stays)
{
  int64_t time = 0;
  const int64_t number = history_.open("one", 1700000000, time);
  std::string kept = write_json(history_.list(1, "one"));
  for_every_fault([&](const std::string& name) {
    Object record{{"definition_uuid", "one"}, {"state", "success"}, {"host_uuid", name}, {"reason", name}};
    bool done = true;
    try {
      history_.save(number, record, Object{{"kept", name}}, 1700000009);
    } catch (const std::exception& failure) {
      done = false;
      EXPECT_EQ(std::string::npos, history_.failure_text(failure).find(name)) << "the text holds values";
    }
    repair();
    const std::string now = write_json(history_.list(1, "one"));
    EXPECT_EQ(done, now.find(name) != std::string::npos) << now;
    EXPECT_EQ(done, now != kept) << now;
    history_.save(number, record, Object{{"kept", name}}, 1700000009);
    kept = write_json(history_.list(1, "one"));
    EXPECT_NE(std::string::npos, kept.find(name)) << kept;
    return done;
  });
}

TEST_F(Server_Faults, a_definition_is_the_same_in_memory_and_on_the_disk)
{
  const auto named = [](const std::string& name) {
    Server_Definition definition;
    definition.id = name;
    definition.hosts = {"host-1"};
    definition.document = Object{{"id", name}, {"name", name}};
    return definition;
  };
  for_every_fault([&](const std::string& name) {
    Server_Definition_Ptr stored;
    bool done = false;
    try {
      done = definitions_.add(named(name), stored) == Job_Definitions::Result::done;
    } catch (const std::exception& failure) {
      EXPECT_FALSE(database_.translate(failure).busy()) << name;
    }
    repair();
    EXPECT_EQ(done, definitions_.find(name) != nullptr) << name;
    Job_Definitions next_server(database_);
    next_server.load();
    EXPECT_EQ(done, next_server.find(name) != nullptr) << name;
    EXPECT_EQ(done ? Job_Definitions::Result::exists : Job_Definitions::Result::done,
              definitions_.add(named(name), stored))
        << name;
    return done;
  });
}

TEST_F(Server_Faults, a_database_that_another_process_writes_to_is_busy)
{
  Server_Database::Lease other = database_.lease();
  *other << "BEGIN IMMEDIATE";
  EXPECT_EQ(503, ask("POST", "runs", two_runs("r"), "host-1"));
  expect_failure("runs");
  EXPECT_EQ(503, ask("POST", "oscar/cluster", question("s"), "host-1"));
  expect_failure("selections");
  EXPECT_EQ(404, ask("GET", "runs/ra")) << "reading goes on";
  EXPECT_EQ(200, ask("GET", "oscar/cluster"));
  EXPECT_EQ(0u, size_of_list("selections"));
  *other << "ROLLBACK";
  EXPECT_EQ(200, ask("POST", "runs", two_runs("r"), "host-1")) << answer();
  EXPECT_EQ(200, ask("POST", "oscar/cluster", question("s"), "host-1")) << answer();
  EXPECT_EQ(200, ask("GET", "runs/ra"));
}

TEST_F(Server_Faults, a_failing_read_is_no_empty_answer)
{
  ASSERT_EQ(200, ask("POST", "runs", two_runs("r"), "host-1")) << answer();
  ASSERT_EQ(200, ask("POST", "oscar/cluster", question("s"), "host-1")) << answer();
  unsigned failures = 0;
  for (const char* target : {"runs", "runs/ra", "oscar/cluster"})
    for (unsigned number = 1;; ++number) {
      ASSERT_LT(number, 1000u);
      open_database();
      files_.fail("read", number, SQLITE_IOERR_READ);
      const int status = ask("GET", target);
      const bool met = files_.met();
      repair();
      EXPECT_EQ(met ? status : 200, status) << target << answer();
      if (status == 200) {
        EXPECT_NE(std::string::npos, answer().find("1700000000")) << target << number << answer();
      } else {
        ++failures;
        expect_failure(target);
      }
      EXPECT_EQ(200, ask("GET", target)) << "the next one " << target << number;
      if (!met)
        break;
    }
  EXPECT_LT(0u, failures);
}
