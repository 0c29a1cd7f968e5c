#include "cluster_fixture.h"
#include "given_interfaces.h"
#include "support/loopback.h"

#include <unistd.h>

using namespace kestrel_test;

namespace
{
/// A clock whose sleeps are told to the test, which may change the world meanwhile.
class Told_Clock : public kestrel::Clock
{
public:
  void sleep_msec(int64_t msec) override
  {
    sleeps.push_back(msec);
    if (during_sleep)
      during_sleep(sleeps.size());
  }

  std::vector<int64_t> sleeps;
  std::function<void(size_t)> during_sleep;

private:
  const kestrel::Scoped_Clock scope_{*this};
};
} // namespace

class Cluster_Node_Manager : public Cluster_Fixture
{
protected:
  Told_Clock clock_;
};

TEST_F(Cluster_Node_Manager, runs_a_job_without_coordination_here)
{
  EXPECT_TRUE(is_selected(false, false));
  EXPECT_EQ(state_, "untouched");
  EXPECT_TRUE(server_->requests.empty());
  EXPECT_FALSE(kestrel_test::exists(home_ / "bin/args"));
}

TEST_F(Cluster_Node_Manager, needs_the_name_of_an_instance)
{
  for (const char* name : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_FALSE(manager().is_selected_node(name, JOB, UID, state_, false, false));
    log_.expect(LM_EMERGENCY, "Unexpected error in ");
  }
  EXPECT_EQ(log_.count("instance is NULL or \"\":\n"), 2u);
}

TEST_F(Cluster_Node_Manager, asks_the_server_with_the_identities_of_job_user_and_instance)
{
  announce("success", 7);
  EXPECT_TRUE(is_selected());
  ASSERT_EQ(server_->requests.size(), 1u);
  EXPECT_EQ(server_->requests[0], std::string("9 /k2/r/oscar/cluster identified {\"definition_uuid\":\"") +
                                      JOB + "\",\"uid\":\"" + UID + "\",\"instance_uuid\":\"" +
                                      instance_uuid_ + "\",\"select_master\":true}");
  EXPECT_NE(isql_arguments().find("10.9.8.1"), std::string::npos)
      << "asked at the address of the configuration";
}

TEST_F(Cluster_Node_Manager, asks_also_when_only_one_of_master_and_backup_is_wanted)
{
  announce("success", 7);
  EXPECT_TRUE(is_selected(false, true));
  announce("success", 7);
  EXPECT_TRUE(is_selected(true, false));
  ASSERT_EQ(server_->requests.size(), 2u);
  EXPECT_NE(server_->requests[0].find("\"select_master\":false"), std::string::npos);
  EXPECT_NE(server_->requests[1].find("\"select_master\":true"), std::string::npos);
}

TEST_F(Cluster_Node_Manager, takes_an_announcement_that_was_there_before_the_request)
{
  announce("success", 7);
  EXPECT_TRUE(is_selected());
  EXPECT_EQ(state_, "success");
  EXPECT_TRUE(clock_.sleeps.empty());
  EXPECT_FALSE(stored()) << "it is consumed";
  EXPECT_EQ(log_.count("Select node"), 0u);
}

TEST_F(Cluster_Node_Manager, leaves_the_job_to_the_chosen_node)
{
  announce("success", 8);
  EXPECT_FALSE(is_selected());
  EXPECT_EQ(state_, "success");
  EXPECT_EQ(log_.count("Select node"), 0u);
}

TEST_F(Cluster_Node_Manager, waits_for_an_announcement_that_comes_late)
{
  clock_.during_sleep = [](size_t sleep) {
    if (sleep == 4) {
      EXPECT_TRUE(announce("success", 7));
    }
  };
  EXPECT_TRUE(is_selected());
  EXPECT_EQ(clock_.sleeps.size(), 4u);
}

