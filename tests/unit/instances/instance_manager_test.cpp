#include "instances/instance_manager.h"

#include "instances_fixture.h"

#include <sys/stat.h>
#include <unistd.h>

class Instance_Manager_Test : public Instances_Fixture
{
};

TEST_F(Instance_Manager_Test, an_account_without_uid_serves_every_uid)
{
  store_account("DB", "", "SYS", "general");
  store_account("DB", "job-1", "BACKUP", "special");
  EXPECT_EQ("BACKUP/special", account("DB", "job-1"));
  EXPECT_EQ("SYS/general", account("DB", "job-2"));
  EXPECT_EQ("SYS/general", account("DB", ""));
}

TEST_F(Instance_Manager_Test, an_account_of_one_uid_serves_no_other)
{
  store_account("DB", "job-1", "BACKUP", "special");
  EXPECT_EQ("none", account("DB", "job-2"));
  EXPECT_EQ("none", account("DB", ""));
  EXPECT_EQ("none", account("HR", "job-1"));
  log_.expect(LM_NOTICE, "there is no account of oscar instance DB");
}

TEST_F(Instance_Manager_Test, empty_user_and_password_are_kept)
{
  store_account("DB", "", "", "");
  EXPECT_EQ("/", account("DB"));
}

TEST_F(Instance_Manager_Test, storing_again_replaces)
{
  store_account("DB", "", "SYS", "one");
  store_account("DB", "", "ROOT", "two");
  EXPECT_EQ("ROOT/two", account("DB"));
  ASSERT_EQ(0, registry_.remove_account("oscar", "DB", "", error_));
  EXPECT_EQ("none", account("DB"));
  EXPECT_EQ(-1, registry_.remove_account("oscar", "DB", "", error_));
  EXPECT_EQ("There is no such account of oscar instance DB", error_);
}

TEST_F(Instance_Manager_Test, results_stay_untouched_on_failure)
{
  std::string user = "before";
  secure_string password = "before";
  EXPECT_EQ(-1, Instance_Manager::instance()->get_account("oscar", "DB", "", user, password, nullptr));
  EXPECT_EQ("before", user);
  EXPECT_EQ("before", password);
}

TEST_F(Instance_Manager_Test, a_missing_key_is_an_error_and_is_not_made_anew)
{
  store_account("DB", "", "SYS", "secret");
  ASSERT_EQ(0, ::unlink(state("account.key").c_str()));
  EXPECT_EQ("none", account("DB"));
  log_.expect(LM_ERROR, state("account.key") + " is missing");
  EXPECT_EQ(-1, registry_.set_account("oscar", "HR", "", "SYS", "x", error_));
  EXPECT_FALSE(kestrel_test::exists(state("account.key")));
}

TEST_F(Instance_Manager_Test, a_key_of_another_host_is_an_error)
{
  store_account("DB", "", "SYS", "secret");
  const std::string before = kestrel_test::read_file(state("accounts.json"));
  root_.write("var/opt/tarnvik/kestrel3/agent/account.key", std::string(32, 'k'), 0600);
  EXPECT_EQ("none", account("DB"));
  log_.expect(LM_ERROR, "is not the one that " + state("accounts.json") + " was written with");
  EXPECT_EQ(-1, registry_.set_account("oscar", "DB", "", "SYS", "x", error_));
  EXPECT_NE(std::string::npos, error_.find("is not the one"));
  EXPECT_EQ(before, kestrel_test::read_file(state("accounts.json")));
}

TEST_F(Instance_Manager_Test, an_open_key_file_is_an_error)
{
  store_account("DB", "", "SYS", "secret");
  ASSERT_EQ(0, ::chmod(state("account.key").c_str(), 0644));
  EXPECT_EQ("none", account("DB"));
  log_.expect(LM_ERROR, "chmod 600");
}

TEST_F(Instance_Manager_Test, an_entry_moved_to_another_account_is_an_error)
{
  store_account("DB", "", "SYS", "secret");
  std::string text = kestrel_test::read_file(state("accounts.json"));
  const size_t at = text.find("\"DB\"");
  ASSERT_NE(std::string::npos, at);
  text.replace(at, 4, "\"HR\"");
  root_.write("var/opt/tarnvik/kestrel3/agent/accounts.json", text, 0600);
  EXPECT_EQ("none", account("HR"));
  log_.expect(LM_ERROR, "does not belong to this account");
  EXPECT_FALSE(log_.contains("secret"));
}

TEST_F(Instance_Manager_Test, can_be_replaced)
{
  class Other : public Instance_Manager
  {
    int get_account(const std::string&, const std::string&, const std::string&, std::string& user,
                    secure_string&, std::map<std::string, json_spirit::Value>*) override
    {
      user = "other";
      return 0;
    }
  } other;
  Instance_Manager* const before = kestrel::set_instance_manager_for_test(&other);
  EXPECT_EQ("other/", account("DB"));
  EXPECT_EQ(&other, kestrel::set_instance_manager_for_test(nullptr));
  EXPECT_EQ(nullptr, Instance_Manager::instance());
  kestrel::set_instance_manager_for_test(before);
}
