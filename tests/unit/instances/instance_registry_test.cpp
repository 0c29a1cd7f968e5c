#include "instances/instance_registry.h"

#include "instances/instance_handler.h"
#include "instances_fixture.h"
#include "support/fault_file_system.h"

#include <algorithm>
#include <stdexcept>
#include <thread>

using kestrel::Instance_Registry;

namespace
{
/// A handler whose answers the test sets; it notes the calls.
class Fake_Handler : public Instance_Handler
{
public:
  Fake_Handler() : Instance_Handler("oscar") {}

  int probe_instances(Found& instances) override
  {
    calls += "probe ";
    if (throws)
      throw std::runtime_error("regex too complex");
    instances = found;
    return result;
  }
  std::string& get_state(const char* name, std::string& state) override
  {
    calls += std::string("state(") + name + ") ";
    if (throws)
      throw std::runtime_error("regex too complex");
    return state = state_text;
  }
  int get_port(const char*, unsigned short& port) override
  {
    if (throws)
      throw std::runtime_error("regex too complex");
    port = 2010;
    return result;
  }
  int logon(const char* name, const char* user, const char* password,
            std::map<std::string, json_spirit::Value>&) override
  {
    calls += std::string("logon(") + name + "," + user + "," + password + ") ";
    if (throws)
      throw std::runtime_error("regex too complex");
    if (result != 0)
      error_ = error_text;
    return result;
  }
  int update_options(const char* name, const char*, const char*,
                     std::map<std::string, json_spirit::Value>& out) override
  {
    calls += std::string("update(") + name + ") ";
    if (update_throws)
      throw std::runtime_error("regex too complex");
    out = options;
    return update_result;
  }

  Found found;
  std::map<std::string, json_spirit::Value> options;
  std::string calls, error_text, state_text;
  int result = 0, update_result = 0;
  bool throws = false, update_throws = false;
};
} // namespace

class Instance_Registry_Test : public Instances_Fixture
{
protected:
  Fake_Handler handler_;
  std::string warning_;

  std::shared_ptr<Instance> find(const std::string& name)
  {
    return Instance_Manager::instance()->find("oscar", name);
  }
  int logon(const std::string& name = "DB")
  {
    return registry_.logon(handler_, name, "", "SYS", "top secret", warning_, error_);
  }
};

TEST_F(Instance_Registry_Test, registers_what_a_probe_finds)
{
  handler_.found = {{"DB", make_instance("DB")}, {"HR", make_instance("HR", "/home/hr")}};
  ASSERT_EQ(0, registry_.probe(handler_, error_)) << error_;
  const std::shared_ptr<Instance> instance = find("HR");
  ASSERT_TRUE(instance);
  EXPECT_EQ("oscar", instance->type);
  EXPECT_EQ("HR", instance->name);
  EXPECT_EQ("/home/hr", instance->options["oscar_home"].get_str());
  EXPECT_FALSE(find("NONE"));
  EXPECT_FALSE(Instance_Manager::instance()->find("mysql", "HR"));
}

TEST_F(Instance_Registry_Test, uuids_are_stable_and_differ_by_host_type_and_name)
{
  register_instance("DB");
  register_instance("HR");
  const std::string uuid = find("DB")->uuid;
  EXPECT_EQ(36u, uuid.size());
  EXPECT_NE(uuid, find("HR")->uuid);
  ASSERT_EQ(0, Instance_Registry("host-2").merge_probe(
                   {{"DB", make_instance("DB")}, {"X", make_instance("X")}}, error_));
  EXPECT_EQ(uuid, find("DB")->uuid) << "a known instance keeps its uuid";
  const std::string on_other_host = find("X")->uuid;
  ASSERT_EQ(0, registry_.remove("oscar", "X", error_));
  register_instance("X");
  EXPECT_NE(on_other_host, find("X")->uuid);
  ASSERT_EQ(0, registry_.remove("oscar", "DB", error_));
  register_instance("DB");
  EXPECT_EQ(uuid, find("DB")->uuid) << "the same host gives it again";
}

TEST_F(Instance_Registry_Test, a_probe_merges_options_and_forgets_nothing)
{
  register_instance("DB");
  register_instance("GONE");
  ASSERT_EQ(0, update_instance(find("DB"), {{"node_id", 2}, {"version", "2.6"}}));
  ASSERT_EQ(0, registry_.merge_probe({{"DB", make_instance("DB", "/new")}}, error_));
  const auto options = find("DB")->options;
  EXPECT_EQ("/new", options.at("oscar_home").get_str());
  EXPECT_EQ(2, options.at("node_id").get_int());
  EXPECT_EQ("2.5", options.at("version").get_str());
  EXPECT_TRUE(find("GONE"));
}

