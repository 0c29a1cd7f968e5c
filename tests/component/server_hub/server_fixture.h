#pragma once

#include "base/path_conf.h"
#include "base/uuid.h"
#include "remote/rest_client.h"
#include "rpc/network_threads.h"
#include "server/accounts.h"
#include "server/server_host.h"
#include "server/server_setup.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/simulated_agent.h"
#include "support/temp_dir.h"
#include "support/waiting.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace kestrel_test
{
inline json_spirit::Value json(const std::string& text)
{
  json_spirit::Value value;
  std::string error;
  EXPECT_TRUE(kestrel::read_json(text, value, error)) << error;
  return value;
}

/// A whole backup server on a port of its own, with an admin and agents that connect to it.
class Server_Fixture : public testing::Test
{
protected:
  static constexpr const char* PASSWORD = "a long enough secret";

  Server_Fixture() : component_(kestrel::component_name()) { kestrel::set_component_name("server"); }
  ~Server_Fixture() override
  {
    // A test is over when an agent has heard something; the server may still wait for its answer to that.
    log_.allow(LM_WARNING, "ended before the answer came");
    agents_.clear();
    network_.stop();
    server_.reset();
    kestrel::set_component_name(component_);
  }

  void SetUp() override
  {
    std::string error;
    kestrel::Server_Init init;
    init.admin = "ada";
    init.password = PASSWORD;
    ASSERT_TRUE(kestrel::init_server(init, error)) << error;
    ASSERT_TRUE(kestrel::load_server_config("", config_, error)) << error;
    config_.address = "127.0.0.1";
    config_.port = 0;
    // A busy machine must not decide too early; whoever has all answers decides at once.
    config_.cluster_window_seconds = 30;
    ASSERT_TRUE(network_.start(2));
    start();
  }

  void start()
  {
    std::string error;
    server_.reset(new kestrel::Server_Host);
    ASSERT_TRUE(server_->start(config_, error)) << error;
    config_.port = server_->port(); // the same one after a restart
  }
  void stop() { server_.reset(); }

  /// For choices that take the whole window.
  void shorten_window()
  {
    config_.cluster_window_seconds = 1;
    stop();
    start();
  }

  std::string url() const { return "https://127.0.0.1:" + std::to_string(config_.port); }

  Enrollment enroll(const std::string& name)
  {
    std::string text, error;
    bool replaced = false;
    EXPECT_TRUE(kestrel::enroll_host(name, text, replaced, error)) << error;
    Enrollment enrollment = read_enrollment(text);
    enrollment.url = url();
    ca_pem_ = enrollment.ca_pem;
    return enrollment;
  }

  /// A new host with an agent that is not connected yet; its node has the next id.
  Simulated_Agent& add_agent(const std::string& name)
  {
    agents_.push_back(std::make_unique<Simulated_Agent>(network_, enroll(name)));
    agents_.back()->set_node(static_cast<int>(agents_.size()), agents_.size() == 1, true);
    return *agents_.back();
  }
  /// db1, db2 ..., connected. db1 is the master.
  void add_connected_agents(unsigned count)
  {
    for (unsigned i = 0; i < count; ++i)
      connect(add_agent("db" + std::to_string(agents_.size() + 1)));
  }
  void connect(Simulated_Agent& agent)
  {
    std::string error;
    ASSERT_TRUE(agent.connect(error)) << error;
  }
  Simulated_Agent& agent(size_t index) { return *agents_.at(index); }

  /// A client of the console, as the admin or as another user.
  kestrel::REST_Client& console()
  {
    if (!console_ || console_->url() != url())
      console_ = sign_in("ada", PASSWORD);
    return *console_;
  }
  std::unique_ptr<kestrel::REST_Client> sign_in(const std::string& user, const std::string& password)
  {
    kestrel::REST_Client_Options options;
    options.url = url();
    options.ca_pem = ca_pem_.empty() ? enroll("any").ca_pem : ca_pem_;
    kestrel::REST_Client stranger(options);
    json_spirit::Object body;
    body.emplace_back("user", user);
    body.emplace_back("password", password);
    json_spirit::Value reply;
    kestrel::REST_Problem problem;
    EXPECT_TRUE(stranger.post("/k2/r/sessions", body, reply, problem)) << problem.text;
    options.bearer = kestrel::required<std::string>(reply.get_obj(), "token");
    return std::make_unique<kestrel::REST_Client>(options);
  }

  /// The answer, or {"status":N,"text":...} of a refusal.
  json_spirit::Value ask(const char* method, const std::string& path, const std::string& body = "")
  {
    return ask(console(), method, path, body);
  }
  static json_spirit::Value ask(kestrel::REST_Client& client, const char* method, const std::string& path,
                                const std::string& body = "")
  {
    kestrel::REST_Call call;
    call.method = method;
    call.path = path;
    json_spirit::Value reply;
    kestrel::REST_Problem problem;
    const json_spirit::Value sent = body.empty() ? json_spirit::Value() : json(body);
    if (client.call(call, body.empty() ? nullptr : &sent, reply, problem))
      return reply;
    json_spirit::Object refusal;
    refusal.emplace_back("status", problem.status);
    refusal.emplace_back("text", problem.text);
    return refusal;
  }
  static int64_t status_of(const json_spirit::Value& reply)
  {
    return reply.type() == json_spirit::obj_type ? member_number(reply.get_obj(), "status") : 0;
  }
  static const json_spirit::Array& list_of(const json_spirit::Value& reply, const char* key)
  {
    return json_spirit::find_value(reply.get_obj(), key).get_array();
  }

  /// A definition of a cluster's backup on all agents, or on these.
  std::string define(const std::string& further = R"(,"rsrc_form":"cluster")",
                     const std::string& kind = "backup", size_t first_agent = 0)
  {
    const std::string id = kestrel::make_uuid();
    std::string hosts;
    for (size_t i = first_agent; i < agents_.size(); ++i)
      hosts += (hosts.empty() ? "\"" : ",\"") + agents_[i]->uuid() + "\"";
    const std::string source = kind == "backup" ? R"({"id":"r","entries":["oscar/DB1"]})"
                                                : R"({"id":"r","name":"DB1","catalog_id":"c"})";
    const json_spirit::Value reply =
        ask("POST", "/k2/r/jobs",
            R"({"id":")" + id + R"(","hosts":[)" + hosts + R"(],"document":{"uid":")" + kestrel::make_uuid() +
                R"(","name":"nightly","type":")" + kind + R"(","target":{"id":"pool"},"source":)" + source +
                further + "}}");
    EXPECT_EQ(status_of(reply), 0) << kestrel::write_json(reply);
    return id;
  }

  const std::string& agent_uuid(size_t index) { return agents_.at(index)->uuid(); }
  bool is_online(const std::string& host)
  {
    const json_spirit::Value reply = ask("GET", "/k2/r/hosts/" + host);
    return json_spirit::find_value(reply.get_obj(), "online") == json_spirit::Value(true);
  }
  json_spirit::Object last_selection()
  {
    const json_spirit::Value reply = ask("GET", "/k2/r/oscar/cluster?limit=1");
    const json_spirit::Array& selections = list_of(reply, "selections");
    return selections.empty() ? json_spirit::Object() : selections[0].get_obj();
  }
  /// Asks for a node; 0 when the request failed.
  static int64_t request(Simulated_Agent& agent, const std::string& job, bool select_master = false)
  {
    int64_t time = 0;
    kestrel::REST_Problem problem;
    EXPECT_TRUE(agent.request_selection(job, select_master, time, problem)) << problem.text;
    return time;
  }

  const Temp_Dir root_;
  const Scoped_Env environment_{"KESTREL_ROOT", root_.path()};
  const std::string component_;
  Log_Capture log_;
  kestrel::Server_Config config_;
  std::unique_ptr<kestrel::Server_Host> server_;
  kestrel::Network_Threads network_;
  std::string ca_pem_;
  std::unique_ptr<kestrel::REST_Client> console_;
  std::vector<std::unique_ptr<Simulated_Agent>> agents_;
};
} // namespace kestrel_test
