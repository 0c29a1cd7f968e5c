#include "instances/instance_files.h"

#include "instances_fixture.h"

#include <sys/stat.h>

using kestrel::Account_Map;
using kestrel::Instance_Map;

namespace
{
const char* const instance_text =
    R"({"version":1,"instances":[{"type":"oscar","name":"DB","uuid":"u","options":{"oscar_home":"/o","node_id":3}}]})";
const char* const account_text =
    R"({"version":1,"key_id":"k","accounts":[{"type":"oscar","name":"DB","uid":"","username":"U","password":"00"}]})";

std::string replaced(std::string text, const std::string& from, const std::string& to)
{
  const size_t at = text.find(from);
  EXPECT_NE(std::string::npos, at) << from;
  return text.replace(at, from.size(), to);
}
} // namespace

TEST(Instance_Files, reads_what_it_writes)
{
  Instance_Map instances, again;
  std::string error;
  ASSERT_TRUE(kestrel::parse_instances(instance_text, instances, error)) << error;
  ASSERT_EQ(1u, instances.size());
  const Instance& instance = instances.begin()->second;
  EXPECT_EQ("/o", instance.options.at("oscar_home").get_str());
  EXPECT_EQ(3, instance.options.at("node_id").get_int());
  ASSERT_TRUE(kestrel::parse_instances(kestrel::instances_text(instances), again, error)) << error;
  EXPECT_EQ(kestrel::instances_text(instances), kestrel::instances_text(again));

  Account_Map accounts, accounts_again;
  ASSERT_TRUE(kestrel::parse_accounts(account_text, accounts, error)) << error;
  EXPECT_EQ("U", accounts.accounts.begin()->second.username);
  ASSERT_TRUE(kestrel::parse_accounts(kestrel::accounts_text(accounts), accounts_again, error)) << error;
  EXPECT_EQ(kestrel::accounts_text(accounts), kestrel::accounts_text(accounts_again));
}

TEST(Instance_Files, refuses_every_wrong_shape_of_the_instances)
{
  const std::vector<std::pair<std::string, std::string>> changes = {
      {R"("version":1,)", ""},
      {R"("version":1)", R"("version":"1")"},
      {R"("version":1)", R"("version":0)"},
      {R"("version":1)", R"("version":2)"},
      {R"("version":1)", R"("version":99999999999)"},
      {R"("instances":[)", R"("others":[)"},
      {R"("oscar",)", "7,"},
      {R"("oscar",)", R"("",)"},
      {R"("name":"DB")", R"("name":null)"},
      {R"("name":"DB")", R"("named":"DB")"},
      {R"("uuid":"u")", R"("uuid":[])"},
      {R"({"oscar_home":"/o","node_id":3})", "[]"},
      {R"("options":{"oscar_home":"/o","node_id":3})", R"("option":{})"},
      {R"("node_id")", R"("oscar_home")"},
      {"{\"type\"", "5,{\"type\""},
      {"]}", R"(,{"type":"oscar","name":"DB","uuid":"v","options":{}}]})"},
      {"]}", "]} x"},
      {"]}", "]"}};
  for (const auto& [from, to] : changes) {
    Instance_Map instances = {{{"a", "b"}, Instance()}};
    std::string error;
    EXPECT_FALSE(kestrel::parse_instances(replaced(instance_text, from, to), instances, error))
        << from << " -> " << to;
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(1u, instances.count({"a", "b"})) << "the result must stay untouched";
  }
  for (const char* text : {"", "[]", "null", "\"x\"", R"({"version":1,"instances":{}})"}) {
    Instance_Map instances;
    std::string error;
    EXPECT_FALSE(kestrel::parse_instances(text, instances, error)) << text;
  }
}

TEST(Instance_Files, refuses_every_wrong_shape_of_the_accounts)
{
  const std::vector<std::pair<std::string, std::string>> changes = {
      {R"("version":1)", R"("version":2)"},
      {R"("key_id":"k",)", ""},
      {R"("key_id":"k")", R"("key_id":1)"},
      {R"("accounts":[)", R"("account":[)"},
      {R"("type":"oscar")", R"("type":"")"},
      {R"("name":"DB")", R"("name":true)"},
      {R"("uid":"",)", ""},
      {R"("username":"U")", R"("username":{})"},
      {R"("password":"00")", R"("password":0)"},
      {R"(,"password":"00")", ""},
      {"]}", R"(,{"type":"oscar","name":"DB","uid":"","username":"V","password":"11"}]})"},
      {"]}", R"(,[]]})"}};
  for (const auto& [from, to] : changes) {
    Account_Map accounts;
    accounts.key_id = "before";
    std::string error;
    EXPECT_FALSE(kestrel::parse_accounts(replaced(account_text, from, to), accounts, error))
        << from << " -> " << to;
    EXPECT_FALSE(error.empty());
    EXPECT_EQ("before", accounts.key_id);
  }
}