TEST_F(Cluster_Node_Manager, does_not_look_again_after_the_last_wait)
{
  clock_.during_sleep = [](size_t sleep) {
    if (sleep == 5) {
      EXPECT_TRUE(announce("success", 7));
    }
  };
  EXPECT_FALSE(is_selected());
  EXPECT_EQ(state_, "");
  int64_t slept = 0;
  for (const int64_t msec : clock_.sleeps) {
    EXPECT_GE(msec, 1000);
    EXPECT_EQ(msec % 1000, 0);
    slept += msec;
  }
  EXPECT_EQ(clock_.sleeps.size(), 5u);
  EXPECT_GE(slept, 16000);
  EXPECT_LE(slept, 31000);
  EXPECT_TRUE(stored()) << "nobody took it";
}

TEST_F(Cluster_Node_Manager, jobs_do_not_wait_in_step)
{
  // About one round in 270 draws no shorter delay; twenty such rounds in a row do not happen.
  for (int turn = 0; turn < 20; ++turn) {
    clock_.sleeps.clear();
    EXPECT_FALSE(is_selected());
    if (clock_.sleeps != std::vector<int64_t>{1000, 2000, 4000, 8000, 16000})
      return;
  }
  ADD_FAILURE() << "no delay was ever shortened";
}

TEST_F(Cluster_Node_Manager, an_announcement_of_another_time_ends_the_wait_too)
{
  announce("success", 7, 1600000000);
  EXPECT_TRUE(is_selected());
  EXPECT_TRUE(clock_.sleeps.empty());
}

TEST_F(Cluster_Node_Manager, an_announcement_without_a_state_never_ends_the_wait)
{
  announce("", 7);
  EXPECT_FALSE(is_selected());
  EXPECT_EQ(state_, "");
  EXPECT_EQ(clock_.sleeps.size(), 5u);
  EXPECT_FALSE(stored());
}

TEST_F(Cluster_Node_Manager, tells_that_no_node_was_chosen)
{
  announce("failed", -1);
  EXPECT_FALSE(is_selected());
  EXPECT_EQ(state_, "failed");
  EXPECT_EQ(log_.count("Select node"), 0u);
}

TEST_F(Cluster_Node_Manager, a_success_without_a_node_is_logged_and_selects_nobody)
{
  announce("success", -1);
  EXPECT_FALSE(is_selected());
  EXPECT_TRUE(log_.expect_exactly(LM_DEBUG, "Select node -1 to backup.\n"));
}

TEST_F(Cluster_Node_Manager, an_announcement_waits_until_the_request_was_answered)
{
  std::thread announcer;
  std::atomic<bool> announced{false};
  server_->when_asked = [&] {
    announcer = std::thread([&] {
      EXPECT_TRUE(announce("success", 7));
      announced = true;
    });
    // Time enough for one that the lock does not hold up; one that it does hold up never gets through here.
    for (int turn = 0; turn < 50 && !announced; ++turn)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_FALSE(announced);
  };
  clock_.during_sleep = [&](size_t) {
    if (announcer.joinable())
      announcer.join();
  };
  EXPECT_TRUE(is_selected());
  if (announcer.joinable())
    announcer.join();
}

TEST_F(Cluster_Node_Manager, a_request_that_fails_is_reported_and_changes_nothing)
{
  server_->cause = "connection refused";
  announce("success", 7);
  EXPECT_FALSE(is_selected());
  EXPECT_EQ(state_, "untouched");
  EXPECT_TRUE(log_.expect(LM_ERROR, "/k2/r/oscar/cluster to the backup server failed: connection refused"));
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to sent job node selection request\n"));
  EXPECT_TRUE(stored());
}

TEST_F(Cluster_Node_Manager, a_host_without_a_server_says_so)
{
  kestrel::set_upstream_transport(nullptr);
  EXPECT_FALSE(is_selected());
  EXPECT_TRUE(log_.expect(LM_ERROR, "this host has no backup server"));
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to sent job node selection request\n"));
}

