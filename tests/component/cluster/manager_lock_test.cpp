#include "oscar/websvcs/oscar_notify_node_handler.h"
#include "service_call.h"

#include <pthread.h>

using namespace kestrel_test;

namespace
{
// A name for the manager's private lock: the arguments of an explicit instantiation are not checked for
// access.
template <ACE_Thread_Mutex oscar::Oscar_Cluster_Node_Manager::*LOCK> struct Lock_Access {
  friend ACE_Thread_Mutex& lock_of(oscar::Oscar_Cluster_Node_Manager& manager) { return manager.*LOCK; }
};
ACE_Thread_Mutex& lock_of(oscar::Oscar_Cluster_Node_Manager& manager);
template struct Lock_Access<&oscar::Oscar_Cluster_Node_Manager::mutex_>;

/// While it lives, every attempt of this thread to take the manager's lock fails.
class Refused_Lock
{
public:
  explicit Refused_Lock(oscar::Oscar_Cluster_Node_Manager& manager) : lock_(lock_of(manager).lock())
  {
    pthread_mutexattr_t checked;
    ::pthread_mutexattr_init(&checked);
    ::pthread_mutexattr_settype(&checked, PTHREAD_MUTEX_ERRORCHECK);
    ::pthread_mutex_destroy(&lock_);
    ::pthread_mutex_init(&lock_, &checked);
    ::pthread_mutexattr_destroy(&checked);
    ::pthread_mutex_lock(&lock_);
  }
  ~Refused_Lock()
  {
    ::pthread_mutex_unlock(&lock_);
    ::pthread_mutex_destroy(&lock_);
    ::pthread_mutex_init(&lock_, nullptr);
  }
  Refused_Lock(const Refused_Lock&) = delete;
  Refused_Lock& operator=(const Refused_Lock&) = delete;

private:
  pthread_mutex_t& lock_;
};
} // namespace

class Manager_Lock : public Service_Call
{
protected:
  Fake_Clock clock_;
};

TEST_F(Manager_Lock, that_cannot_be_taken_fails_announcements_and_looks_at_them)
{
  ASSERT_TRUE(announce("success", 7));
  {
    const Refused_Lock refused(manager());
    EXPECT_FALSE(announce("success", 8));
    EXPECT_FALSE(stored());
  }
  oscar::Oscar_Cluster_Node_Manager::Selection selection;
  ASSERT_TRUE(manager().get_selection(JOB, selection));
  EXPECT_EQ(selection.node_id, 7) << "the refused one has changed nothing";
}

TEST_F(Manager_Lock, that_cannot_be_taken_refuses_a_job_in_silence_and_without_a_request)
{
  const Refused_Lock refused(manager());
  EXPECT_FALSE(is_selected());
  EXPECT_EQ(state_, "untouched");
  EXPECT_TRUE(server_->requests.empty());
  EXPECT_EQ(log_.count(LM_ERROR, ""), 0u);
}

TEST_F(Manager_Lock, that_cannot_be_taken_is_an_internal_error_of_the_announcement)
{
  JSON_RPC_Oscar_Notify_Node_Handler notify;
  const Refused_Lock refused(manager());
  EXPECT_EQ(
      ask(notify,
          std::string(R"({"definition_uuid":")") + JOB +
              R"(","instance":"DB1","host_uuid":"h","state":"success","node_id":8,"selection_time":5})"),
      refusal(-32603, "Failed to notify node selection\\n"));
  EXPECT_TRUE(
      log_.expect_exactly(LM_ERROR, std::string("Failed to set node selection of job ") + JOB + "\n"));
}

TEST_F(Manager_Lock, lets_one_request_after_the_other_reach_the_server)
{
  std::atomic<int> under_way{0};
  std::atomic<int> most{0};
  server_->when_asked = [&] {
    const int now = ++under_way;
    most = std::max(most.load(), now);
    // Stays for a while, so that a second one would be seen; one that the lock holds up never comes.
    for (int turn = 0; turn < 50 && most < 2; ++turn)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    --under_way;
  };
  const auto job = [&](const char* id) {
    std::string state;
    EXPECT_TRUE(announce("success", 7, 1700000005, id));
    EXPECT_TRUE(manager().is_selected_node("DB1", id, UID, state, true, true));
    EXPECT_EQ(state, "success");
  };
  std::thread other([&] { job("other"); });
  job(JOB);
  other.join();
  EXPECT_EQ(server_->requests.size(), 2u);
  EXPECT_EQ(most, 1);
}
