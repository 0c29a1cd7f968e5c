#include "oscar/utils.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

using kestrel_test::Log_Capture;

TEST(Get_From_Instance_Options, copies_a_text)
{
  Log_Capture log;
  auto instance = std::make_shared<Instance>();
  instance->options["oscar_home"] = "/opt/db";
  instance->options["empty"] = "";
  std::string value = "before";
  EXPECT_TRUE(get_from_instance_options(instance, "oscar_home", value));
  EXPECT_EQ(value, "/opt/db");
  EXPECT_TRUE(get_from_instance_options(instance, "empty", value));
  EXPECT_EQ(value, "");
  EXPECT_EQ(log.lines().size(), 0u);
}

TEST(Get_From_Instance_Options, an_absent_option_is_no_message)
{
  Log_Capture log;
  std::string value = "before";
  EXPECT_FALSE(get_from_instance_options(std::make_shared<Instance>(), "oscar_home", value));
  EXPECT_EQ(value, "before");
  EXPECT_EQ(log.lines().size(), 0u);
}

TEST(Get_From_Instance_Options, another_type_is_an_internal_error)
{
  Log_Capture log;
  auto instance = std::make_shared<Instance>();
  instance->options["number"] = 5;
  instance->options["null"] = json_spirit::Value();
  std::string value = "before";
  for (const char* key : {"number", "null"}) {
    EXPECT_FALSE(get_from_instance_options(instance, key, value));
    log.expect(LM_EMERGENCY, "Unexpected error in /builds/7/rpm/src/backup/oscar/utils:");
  }
  EXPECT_EQ(log.count(", it->second is not string!\n"), 2u);
  EXPECT_EQ(value, "before");
}

TEST(Get_From_Instance_Options, checks_the_key_before_the_instance)
{
  Log_Capture log;
  std::string value;
  for (const char* missing : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_FALSE(get_from_instance_options(nullptr, missing, value));
    log.expect(LM_EMERGENCY, ", key is NULL or \"\":\n");
  }
  EXPECT_FALSE(get_from_instance_options(nullptr, "oscar_home", value));
  log.expect_exactly(LM_ERROR, "Failed to invoke get_from_instance_options, can't find instance.\n");
}
