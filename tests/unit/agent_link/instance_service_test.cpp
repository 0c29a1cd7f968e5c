#include "agent/instance_service.h"

#include "instances/instance_handler.h"
#include "instances/instance_manager.h"
#include "json/json_util.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"
#include "support/waiting.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <unistd.h>

using namespace kestrel_test;
using namespace kestrel;

namespace
{
typedef std::map<std::string, std::shared_ptr<Instance>> Found;

/// A handler that finds what it is told to, and can be held in the middle of a look.
class Test_Handler : public Instance_Handler
{
public:
  Test_Handler() : Instance_Handler("oscar") {}

  int probe_instances(Found& instances) override
  {
    const Inside inside(*this);
    std::unique_lock<std::mutex> lock(mutex);
    ++probes;
    looking = true;
    changed.notify_all();
    changed.wait(lock, [this] { return !hold; });
    looking = false;
    if (fails) {
      error_ = "the services cannot be listed";
      return -1;
    }
    for (const std::string& name : names) {
      auto instance = std::make_shared<Instance>();
      instance->type = "oscar";
      instance->name = name;
      instance->options["oscar_home"] = "/opt/oscar";
      instance->options["version"] = "2.5";
      instances[name] = instance;
    }
    return 0;
  }
  std::string& get_state(const char*, std::string& state) override
  {
    const Inside inside(*this);
    const std::lock_guard<std::mutex> guard(mutex);
    return state = state_text;
  }
  int get_port(const char* name, unsigned short& port) override
  {
    port = 2003;
    return std::string(name) == "NOPORT" ? -1 : 0;
  }
  int logon(const char*, const char* user, const char* password, std::map<std::string, json_spirit::Value>&) override
  {
    const Inside inside(*this);
    if (std::string(password) == "right")
      return 0;
    error_ = std::string("login of ") + user + " refused";
    return -1;
  }
  int update_options(const char*, const char*, const char*, std::map<std::string, json_spirit::Value>& options) override
  {
    options["node_id"] = 3;
    return 0;
  }

  void set_hold(bool on)
  {
    const std::lock_guard<std::mutex> guard(mutex);
    hold = on;
    changed.notify_all();
  }
  bool is_looking()
  {
    const std::lock_guard<std::mutex> guard(mutex);
    return looking;
  }
  void set_state(const std::string& text)
  {
    const std::lock_guard<std::mutex> guard(mutex);
    state_text = text;
  }

  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> names = {"ORCL"};
  std::string state_text = "online";
  bool hold = false;
  bool looking = false;
  bool fails = false;
  unsigned probes = 0;
  std::atomic<bool> overlapped{false};

private:
  /// Notices calls that overlap.
  struct Inside {
    explicit Inside(Test_Handler& owner) : handler(owner)
    {
      if (handler.inside_.fetch_add(1) != 0)
        handler.overlapped = true;
    }
    ~Inside() { handler.inside_.fetch_sub(1); }
    Test_Handler& handler;
  };
  std::atomic<int> inside_{0};
};

class Instance_Service_Test : public ::testing::Test
{
protected:
  Temp_Dir root_;
  Scoped_Env environment_{"KESTREL_ROOT", root_.path()};
  Log_Capture log_;
  Instance_Registry registry_{"host-1"};
  Test_Handler handler_;
  std::string error_, warning_;
  json_spirit::Array listed_;