TEST_F(Instance_Registry_Test, an_unchanged_probe_writes_nothing)
{
  register_instance("DB");
  kestrel_test::Fault_File_System faults;
  register_instance("DB");
  EXPECT_EQ(0u, faults.count("write"));
}

TEST_F(Instance_Registry_Test, copies_handed_out_do_not_change)
{
  register_instance("DB");
  const std::shared_ptr<Instance> before = find("DB");
  ASSERT_EQ(0, update_instance(before, {{"node_id", 7}}));
  EXPECT_EQ(0u, before->options.count("node_id"));
  EXPECT_EQ(7, find("DB")->options["node_id"].get_int());
  before->options["oscar_home"] = "elsewhere";
  EXPECT_EQ("/opt/oscar", find("DB")->options["oscar_home"].get_str());
}

TEST_F(Instance_Registry_Test, updating_an_unregistered_instance_fails)
{
  EXPECT_EQ(-1, update_instance(make_instance("DB"), {{"node_id", 7}}));
  log_.expect(LM_ERROR, "DB is not registered");
  EXPECT_EQ(-1, update_instance(nullptr, {}));
  log_.expect(LM_ERROR, "No instance was given");
}

TEST_F(Instance_Registry_Test, a_failing_probe_changes_nothing)
{
  register_instance("DB");
  handler_.found = {{"HR", make_instance("HR")}};
  handler_.result = -1;
  EXPECT_EQ(-1, registry_.probe(handler_, error_));
  EXPECT_EQ("The instances of this host could not be listed", error_);
  handler_.throws = true;
  EXPECT_EQ(-1, registry_.probe(handler_, error_));
  EXPECT_EQ("The instance handler failed: regex too complex", error_);
  EXPECT_FALSE(find("HR"));
}

TEST_F(Instance_Registry_Test, refuses_probe_results_without_identity)
{
  for (const auto& odd : {std::shared_ptr<Instance>(), std::make_shared<Instance>(), make_instance("")}) {
    EXPECT_EQ(-1, registry_.merge_probe({{"DB", make_instance("DB")}, {"ODD", odd}}, error_));
    EXPECT_NE(std::string::npos, error_.find("'ODD'"));
  }
  EXPECT_FALSE(find("DB")) << "all or nothing";
}

TEST_F(Instance_Registry_Test, options_of_any_shape_survive)
{
  json_spirit::Object object;
  object.emplace_back("a", json_spirit::Array{json_spirit::Value(1), json_spirit::Value("\xc3\xa4\n\"")});
  auto instance = make_instance("DB");
  instance->options["any"] = object;
  instance->options["big"] = static_cast<uint64_t>(-1);
  ASSERT_EQ(0, registry_.merge_probe({{"DB", instance}}, error_));
  EXPECT_EQ(json_spirit::Value(object), find("DB")->options["any"]);
  EXPECT_EQ(static_cast<uint64_t>(-1), find("DB")->options["big"].get_uint64());
}

TEST_F(Instance_Registry_Test, options_that_json_cannot_hold_are_refused)
{
  json_spirit::Value deep;
  for (int i = 0; i < 100; ++i)
    deep = json_spirit::Array{deep};
  register_instance("DB");
  EXPECT_EQ(-1, update_instance(find("DB"), {{"deep", deep}}));
  log_.expect(LM_ERROR, state("instances.json"));
  EXPECT_TRUE(find("DB"));
}

TEST_F(Instance_Registry_Test, reports_the_port_that_the_handler_knows)
{
  unsigned short port = 7;
  EXPECT_TRUE(registry_.port(handler_, "DB", port));
  EXPECT_EQ(2010, port);
  port = 7;
  handler_.result = -1;
  EXPECT_FALSE(registry_.port(handler_, "DB", port));
  handler_.throws = true;
  EXPECT_FALSE(registry_.port(handler_, "DB", port));
  log_.expect(LM_ERROR, "Instance_Registry::port: ");
  EXPECT_EQ(7, port) << "untouched";
}

