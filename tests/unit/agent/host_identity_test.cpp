#include "agent/host_identity.h"

#include "base/path_conf.h"
#include "base/uuid.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
class Host_Identity_Test : public testing::Test
{
protected:
  Temp_Dir root_;
  Scoped_Env env_{"KESTREL_ROOT", root_.path()};
  Host_Identity identity_;
  std::string error_;
};
} // namespace

TEST_F(Host_Identity_Test, is_made_once_and_kept)
{
  ASSERT_TRUE(load_host_identity(identity_, error_)) << error_;
  EXPECT_TRUE(is_uuid(identity_.host_id));
  EXPECT_TRUE(is_uuid(identity_.user_id));
  EXPECT_NE(identity_.host_id, identity_.user_id);
  Host_Identity again;
  ASSERT_TRUE(load_host_identity(again, error_)) << error_;
  EXPECT_EQ(identity_.host_id, again.host_id);
  EXPECT_EQ(identity_.user_id, again.user_id);
}

TEST_F(Host_Identity_Test, is_never_replaced_when_its_file_is_damaged)
{
  const std::string path = state_path("host.json");
  for (const char* content : {"", "{", "[]", "{\"host_id\": 1}", "{\"host_id\": \"x\", \"user_id\": \"y\"}"}) {
    root_.write(path.substr(root_.path().size() + 1), content);
    error_.clear();
    EXPECT_FALSE(load_host_identity(identity_, error_)) << content;
    EXPECT_EQ(0u, error_.find(path + " is damaged")) << error_;
    EXPECT_EQ(content, read_file(path));
    EXPECT_EQ("", identity_.host_id);
  }
}