TEST_F(Cluster_Node_Manager, an_answer_without_a_time_is_refused)
{
  for (const char* answer : {"[]", "{}", "17", "null", R"({"selection_time":"1700000005"})",
                             R"({"selection_time":1.5})", R"({"selection_time":null})"}) {
    server_->answer_body = answer;
    EXPECT_FALSE(is_selected()) << answer;
    EXPECT_TRUE(
        log_.expect(LM_ERROR, std::string("Failed to request node selection of job ") + JOB + ", error: "))
        << answer;
    EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to sent job node selection request\n"));
  }
}

TEST_F(Cluster_Node_Manager, an_instance_that_nobody_registered_is_refused)
{
  std::string error;
  ASSERT_EQ(registry_.remove("oscar", "DB1", error), 0) << error;
  EXPECT_FALSE(is_selected());
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to invoke is_selected_node, can't find instance.\n"));
  json_spirit::Object result;
  EXPECT_FALSE(manager().check_state("DB1", UID, "", result));
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to invoke check_state, can't find instance.\n"));
  EXPECT_TRUE(result.empty());
}

TEST_F(Cluster_Node_Manager, a_host_without_a_registry_is_reported)
{
  Instance_Manager* const registry = kestrel::set_instance_manager_for_test(nullptr);
  json_spirit::Object result;
  EXPECT_FALSE(is_selected());
  EXPECT_FALSE(manager().check_state("DB1", UID, "", result));
  kestrel::set_instance_manager_for_test(registry);
  for (int i = 0; i < 2; ++i)
    EXPECT_TRUE(log_.expect(LM_EMERGENCY, "instmgr is NULL:\n"));
}

TEST_F(Cluster_Node_Manager, a_host_that_is_no_node_of_the_cluster_runs_nothing)
{
  nodes({" 7 | 10.9.8.7 | master "});
  EXPECT_FALSE(is_selected());
  json_spirit::Object result;
  EXPECT_FALSE(manager().check_state("DB1", UID, "", result));
  for (int i = 0; i < 2; ++i)
    EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to get node info of instance DB1\n"));
  EXPECT_TRUE(server_->requests.empty());
}

TEST_F(Cluster_Node_Manager, nodes_that_cannot_be_asked_are_reported)
{
  isql("err \"isql: ERROR, no such view\"\nexit 1\n");
  log_.allow(LM_ERROR, "isql: ERROR, no such view");
  log_.allow(LM_ERROR, "Failed to ");
  EXPECT_FALSE(is_selected());
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to get oscar(DB1) nodes info.\n"));
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to get node info of instance DB1\n"));
  EXPECT_FALSE(log_.contains("secret-word"));
}

TEST_F(Cluster_Node_Manager, without_an_account_it_fails_without_a_word_of_its_own)
{
  std::string error;
  ASSERT_EQ(registry_.remove_account("oscar", "DB1", "", error), 0) << error;
  EXPECT_FALSE(is_selected());
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to get node info of instance DB1\n"));
}

TEST_F(Cluster_Node_Manager, every_result_but_0_of_the_account_is_a_failure)
{
  const Odd_Account_Result odd(1);
  EXPECT_FALSE(is_selected());
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to get node info of instance DB1\n"));
  EXPECT_FALSE(kestrel_test::exists(home_ / "bin/args")) << "the nodes are not asked";
}

TEST_F(Cluster_Node_Manager, an_instance_without_a_home_is_reported)
{
  std::string error;
  ASSERT_EQ(registry_.remove("oscar", "DB1", error), 0) << error;
  auto bare = std::make_shared<Instance>();
  bare->type = "oscar";
  bare->name = "DB1";
  ASSERT_EQ(registry_.merge_probe({{"DB1", bare}}, error), 0) << error;
  ASSERT_EQ(registry_.set_account("oscar", "DB1", "", "SYSDBA", "secret-word", error), 0) << error;
  EXPECT_FALSE(is_selected());
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to get oscar home.\n"));
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to get node info of instance DB1\n"));
}