TEST_F(Instance_Registry_Test, reports_the_state_of_an_instance)
{
  handler_.state_text = "running";
  EXPECT_EQ("running", registry_.state(handler_, "DB"));
  handler_.state_text.clear();
  EXPECT_EQ("error", registry_.state(handler_, "DB"));
  handler_.throws = true;
  EXPECT_EQ("error", registry_.state(handler_, "DB"));
  log_.expect(LM_ERROR, "regex too complex");
}

TEST_F(Instance_Registry_Test, a_logon_stores_the_account_and_updates_the_options)
{
  register_instance("DB");
  handler_.options = {{"node_id", 4}, {"master_id", 1}};
  ASSERT_EQ(0, logon()) << error_;
  EXPECT_EQ("", warning_);
  EXPECT_EQ("logon(DB,SYS,top secret) update(DB) ", handler_.calls);
  EXPECT_EQ("SYS/top secret", account("DB"));
  EXPECT_EQ(4, find("DB")->options["node_id"].get_int());
  EXPECT_FALSE(log_.contains("top secret"));
}

TEST_F(Instance_Registry_Test, a_refused_logon_stores_nothing)
{
  register_instance("DB");
  handler_.result = -1;
  handler_.error_text = "wrong password";
  EXPECT_EQ(-1, logon());
  EXPECT_EQ("wrong password", error_);
  handler_.error_text.clear();
  EXPECT_EQ(-1, logon());
  EXPECT_EQ("The login to DB was refused", error_) << "an error text of an earlier call must not show";
  handler_.throws = true;
  EXPECT_EQ(-1, logon());
  EXPECT_NE(std::string::npos, error_.find("regex too complex"));
  EXPECT_EQ("none", account("DB"));
}

TEST_F(Instance_Registry_Test, failing_to_update_the_options_keeps_the_account)
{
  register_instance("DB");
  handler_.update_result = -1;
  ASSERT_EQ(0, logon());
  EXPECT_EQ("No cluster of DB could be read; that matters only if it is a node of one", warning_);
  handler_.update_throws = true;
  ASSERT_EQ(0, logon());
  EXPECT_NE(std::string::npos, warning_.find("regex too complex"));
  EXPECT_EQ("SYS/top secret", account("DB"));
}

TEST_F(Instance_Registry_Test, the_list_shows_user_names_and_no_passwords)
{
  register_instance("HR");
  register_instance("DB");
  store_account("DB", "", "SYS", "top secret");
  store_account("DB", "job-1", "BACKUP", "other secret");
  std::vector<Instance_Registry::Entry> entries;
  ASSERT_EQ(0, registry_.list(entries, error_));
  ASSERT_EQ(2u, entries.size());
  EXPECT_EQ("DB", entries[0].instance.name);
  ASSERT_EQ(2u, entries[0].accounts.size());
  EXPECT_EQ("SYS", entries[0].accounts[0].username);
  EXPECT_EQ("job-1", entries[0].accounts[1].uid);
  EXPECT_EQ("BACKUP", entries[0].accounts[1].username);
  EXPECT_TRUE(entries[1].accounts.empty());
  for (const char* file : {"instances.json", "accounts.json"})
    EXPECT_EQ(std::string::npos, kestrel_test::read_file(state(file)).find("secret")) << file;
}

TEST_F(Instance_Registry_Test, removing_an_instance_removes_its_accounts)
{
  register_instance("DB");
  register_instance("HR");
  store_account("DB", "", "SYS", "a");
  store_account("DB", "job", "SYS", "b");
  store_account("HR", "", "SYS", "c");
  ASSERT_EQ(0, registry_.remove("oscar", "DB", error_));
  EXPECT_FALSE(find("DB"));
  EXPECT_EQ("none", account("DB", "job"));
  EXPECT_EQ("SYS/c", account("HR"));
  EXPECT_EQ(-1, registry_.remove("oscar", "DB", error_));
  EXPECT_NE(std::string::npos, error_.find("is not registered"));
}