class Instance_Files_Test : public Instances_Fixture
{
};

TEST_F(Instance_Files_Test, a_damaged_file_is_named_and_never_overwritten)
{
  for (const char* content : {"", "{", "{\"version\":9,\"instances\":[],\"accounts\":[],\"key_id\":\"\"}"}) {
    const std::string instances = state("instances.json"), accounts = state("accounts.json");
    root_.write("var/opt/tarnvik/kestrel3/agent/instances.json", content);
    root_.write("var/opt/tarnvik/kestrel3/agent/accounts.json", content);

    EXPECT_EQ(-1, registry_.merge_probe({{"DB", make_instance("DB")}}, error_));
    EXPECT_NE(std::string::npos, error_.find(instances)) << error_;
    EXPECT_EQ(-1, registry_.set_account("oscar", "DB", "", "SYS", "secret", error_));
    EXPECT_NE(std::string::npos, error_.find(accounts)) << error_;
    EXPECT_EQ(-1, registry_.remove("oscar", "DB", error_));
    EXPECT_EQ(-1, registry_.remove_account("oscar", "DB", "", error_));
    std::vector<kestrel::Instance_Registry::Entry> entries;
    EXPECT_EQ(-1, registry_.list(entries, error_));
    EXPECT_FALSE(Instance_Manager::instance()->find("oscar", "DB"));
    log_.expect(LM_ERROR, instances);
    EXPECT_EQ("none", account("DB"));
    log_.expect(LM_ERROR, accounts);
    EXPECT_EQ(-1, update_instance(make_instance("DB"), {}));
    log_.expect(LM_ERROR, instances);

    EXPECT_EQ(content, kestrel_test::read_file(instances));
    EXPECT_EQ(content, kestrel_test::read_file(accounts));
    EXPECT_FALSE(kestrel_test::exists(state("account.key"))) << "no key for accounts that cannot be read";
  }
}

// The writer replaces invalid UTF-8: two names could become one, and a changed user name would not decrypt.
TEST_F(Instance_Files_Test, texts_that_json_cannot_hold_are_refused)
{
  register_instance("DB");
  store_account("DB", "", "SYS", "secret");
  const std::string instances = kestrel_test::read_file(state("instances.json"));
  const std::string accounts = kestrel_test::read_file(state("accounts.json"));
  const std::string bad = "A\xff";
  EXPECT_EQ(-1, registry_.merge_probe({{bad, make_instance(bad)}}, error_));
  EXPECT_NE(std::string::npos, error_.find("not valid UTF-8")) << error_;
  EXPECT_EQ(-1,
            registry_.merge_probe({{"1", make_instance("A\xff")}, {"2", make_instance("A\xfe")}}, error_));
  EXPECT_EQ(-1, registry_.set_account("oscar", bad, "", "SYS", "x", error_));
  EXPECT_EQ(-1, registry_.set_account("oscar", "DB", bad, "SYS", "x", error_));
  EXPECT_EQ(-1, registry_.set_account("oscar", "DB", "", bad, "x", error_));
  EXPECT_NE(std::string::npos, error_.find(state("accounts.json"))) << error_;
  EXPECT_EQ(instances, kestrel_test::read_file(state("instances.json")));
  EXPECT_EQ(accounts, kestrel_test::read_file(state("accounts.json")));

  const std::string odd("n\0\n\"\xc3\xa4", 6);
  store_account("DB", odd, odd, odd.c_str());
  EXPECT_EQ(odd + "/n", account("DB", odd)) << "any valid text is kept";
}

TEST_F(Instance_Files_Test, both_files_are_private)
{
  register_instance("DB");
  store_account("DB", "", "SYS", "secret");
  for (const char* file : {"instances.json", "accounts.json", "account.key"}) {
    struct stat status;
    ASSERT_EQ(0, ::stat(state(file).c_str(), &status));
    EXPECT_EQ(0600u, status.st_mode & 07777u) << file;
  }
}
