#include "agent/server_key.h"

#include "agent/host_identity.h"
#include "base/path_conf.h"
#include "json/json_util.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <functional>
#include <sys/stat.h>
#include <unistd.h>

using namespace kestrel_test;
using namespace kestrel;

namespace
{
const std::string uuid = "11111111-2222-4333-8444-555555555555";
const std::string secret(64, 'a');
const std::string certificate = "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n";

json_spirit::Object enrollment()
{
  json_spirit::Object object;
  set_value(object, "format", 1);
  set_value(object, "server", "https://backup.example:7480");
  set_value(object, "host_uuid", uuid);
  set_value(object, "name", "db1");
  set_value(object, "access_key", secret);
  set_value(object, "ca_pem", certificate);
  return object;
}

std::string changed(const char* key, const json_spirit::Value& value)
{
  json_spirit::Object object = enrollment();
  set_value(object, key, value);
  return write_json(object);
}

class Server_Key_Test : public ::testing::Test
{
protected:
  Temp_Dir root_;
  Scoped_Env environment_{"KESTREL_ROOT", root_.path()};
  Server_Key key_;
  std::string error_;

  std::string file(const std::string& text, const std::string& name = "enroll.json")
  {
    return root_.write(name, text, 0600);
  }
};

TEST_F(Server_Key_Test, a_host_without_one_is_not_enrolled)
{
  EXPECT_TRUE(load_server_key(key_, error_)) << error_;
  EXPECT_FALSE(key_.enrolled());
}

TEST_F(Server_Key_Test, is_taken_over_from_the_file_which_is_not_needed_any_more)
{
  const std::string path = file(write_json(enrollment()));
  ASSERT_TRUE(import_enrollment(path, key_, error_)) << error_;
  ASSERT_EQ(0, ::unlink(path.c_str()));
  struct stat status;
  ASSERT_EQ(0, ::stat(server_key_path().c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 0777);

  Server_Key again;
  ASSERT_TRUE(import_enrollment(path, again, error_)) << error_;
  EXPECT_EQ("https://backup.example:7480", again.url);
  EXPECT_EQ("db1", again.name);
  EXPECT_EQ(uuid + "." + secret, again.header());
  EXPECT_EQ(certificate, again.ca_pem);
}

TEST_F(Server_Key_Test, gives_the_host_its_identity)
{
  Host_Identity before, after;
  ASSERT_TRUE(load_host_identity(before, error_)) << error_;
  ASSERT_TRUE(import_enrollment(file(write_json(enrollment())), key_, error_)) << error_;
  ASSERT_TRUE(load_host_identity(after, error_)) << error_;
  EXPECT_NE(uuid, before.host_id);
  EXPECT_EQ(uuid, after.host_id);
  EXPECT_EQ(before.user_id, after.user_id);
}

TEST_F(Server_Key_Test, an_enrollment_can_be_read_without_being_taken_over)
{
  bool fresh = false;
  ASSERT_TRUE(read_enrollment(file(write_json(enrollment())), key_, fresh, error_)) << error_;
  EXPECT_TRUE(fresh);
  EXPECT_EQ("db1", key_.name);
  EXPECT_NE(0, ::access(server_key_path().c_str(), F_OK));
  ASSERT_TRUE(keep_server_key(key_, error_)) << error_;
  ASSERT_TRUE(read_enrollment(root_ / "enroll.json", key_, fresh, error_)) << error_;
  EXPECT_FALSE(fresh);
}

TEST_F(Server_Key_Test, a_missing_file_says_where_to_get_one)
{
  EXPECT_FALSE(import_enrollment(root_ / "nothing.json", key_, error_));
  EXPECT_NE(std::string::npos, error_.find("nothing.json")) << error_;
  EXPECT_NE(std::string::npos, error_.find("kestrel server enroll")) << error_;
}

TEST_F(Server_Key_Test, a_new_key_of_the_same_host_replaces_the_old_one)
{
  ASSERT_TRUE(import_enrollment(file(write_json(enrollment())), key_, error_)) << error_;
  ASSERT_TRUE(import_enrollment(file(changed("access_key", std::string(64, 'b'))), key_, error_)) << error_;
  Server_Key kept;
  ASSERT_TRUE(load_server_key(kept, error_)) << error_;
  EXPECT_EQ(std::string(64, 'b'), kept.access_key);
}

TEST_F(Server_Key_Test, another_host_is_refused_until_the_old_key_is_removed)
{
  ASSERT_TRUE(import_enrollment(file(write_json(enrollment())), key_, error_)) << error_;
  const std::string other = file(changed("host_uuid", "99999999-2222-4333-8444-555555555555"));
  EXPECT_FALSE(import_enrollment(other, key_, error_));
  EXPECT_NE(std::string::npos, error_.find(server_key_path())) << error_;
  ASSERT_EQ(0, ::unlink(server_key_path().c_str()));
  EXPECT_TRUE(import_enrollment(other, key_, error_)) << error_;
}

TEST_F(Server_Key_Test, a_key_that_others_may_read_is_refused_until_the_host_is_enrolled_again)
{
  const std::string path = file(write_json(enrollment()));
  ASSERT_TRUE(import_enrollment(path, key_, error_)) << error_;
  ASSERT_EQ(0, ::chmod(server_key_path().c_str(), 0640));
  EXPECT_FALSE(load_server_key(key_, error_));
  EXPECT_NE(std::string::npos, error_.find("enroll this host again")) << error_;
  ASSERT_TRUE(import_enrollment(path, key_, error_)) << error_;
  EXPECT_TRUE(load_server_key(key_, error_)) << error_;
}

TEST_F(Server_Key_Test, a_damaged_key_names_the_file_and_is_replaced_by_a_new_enrollment)
{
  const std::string path = file(write_json(enrollment()));
  ASSERT_TRUE(import_enrollment(path, key_, error_)) << error_;
  root_.write("var/opt/tarnvik/kestrel3/agent/server_key.json", "{", 0600);
  EXPECT_FALSE(load_server_key(key_, error_));
  EXPECT_NE(std::string::npos, error_.find(server_key_path())) << error_;
  EXPECT_TRUE(import_enrollment(path, key_, error_)) << error_;
  EXPECT_TRUE(load_server_key(key_, error_)) << error_;
}

TEST_F(Server_Key_Test, everything_that_is_wrong_with_a_file_is_named_and_the_secret_is_not)
{
  const std::map<std::string, std::string> wrong = {
      {"", "JSON"},
      {"[]", "not a JSON object"},
      {"{}", "format"},
      {changed("format", 2), "format is 2"},
      {changed("server", "http://backup.example:7480"), "https://HOST:PORT"},
      {changed("server", "https://user:pw@backup.example:7480"), "https://HOST:PORT"},
      {changed("server", "https://backup.example:7480/path"), "https://HOST:PORT"},
      {changed("server", "https://backup.example:99999"), "https://HOST:PORT"},
      {changed("server", 7480), "server"},
      {changed("host_uuid", "db1"), "host_uuid"},
      {changed("name", ""), "name"},
      {changed("access_key", "abc"), "access_key"},
      {changed("access_key", std::string(64, 'g')), "access_key"},
      {changed("ca_pem", "trust me"), "ca_pem"},
      {changed("ca_pem", json_spirit::Value()), "ca_pem"},
  };
  const Server_Key untouched;
  for (const auto& [text, named] : wrong) {
    EXPECT_FALSE(import_enrollment(file(text), key_, error_)) << text;
    EXPECT_NE(std::string::npos, error_.find(named)) << text << "\n" << error_;
    EXPECT_NE(std::string::npos, error_.find("enroll.json")) << error_;
    EXPECT_EQ(std::string::npos, error_.find(secret)) << error_;
    EXPECT_FALSE(key_.enrolled());
  }
  EXPECT_FALSE(exists(server_key_path()));
}
} // namespace
