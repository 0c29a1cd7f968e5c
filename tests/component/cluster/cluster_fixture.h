#pragma once

#include "instances/instance_manager.h"
#include "instances/instance_registry.h"
#include "oscar/oscar_cluster_node_manager.h"
#include "rpc/json_restful_client.h"
#include "rpc/json_rpc.h"
#include "support/clocks.h"
#include "support/fake_tool.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kestrel_test
{
/// A backup server that answers as it is told and keeps what it was asked.
class Scripted_Server : public kestrel::Upstream_Transport
{
public:
  bool exchange(const HTTP_Request& request, const std::string& body, int& status, std::string& answer,
                std::string& error) override
  {
    requests.push_back(std::to_string(request.kind()) + " " + request.path() +
                       (request.identified() ? " identified " : " ") + body);
    if (when_asked)
      when_asked();
    if (!cause.empty()) {
      error = cause;
      return false;
    }
    status = answer_status;
    answer = answer_body;
    return true;
  }

  std::vector<std::string> requests;
  std::function<void()> when_asked;
  std::string cause; ///< not empty: no answer comes
  int answer_status = 200;
  std::string answer_body = R"({"selection_time":1700000005,"further":"ignored"})";
};

/// An instance manager that answers the question for an account with a result of its own and then with the
/// account.
class Odd_Account_Result : public Instance_Manager
{
public:
  explicit Odd_Account_Result(int result)
      : result_(result), before_(kestrel::set_instance_manager_for_test(this))
  {
  }
  ~Odd_Account_Result() override { kestrel::set_instance_manager_for_test(before_); }
  Odd_Account_Result(const Odd_Account_Result&) = delete;
  Odd_Account_Result& operator=(const Odd_Account_Result&) = delete;

  int get_account(const std::string& type, const std::string& name, const std::string& uid,
                  std::string& username, secure_string& password,
                  std::map<std::string, json_spirit::Value>* extra) override
  {
    return Instance_Manager::get_account(type, name, uid, username, password, extra) == 0 ? result_ : -1;
  }

private:
  const int result_;
  Instance_Manager* const before_;
};

/// Collects what handlers send.
class Collecting_Channel : public JSON_RPC_Channel
{
public:
  std::vector<std::string> texts;
  int result = 0;

protected:
  int send_text(const std::string& text) override
  {
    texts.push_back(text);
    return result;
  }
};

/// Instance DB1 of a cluster with nodes 7 (at the loopback address) and 8, its registry entry and account, a
/// backup server, and a clock that stands still.
class Cluster_Fixture : public testing::Test
{
protected:
  static constexpr const char* JOB = "11111111-2222-4333-8444-555555555555";
  static constexpr const char* UID = "99999999-2222-4333-8444-555555555555";

  Cluster_Fixture()
  {
    home_.write("admin/DB1.conf", "port = 2100\nHA_SERVER_IP_ADDRESS = '10.9.8.1'\n");
    nodes({" 8 | 10.9.8.7 | slave ", " 7 | 127.0.0.1 | master "});
    kestrel::set_upstream_transport(server_);
  }
  ~Cluster_Fixture() override
  {
    kestrel::set_upstream_transport(nullptr);
    oscar::Oscar_Cluster_Node_Manager::Selection left;
    for (const char* job : {JOB, "other"})
      (void)manager().get_selection(job, left); // announcements outlive a test
  }

  void SetUp() override
  {
    auto instance = std::make_shared<Instance>();
    instance->type = "oscar";
    instance->name = "DB1";
    instance->options["oscar_home"] = home_.path();
    instance->options["version"] = "2.5.6";
    std::string error;
    ASSERT_EQ(registry_.merge_probe({{"DB1", instance}}, error), 0) << error;
    ASSERT_EQ(registry_.set_account("oscar", "DB1", "", "SYSDBA", "secret-word", error), 0) << error;
    std::vector<kestrel::Instance_Registry::Entry> entries;
    ASSERT_EQ(registry_.list(entries, error), 0) << error;
    instance_uuid_ = entries.at(0).instance.uuid;
  }

  void isql(const std::string& steps)
  {
    make_fake_tool(home_, "bin/isql", "dump_args ${dir}/args\n" + steps);
  }
  void nodes(const std::vector<std::string>& rows)
  {
    std::string steps = "out NODE_ID|ADDRESS|STATUS\nout -------\n";
    for (const std::string& row : rows)
      steps += "out \"" + row + "\"\n";
    isql(steps + "out \"(" + std::to_string(rows.size()) + " rows)\"\n");
  }
  std::string isql_arguments() const { return read_file(home_ / "bin/args"); }

  static oscar::Oscar_Cluster_Node_Manager& manager()
  {
    return *oscar::Oscar_Cluster_Node_Manager::instance();
  }
  static bool announce(const std::string& state, int node_id, time_t time = 1700000005, const char* job = JOB)
  {
    return manager().set_selection(job, "DB1", node_id, "host-uuid", state, time);
  }
  bool is_selected(bool select_master = true, bool backup = true)
  {
    state_ = "untouched";
    return manager().is_selected_node("DB1", JOB, UID, state_, select_master, backup);
  }
  static bool stored(const char* job = JOB)
  {
    oscar::Oscar_Cluster_Node_Manager::Selection selection;
    return manager().get_selection(job, selection);
  }

  const Temp_Dir root_;
  const Scoped_Env environment_{"KESTREL_ROOT", root_.path()};
  const Temp_Dir home_;
  kestrel::Instance_Registry registry_{"host-1"};
  const std::shared_ptr<Scripted_Server> server_ = std::make_shared<Scripted_Server>();
  std::string instance_uuid_;
  std::string state_;
  Log_Capture log_;
};
} // namespace kestrel_test
