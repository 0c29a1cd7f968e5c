#include "cli/console_credentials.h"

#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

using namespace kestrel;
using namespace kestrel_test;

TEST(Console_Credentials, bring_urls_into_one_form)
{
  std::string error;
  for (const char* text : {"backup", "backup:7480", "https://backup", "https://backup:7480/"}) {
    std::string url;
    EXPECT_TRUE(normal_server_url(text, url, error)) << text << ": " << error;
    EXPECT_EQ("https://backup:7480", url) << text;
  }
  std::string url;
  EXPECT_TRUE(normal_server_url("https://[::1]:99", url, error)) << error;
  EXPECT_EQ("https://[::1]:99", url);
}

TEST(Console_Credentials, refuse_urls_that_are_none)
{
  for (const char* text :
       {"", "http://backup", "https://backup/path", "https://user@backup", "backup:0", "backup:x"}) {
    std::string url = "untouched";
    std::string error;
    EXPECT_FALSE(normal_server_url(text, url, error)) << text;
    EXPECT_EQ("untouched", url) << text;
    EXPECT_NE("", error) << text;
  }
}

TEST(Console_Credentials, come_back_from_a_file_that_only_the_user_reads)
{
  const Temp_Dir directory;
  const Scoped_Env place("KESTREL_CONSOLE_DIR", directory / "new/one");
  Console_Credentials stored;
  stored.url = "https://backup:7480";
  stored.user = "olga";
  stored.role = "admin";
  stored.token = "secret";
  stored.ca_pem = "-----BEGIN";
  std::string path;
  std::string error;
  ASSERT_TRUE(save_credentials(stored, path, error)) << error;
  struct stat status = {};
  ASSERT_EQ(0, ::stat(path.c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 07777);
  Console_Credentials read;
  bool found = false;
  ASSERT_TRUE(load_credentials("https://backup:7480", read, found, error)) << error;
  EXPECT_TRUE(found);
  EXPECT_EQ("olga", read.user);
  EXPECT_EQ("admin", read.role);
  EXPECT_EQ("secret", read.token);
  EXPECT_EQ("-----BEGIN", read.ca_pem);
  ASSERT_TRUE(load_credentials("https://backup:7481", read, found, error)) << error;
  EXPECT_FALSE(found);
}

TEST(Console_Credentials, name_the_file_that_is_damaged_but_not_what_is_in_it)
{
  const Temp_Dir directory;
  const Scoped_Env place("KESTREL_CONSOLE_DIR", directory.path());
  for (const char* content :
       {"", "{\"token\":\"hidden\"", "{\"format\":9,\"server\":\"s\",\"token\":\"hidden\"}", "[]",
        "{\"format\":1,\"server\":\"s\",\"token\":7}"}) {
    const std::string path = directory.write("backup_7480.json", content, 0600);
    Console_Credentials read;
    bool found = false;
    std::string error;
    EXPECT_FALSE(load_credentials("https://backup:7480", read, found, error)) << content;
    EXPECT_NE(std::string::npos, error.find(path)) << error;
    EXPECT_EQ(std::string::npos, error.find("hidden")) << error;
  }
}

TEST(Console_Credentials, can_be_removed_twice)
{
  const Temp_Dir directory;
  const Scoped_Env place("KESTREL_CONSOLE_DIR", directory.path());
  const std::string path = directory.write("backup_7480.json", "{}", 0600);
  std::string error;
  EXPECT_TRUE(remove_credentials("https://backup:7480", error)) << error;
  EXPECT_FALSE(exists(path));
  EXPECT_TRUE(remove_credentials("https://backup:7480", error)) << error;
}