TEST_F(Cluster_Node_Manager, tells_the_state_of_this_node)
{
  json_spirit::Object result = {{"kept", 1}};
  EXPECT_TRUE(manager().check_state("DB1", UID, "10.9.8.99", result));
  EXPECT_EQ(kestrel::write_json(result),
            R"({"kept":1,"instance":"","node_id":7,"is_master":true,"online":false})");
  EXPECT_NE(isql_arguments().find("10.9.8.99"), std::string::npos);
  EXPECT_FALSE(log_.contains("secret-word"));
}

TEST_F(Cluster_Node_Manager, of_several_nodes_at_this_host_the_one_at_its_first_address_counts)
{
  // The kernel lists by the time of an address; an interface that is older than another comes first here.
  const Given_Interfaces interfaces(
      {{"eth1", 3, "10.9.7.3"}, {"lo", 1, "127.0.0.1"}, {"eth0", 2, "10.9.7.2"}, {"eth0", 2, "10.9.7.4"}});
  nodes({" 4 | 10.9.7.3 | master ", " 7 | 10.9.7.4 | master ", " 5 | 10.9.7.2 | slave ",
         " 6 | 10.9.7.2 | master "});
  json_spirit::Object result;
  EXPECT_TRUE(manager().check_state("DB1", UID, "10.9.8.99", result));
  EXPECT_EQ(kestrel::write_json(result), R"({"instance":"","node_id":5,"is_master":false,"online":false})");
  EXPECT_EQ(1u, interfaces.taken());
}

TEST_F(Cluster_Node_Manager, an_address_of_this_host_counts_wherever_it_stands_in_its_list)
{
  const Given_Interfaces interfaces({{"lo", 1, "127.0.0.1"}, {"eth0", 2, "10.9.7.2"}, {"eth0", 2, "10.9.7.4"}});
  nodes({" 4 | 10.9.7.3 | master ", " 7 | 10.9.7.4 | slave "});
  json_spirit::Object result;
  EXPECT_TRUE(manager().check_state("DB1", UID, "10.9.8.99", result));
  EXPECT_EQ(kestrel::write_json(result), R"({"instance":"","node_id":7,"is_master":false,"online":false})");
}

TEST_F(Cluster_Node_Manager, an_address_must_be_the_same_to_the_last_sign)
{
  nodes({" 7 | 127.0.0.10 | master ", " 8 | localhost | slave ", " 9 | 127.0.0 | slave "});
  json_spirit::Object result;
  EXPECT_FALSE(manager().check_state("DB1", UID, "10.9.8.99", result));
  EXPECT_TRUE(result.empty());
  EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Failed to get node info of instance DB1\n"));
}

TEST_F(Cluster_Node_Manager, only_the_exact_word_makes_a_master_and_a_listener_makes_it_online)
{
  nodes({" 3 | 127.0.0.1 | Master "});
  const Loopback_Listener listener;
  home_.write("admin/DB1.conf",
              "port = " + std::to_string(listener.port()) + "\nHA_SERVER_IP_ADDRESS = '10.9.8.1'\n");
  json_spirit::Object result;
  EXPECT_TRUE(manager().check_state("DB1", UID, "", result));
  EXPECT_EQ(kestrel::write_json(result), R"({"instance":"","node_id":3,"is_master":false,"online":true})");
}

TEST_F(Cluster_Node_Manager, its_end_forgets_the_announcements_and_it_may_begin_anew)
{
  ASSERT_TRUE(announce("success", 7));
  oscar::Oscar_Cluster_Node_Manager_fini();
  EXPECT_FALSE(stored());
  ASSERT_TRUE(announce("success", 7));
  EXPECT_TRUE(is_selected());
}
