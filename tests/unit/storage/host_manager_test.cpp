#include "storage/host_manager.h"

#include <gtest/gtest.h>

#include <string>

namespace
{
class Host_Manager_Test : public testing::Test
{
protected:
  ~Host_Manager_Test() override { Host_Manager::instance()->configure(false, nullptr, nullptr); }
};

TEST_F(Host_Manager_Test, has_no_keys_and_is_off_the_server_until_configured)
{
  EXPECT_FALSE(Host_Manager::instance()->on_backupd());
  EXPECT_EQ(nullptr, Host_Manager::instance()->access_key());
  EXPECT_EQ(nullptr, Host_Manager::instance()->node_access_key());
}

TEST_F(Host_Manager_Test, gives_what_was_configured)
{
  Host_Manager::instance()->configure(true, "host-key", "node-key");
  EXPECT_TRUE(Host_Manager::instance()->on_backupd());
  EXPECT_STREQ("host-key", Host_Manager::instance()->access_key());
  EXPECT_STREQ("node-key", Host_Manager::instance()->node_access_key());
}

TEST_F(Host_Manager_Test, keeps_a_key_text_valid_after_it_was_replaced)
{
  Host_Manager::instance()->configure(false, std::string("first").c_str(), nullptr);
  const char* held = Host_Manager::instance()->access_key();
  Host_Manager::instance()->configure(false, std::string("second").c_str(), nullptr);
  EXPECT_STREQ("first", held);
  EXPECT_STREQ("second", Host_Manager::instance()->access_key());
}

TEST(Http_Head, knows_the_access_key_only)
{
  EXPECT_STREQ("X-Access-Key", http_head_string(49, 0));
  EXPECT_EQ(nullptr, http_head_string(48, 0));
  EXPECT_EQ(nullptr, http_head_string(-1, 0));
}
} // namespace
