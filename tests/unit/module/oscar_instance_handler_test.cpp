#include "oscar/instance/oscar_instance_handler.h"

#include "instances/instance_manager.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

using json_spirit::Value;
using kestrel_test::Log_Capture;
using kestrel_test::Temp_Dir;

namespace
{
typedef std::map<std::string, Value> Values;

/// Knows the instances that a test puts in.
class Fake_Instance_Manager : public Instance_Manager
{
public:
  Fake_Instance_Manager() : before_(kestrel::set_instance_manager_for_test(this)) {}
  ~Fake_Instance_Manager() override { kestrel::set_instance_manager_for_test(before_); }

  std::shared_ptr<Instance> find(const std::string& type, const std::string& name) override
  {
    const auto found = instances.find(type + "/" + name);
    return found == instances.end() ? nullptr : std::make_shared<Instance>(found->second);
  }

  void add(const std::string& name, const Values& options)
  {
    Instance instance;
    instance.type = "oscar";
    instance.name = name;
    instance.options = options;
    instances["oscar/" + name] = instance;
  }

  std::map<std::string, Instance> instances;

private:
  Instance_Manager* const before_;
};

int init(Oscar_Instance_Handler& handler, std::vector<std::string> words)
{
  std::vector<char*> argv;
  for (std::string& word : words)
    argv.push_back(&word[0]);
  argv.push_back(nullptr);
  return handler.init(static_cast<int>(words.size()), argv.data());
}

std::string state_of(const char* name)
{
  Oscar_Instance_Handler handler;
  std::string state = "before";
  EXPECT_EQ(&handler.get_state(name, state), &state);
  return state;
}
} // namespace

TEST(Oscar_Instance_Handler, is_for_the_type_oscar)
{
  EXPECT_EQ(Oscar_Instance_Handler().type(), "oscar");
}

TEST(Oscar_Instance_Handler, init_takes_the_locale)
{
  Oscar_Instance_Handler handler;
  EXPECT_EQ(handler.locale(), "");
  EXPECT_EQ(init(handler, {}), 0);
  EXPECT_EQ(handler.locale(), "");
  EXPECT_EQ(init(handler, {"-l", "C"}), 0);
  EXPECT_EQ(handler.locale(), "C");
  EXPECT_EQ(init(handler, {"-lde_DE.UTF-8"}), 0);
  EXPECT_EQ(handler.locale(), "de_DE.UTF-8");
}

TEST(Oscar_Instance_Handler, init_notes_an_unknown_option_and_goes_on)
{
  Log_Capture log;
  Oscar_Instance_Handler handler;
  EXPECT_EQ(init(handler, {"-x", "-l", "C"}), 0);
  EXPECT_EQ(handler.locale(), "C");
  EXPECT_TRUE(log.expect_exactly(LM_DEBUG, "Unknown queue creating option ?\n"));
  EXPECT_EQ(init(handler, {"-l"}), 0) << "without its argument";
  EXPECT_EQ(handler.locale(), "C");
}

TEST(Oscar_Instance_Handler, init_stops_at_the_first_word_that_is_no_option)
{
  Oscar_Instance_Handler handler;
  EXPECT_EQ(init(handler, {"word", "-l", "C"}), 0);
  EXPECT_EQ(handler.locale(), "");
}

TEST(Oscar_Instance_Handler, state_is_error_for_an_instance_that_is_not_registered)
{
  Fake_Instance_Manager manager;
  manager.add("NOHOME", {{"version", "1"}});
  manager.add("BADHOME", {{"oscar_home", 5}});
  EXPECT_EQ(state_of(nullptr), "error");
  EXPECT_EQ(state_of(""), "error");
  EXPECT_EQ(state_of("SZ1"), "error");
  EXPECT_EQ(state_of("NOHOME"), "error");
  Log_Capture log;
  EXPECT_EQ(state_of("BADHOME"), "error");
  EXPECT_TRUE(log.expect(LM_EMERGENCY, "is not string!"));
}

TEST(Oscar_Instance_Handler, state_is_error_without_a_registry)
{
  Instance_Manager* const before = kestrel::set_instance_manager_for_test(nullptr);
  EXPECT_EQ(state_of("SZ1"), "error");
  kestrel::set_instance_manager_for_test(before);
}

