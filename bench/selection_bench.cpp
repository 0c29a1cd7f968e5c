// The choice of a cluster node: a whole backup server and three agents over TLS on this machine. What is measured is the
// time from the answer to the last request to the last announcement (wanted below 1 s). Files lie on the disk of
// $TMPDIR: each choice is durable before it is announced.

#include "base/path_conf.h"
#include "base/uuid.h"
#include "server/accounts.h"
#include "server/server_host.h"
#include "server/server_setup.h"
#include "support/simulated_agent.h"
#include "json/json_util.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <thread>

using namespace kestrel;
using kestrel_test::Simulated_Agent;

namespace
{
typedef std::chrono::steady_clock Timer;

void check(bool done, const std::string& problem)
{
  if (!done)
    throw std::runtime_error(problem);
}

/// Directory, server, three connected agents, and a console.
class Cluster
{
public:
  Cluster()
  {
    std::string error;
    Server_Init init;
    init.admin = "ada";
    init.password = "a long enough secret";
    check(init_server(init, error), error);
    Server_Config config;
    check(load_server_config("", config, error), error);
    config.address = "127.0.0.1";
    config.port = 0;
    check(server_.start(config, error), error);
    check(network_.start(2), "no network threads");
    for (int node = 1; node <= 3; ++node)
      add_agent(node);
    REST_Client_Options client;
    client.url = url();
    client.ca_pem = agents_[0]->enrollment().ca_pem;
    client.bearer = server_.accounts().sign_in("ada", init.password, "127.0.0.1").token;
    console_ = std::make_unique<REST_Client>(client);
  }
  ~Cluster()
  {
    agents_.clear();
    network_.stop();
  }

  std::string define()
  {
    const std::string id = make_uuid();
    std::string hosts, error;
    for (const std::unique_ptr<Simulated_Agent>& agent : agents_)
      hosts += (hosts.empty() ? "\"" : ",\"") + agent->uuid() + "\"";
    json_spirit::Value body, reply;
    check(read_json(R"({"id":")" + id + R"(","hosts":[)" + hosts + R"(],"document":{"uid":")" + id +
                        R"(","type":"backup","target":{"id":"pool"},"rsrc_form":"cluster",)"
                        R"("source":{"id":"r","entries":["oscar/DB1"]}}})",
                    body, error),
          error);
    REST_Problem problem;
    check(console_->post("/k2/r/jobs", body, reply, problem), problem.text);
    return id;
  }

  double select(const std::string& job)
  {
    ++expected_;
    for (const std::unique_ptr<Simulated_Agent>& agent : agents_) {
      int64_t time = 0;
      REST_Problem problem;
      check(agent->request_selection(job, true, time, problem), problem.text);
    }
    const Timer::time_point last_request = Timer::now();
    for (const std::unique_ptr<Simulated_Agent>& agent : agents_)
      check(agent->await_announcements(expected_), "an announcement did not come");
    return std::chrono::duration<double>(Timer::now() - last_request).count();
  }

private:
  std::string url() const { return "https://127.0.0.1:" + std::to_string(server_.port()); }
  void add_agent(int node)
  {
    std::string text, error;
    bool replaced = false;
    check(enroll_host("db" + std::to_string(node), text, replaced, error), error);
    kestrel_test::Enrollment enrollment = kestrel_test::read_enrollment(text);
    enrollment.url = url();
    agents_.push_back(std::make_unique<Simulated_Agent>(network_, enrollment));
    agents_.back()->set_node(node, node == 1, true);
    check(agents_.back()->connect(error), error);
  }

  Server_Host server_;
  Network_Threads network_;
  std::vector<std::unique_ptr<Simulated_Agent>> agents_;
  std::unique_ptr<REST_Client> console_;
  size_t expected_ = 0;
};

void select_among_three_nodes(benchmark::State& state)
{
  std::string directory = std::filesystem::temp_directory_path() / "kestrel-selection.XXXXXX";
  check(::mkdtemp(directory.data()) != nullptr, "no temporary directory");
  ::setenv("KESTREL_ROOT", directory.c_str(), 1);
  set_component_name("server");
  double longest = 0;
  {
    Cluster cluster;
    for (auto iteration : state) {
      (void)iteration;
      const double seconds = cluster.select(cluster.define());
      state.SetIterationTime(seconds);
      longest = std::max(longest, seconds);
    }
  }
  state.counters["longest_ms"] = longest * 1000;
  std::filesystem::remove_all(directory);
}
} // namespace

BENCHMARK(select_among_three_nodes)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(30);