  static std::string member(const json_spirit::Array& instances, size_t index, const char* key)
  {
    return write_json(json_spirit::find_value(instances.at(index).get_obj(), key));
  }
};

TEST_F(Instance_Service_Test, lists_what_a_look_found_with_everything_a_console_shows)
{
  handler_.names = {"ORCL", "NOPORT"};
  Instance_Service service(registry_, {&handler_});
  ASSERT_TRUE(service.list(false, listed_, error_)) << error_;
  EXPECT_TRUE(listed_.empty());
  ASSERT_TRUE(service.list(true, listed_, error_)) << error_;
  ASSERT_EQ(2u, listed_.size());
  const std::string uuid = Instance_Manager::instance()->find("oscar", "ORCL")->uuid;
  EXPECT_EQ("{\"name\":\"ORCL\",\"uuid\":\"" + uuid +
                "\",\"type\":\"oscar\",\"port\":2003,\"version\":\"2.5\",\"state\":\"online\",\"home\":\"/opt/oscar\","
                "\"accounts\":[]}",
            write_json(listed_[1]));
  EXPECT_EQ("null", member(listed_, 0, "port"));
}

TEST_F(Instance_Service_Test, a_look_that_fails_says_why)
{
  handler_.fails = true;
  Instance_Service service(registry_, {&handler_});
  EXPECT_FALSE(service.list(true, listed_, error_));
  EXPECT_EQ("the services cannot be listed", error_);
}

TEST_F(Instance_Service_Test, a_login_is_tested_kept_and_shown_without_its_password)
{
  Instance_Service service(registry_, {&handler_});
  EXPECT_FALSE(service.logon("ORCL", "sysdba", "wrong", warning_, error_));
  EXPECT_EQ("login of sysdba refused", error_);
  ASSERT_TRUE(service.logon("ORCL", "sysdba", "right", warning_, error_)) << error_;
  ASSERT_TRUE(service.list(false, listed_, error_)) << error_;
  EXPECT_EQ("[\"sysdba\"]", member(listed_, 0, "accounts"));
  EXPECT_EQ(std::string::npos, write_json(listed_).find("right"));
  EXPECT_FALSE(log_.contains("right"));
  EXPECT_FALSE(service.logon("OTHER", "sysdba", "right", warning_, error_));
  EXPECT_NE(std::string::npos, error_.find("OTHER"));
}

TEST_F(Instance_Service_Test, a_list_does_not_wait_for_a_look_under_way)
{
  Instance_Service service(registry_, {&handler_});
  ASSERT_TRUE(service.list(true, listed_, error_)) << error_;
  handler_.set_hold(true);
  std::thread looker([&] {
    json_spirit::Array instances;
    std::string error;
    EXPECT_TRUE(service.list(true, instances, error)) << error;
  });
  EXPECT_TRUE(eventually([&] { return handler_.is_looking(); }));
  json_spirit::Array known;
  EXPECT_TRUE(service.list(false, known, error_)) << error_;
  EXPECT_EQ(1u, known.size());
  EXPECT_TRUE(handler_.is_looking());
  handler_.set_hold(false);
  looker.join();
  EXPECT_FALSE(handler_.overlapped);
}

TEST_F(Instance_Service_Test, what_is_known_waits_for_nothing_though_the_registry_is_damaged)
{
  root_.write("var/opt/tarnvik/kestrel3/agent/instances.json", "{", 0600);
  handler_.hold = true;
  std::atomic<unsigned> heard{0};
  Instance_Service service(registry_, {&handler_});
  service.set_listener([&](const json_spirit::Array& instances) { heard += static_cast<unsigned>(instances.size()); });
  service.start();
  ASSERT_TRUE(eventually([&] { return handler_.is_looking(); }));
  EXPECT_TRUE(service.known().empty());
  EXPECT_FALSE(service.list(false, listed_, error_));
  EXPECT_NE(std::string::npos, error_.find("instances.json")) << error_;
  EXPECT_TRUE(handler_.is_looking()) << "nothing waited for the end of the look";
  // Mended, it is told like any other change.
  ASSERT_EQ(0, ::unlink((root_ / "var/opt/tarnvik/kestrel3/agent/instances.json").c_str()));
  handler_.set_hold(false);
  EXPECT_TRUE(eventually([&] { return heard == 1; }));
  EXPECT_EQ("\"ORCL\"", member(service.known(), 0, "name"));
  service.stop();
  log_.expect(LM_ERROR, "The instances of this host cannot be listed");
}

TEST_F(Instance_Service_Test, shows_what_it_knows_of_former_times_as_soon_as_it_is_started)
{
  {
    Instance_Service before(registry_, {&handler_});
    ASSERT_TRUE(before.list(true, listed_, error_)) << error_;
  }
  handler_.hold = true;
  Instance_Service service(registry_, {&handler_});
  EXPECT_TRUE(service.known().empty());
  service.start();
  EXPECT_EQ(1u, service.known().size());
  handler_.set_hold(false);
  service.stop();
}

TEST_F(Instance_Service_Test, calls_on_a_handler_never_overlap)
{
  Instance_Service service(registry_, {&handler_});
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&, i] {
      json_spirit::Array instances;
      std::string error, warning;
      for (int turn = 0; turn < 5; ++turn) {
        EXPECT_TRUE(service.list(i % 2 == 0, instances, error)) << error;
        EXPECT_TRUE(service.logon("ORCL", "sysdba", "right", warning, error)) << error;
      }
    });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_FALSE(handler_.overlapped);
}

TEST_F(Instance_Service_Test, looks_at_start_and_tells_of_changes_only)
{
  Instance_Service::Settings times;
  times.state_msec = 1;
  Instance_Service service(registry_, {&handler_}, times);
  std::mutex mutex;
  std::vector<std::string> heard;
  const auto heard_count = [&] {
    const std::lock_guard<std::mutex> guard(mutex);
    return heard.size();
  };
  service.set_listener([&](const json_spirit::Array& instances) {
    const std::lock_guard<std::mutex> guard(mutex);
    heard.push_back(instances.empty() ? "none" : member(instances, 0, "state"));
  });
  service.start();
  EXPECT_TRUE(eventually([&] { return heard_count() == 2; }));
  handler_.set_state("offline");
  EXPECT_TRUE(eventually([&] { return heard_count() == 3; }));
  service.set_listener(nullptr);
  handler_.set_state("online");
  EXPECT_TRUE(eventually([&] {
    json_spirit::Array instances;
    std::string error;
    return service.list(false, instances, error) && member(instances, 0, "state") == "\"online\"";
  }));
  service.stop();
  EXPECT_EQ((std::vector<std::string>{"none", "\"online\"", "\"offline\""}), heard);
  EXPECT_EQ(1u, handler_.probes);
}

TEST_F(Instance_Service_Test, looks_again_and_again)
{
  Instance_Service::Settings times;
  times.probe_msec = 1;
  times.state_msec = 1;
  Instance_Service service(registry_, {&handler_}, times);
  service.start();
  EXPECT_TRUE(eventually([&] {
    const std::lock_guard<std::mutex> guard(handler_.mutex);
    return handler_.probes >= 3;
  }));
  service.stop();
}

TEST_F(Instance_Service_Test, goes_on_after_a_look_that_failed)
{
  handler_.fails = true;
  Instance_Service::Settings times;
  times.probe_msec = 1;
  times.state_msec = 1;
  Instance_Service service(registry_, {&handler_}, times);
  service.start();
  EXPECT_TRUE(eventually([&] {
    const std::lock_guard<std::mutex> guard(handler_.mutex);
    return handler_.probes >= 2;
  }));
  {
    const std::lock_guard<std::mutex> guard(handler_.mutex);
    handler_.fails = false;
  }
  EXPECT_TRUE(eventually([&] {
    std::vector<Instance_Registry::Entry> entries;
    std::string error;
    return registry_.list(entries, error) == 0 && entries.size() == 1;
  }));
  service.stop();
  log_.allow(LM_ERROR, "The instances of this host cannot be looked for: the services cannot be listed");
}
} // namespace