TEST(Oscar_Instance_Handler, state_is_that_of_the_registered_instance)
{
  const Temp_Dir home;
  home.write("admin/SZ1.conf", "port = 1\n");
  Fake_Instance_Manager manager;
  manager.add("SZ1", {{"oscar_home", home.path()}});
  EXPECT_EQ(state_of("SZ1"), "offline");
}

TEST(Oscar_Instance_Handler, port_is_that_of_the_registered_instance)
{
  const Temp_Dir home;
  home.write("admin/SZ1.conf", "port = 2010\n");
  home.write("admin/NOPORT.conf", "port = 2010");
  Fake_Instance_Manager manager;
  for (const char* name : {"SZ1", "NOPORT"})
    manager.add(name, {{"oscar_home", home.path()}});
  Oscar_Instance_Handler handler;
  unsigned short port = 7;
  for (const char* unknown : {static_cast<const char*>(nullptr), "", "SZ2", "NOPORT"}) {
    EXPECT_EQ(handler.get_port(unknown, port), -1);
    EXPECT_EQ(port, 7);
  }
  EXPECT_EQ(handler.get_port("SZ1", port), 0);
  EXPECT_EQ(port, 2010);
}

TEST(Oscar_Instance_Handler, a_login_needs_name_user_and_password)
{
  struct Case {
    const char* name;
    const char* user;
    const char* password;
    const char* missing;
  };
  const Case cases[] = {{nullptr, "u", "p", "name"},        {"", "u", "p", "name"},
                        {"I", nullptr, "p", "username"},    {"I", "", "p", "username"},
                        {"I", "u", nullptr, "password"},    {"I", "u", "", "password"},
                        {nullptr, nullptr, nullptr, "name"}};
  for (const Case& c : cases) {
    Log_Capture log;
    Oscar_Instance_Handler handler;
    Values values;
    const std::string text = std::string(", ") + c.missing + " is NULL or \"\":\n";
    EXPECT_EQ(handler.logon(c.name, c.user, c.password, values), -1);
    EXPECT_TRUE(log.expect(LM_EMERGENCY, text));
    EXPECT_EQ(handler.update_options(c.name, c.user, c.password, values), -1);
    EXPECT_TRUE(log.expect(LM_EMERGENCY, text));
    EXPECT_EQ(log.count("Unexpected error in "), 2u);
    EXPECT_EQ(handler.error(), "");
  }
}

TEST(Oscar_Instance_Handler, knows_no_instance_that_only_the_registry_knows)
{
  Log_Capture log;
  Fake_Instance_Manager manager;
  manager.add("SZ1", {{"oscar_home", "/home/oscar"}});
  Oscar_Instance_Handler handler;
  Values values;
  EXPECT_EQ(handler.logon("SZ1", "u", "secret-word", values), -1);
  EXPECT_EQ(handler.error(), "Instance SZ1 not found");
  EXPECT_TRUE(log.expect_exactly(LM_ERROR, "Instance SZ1 not found.\n"));
  EXPECT_FALSE(log.contains("secret-word"));
}

TEST(Oscar_Instance_Handler, a_name_with_format_characters_is_only_text)
{
  Log_Capture log;
  Oscar_Instance_Handler handler;
  Values values;
  EXPECT_EQ(handler.logon("%s%n", "u", "p", values), -1);
  EXPECT_EQ(handler.error(), "Instance %s%n not found");
  EXPECT_TRUE(log.expect_exactly(LM_ERROR, "Instance %s%n not found.\n"));
}

TEST(Oscar_Instance_Handler, options_of_an_instance_that_is_not_registered_are_not_updated)
{
  Log_Capture log;
  Fake_Instance_Manager manager;
  manager.add("NOHOME", {});
  Oscar_Instance_Handler handler;
  Values values = {{"node_id", 7}};
  for (const char* name : {"SZ1", "NOHOME"}) {
    EXPECT_EQ(handler.update_options(name, "u", "p", values), -1);
    EXPECT_TRUE(
        log.expect_exactly(LM_ERROR, std::string("Failed to update options, instance = '") + name + "'\n"));
  }
  EXPECT_EQ(values, (Values{{"node_id", 7}}));
}