// Each call in turn fails while an instance and an account are added beside existing ones.
TEST_F(Instance_Registry_Test, what_was_stored_survives_every_failing_call)
{
  register_instance("OLD");
  store_account("OLD", "", "SYS", "old secret");
  for (const std::string kind :
       {"open", "read", "write", "fsync", "close", "rename", "unlink", "fsync_directory", "fstat"}) {
    unsigned failures = 0;
    bool met = true;
    for (unsigned number = 1; met; ++number) {
      ASSERT_LT(number, 100u);
      const std::string name = kind + std::to_string(number);
      int merged, stored;
      {
        kestrel_test::Fault_File_System faults;
        faults.fail(kind, number, ENOSPC);
        merged = registry_.merge_probe({{name, make_instance(name)}}, error_);
        stored = registry_.set_account("oscar", name, "", "SYS", "new secret", error_);
        met = faults.met();
      }
      failures += (merged != 0) + (stored != 0);
      EXPECT_TRUE(merged != 0 || find(name)) << name;
      EXPECT_TRUE(stored != 0 || account(name) == "SYS/new secret") << name;
      EXPECT_TRUE(find("OLD")) << name;
      EXPECT_EQ("SYS/old secret", account("OLD")) << name;
    }
    // A leftover that cannot be removed and a read that has ended harm nobody.
    EXPECT_TRUE(failures > 0 || kind == "unlink") << kind;
  }
}

TEST_F(Instance_Registry_Test, threads_may_write_and_read_together)
{
  register_instance("DB");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t] {
      Instance_Registry registry("host-1");
      std::string error;
      for (int i = 0; i < 10; ++i) {
        const std::string name = "DB" + std::to_string(t) + "_" + std::to_string(i);
        EXPECT_EQ(0, registry.merge_probe({{name, make_instance(name)}}, error)) << error;
        EXPECT_EQ(0, registry.set_account("oscar", name, "", name, "pw", error)) << error;
        EXPECT_TRUE(Instance_Manager::instance()->find("oscar", "DB"));
        EXPECT_EQ(name + "/pw", account(name));
      }
    });
  for (std::thread& thread : threads)
    thread.join();
  std::vector<Instance_Registry::Entry> entries;
  ASSERT_EQ(0, registry_.list(entries, error_));
  EXPECT_EQ(41u, entries.size());
}

// Calls on one handler must not overlap: it keeps what a probe found without a lock of its own.
TEST_F(Instance_Registry_Test, a_survey_gives_state_and_port_of_all_from_one_look)
{
  register_instance("ONE");
  register_instance("TWO");
  store_account("TWO", "", "sysdba", "pw");
  store_account("TWO", "job-1", "other", "pw");
  store_account("TWOFOLD", "", "nobody", "pw");
  /// Finds the instances through the manager, as a module does, and changes the registry meanwhile.
  class Finding_Handler : public Instance_Handler
  {
  public:
    explicit Finding_Handler(Instance_Registry& registry) : Instance_Handler("oscar"), registry_(registry) {}
    std::string& get_state(const char* name, std::string& state) override
    {
      std::string error;
      EXPECT_EQ(0, registry_.merge_probe({{"THREE", make_instance("THREE")}}, error)) << error;
      found_new = found_new || Instance_Manager::instance()->find("oscar", "THREE");
      return state = Instance_Manager::instance()->find("oscar", name) ? "online" : "lost";
    }
    int get_port(const char* name, unsigned short& port) override
    {
      port = 2003;
      return std::string(name) == "ONE" ? 0 : -1;
    }
    bool found_new = false;

  private:
    Instance_Registry& registry_;
  };
  Finding_Handler handler(registry_);
  std::vector<Instance_Registry::Survey_Entry> entries;
  ASSERT_EQ(0, registry_.survey({&handler}, entries, error_)) << error_;
  ASSERT_EQ(2u, entries.size());
  EXPECT_EQ("ONE", entries[0].entry.instance.name);
  EXPECT_EQ("online", entries[0].state);
  EXPECT_EQ(2003, entries[0].port);
  EXPECT_EQ(0u, entries[0].entry.accounts.size());
  EXPECT_EQ(0, entries[1].port);
  EXPECT_EQ(2u, entries[1].entry.accounts.size());
  EXPECT_FALSE(handler.found_new);
  EXPECT_TRUE(Instance_Manager::instance()->find("oscar", "THREE"));
}

TEST_F(Instance_Registry_Test, calls_on_one_handler_are_serialised)
{
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([this] {
      std::string warning, error;
      for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(0, registry_.probe(handler_, error)) << error;
        registry_.state(handler_, "DB");
        EXPECT_EQ(0, registry_.logon(handler_, "DB", "", "SYS", "pw", warning, error)) << error;
      }
    });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(80, std::count(handler_.calls.begin(), handler_.calls.end(), ' '));
}
