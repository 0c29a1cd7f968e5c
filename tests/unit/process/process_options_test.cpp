#include "process/process_options.h"

#include "support/scoped_env.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

using kestrel_test::Scoped_Env;

namespace
{
const char name[] = "KESTREL_TEST_PATH_LIST";

/// What a child would get from the options alone; the last entry counts.
std::string value_set(ACE_Process_Options& options)
{
  std::string value = "(none)";
  for (char* const* entry = options.env_argv(); entry && *entry; ++entry)
    if (std::string(*entry).compare(0, sizeof name, std::string(name) + "=") == 0)
      value = *entry + sizeof name;
  return value;
}
} // namespace

TEST(Append_Process_Options_Env, starts_a_list_without_a_leading_colon)
{
  Scoped_Env unset(name, nullptr);
  ACE_Process_Options options;
  EXPECT_EQ(0, append_process_options_env(options, name, "/opt/db/bin"));
  EXPECT_EQ("/opt/db/bin", value_set(options));
  Scoped_Env empty(name, "");
  ACE_Process_Options other;
  EXPECT_EQ(0, append_process_options_env(other, name, "/opt/db/bin"));
  EXPECT_EQ("/opt/db/bin", value_set(other));
}

TEST(Append_Process_Options_Env, goes_on_from_the_own_environment)
{
  Scoped_Env set(name, "/usr/lib:/lib");
  ACE_Process_Options options;
  EXPECT_EQ(0, append_process_options_env(options, name, "/opt/db/bin"));
  EXPECT_EQ("/usr/lib:/lib:/opt/db/bin", value_set(options));
  ACE_Process_Options not_inheriting(false);
  EXPECT_EQ(0, append_process_options_env(not_inheriting, name, "/opt/db/bin"));
  EXPECT_EQ("/opt/db/bin", value_set(not_inheriting));
}

TEST(Append_Process_Options_Env, prefers_what_the_options_already_set)
{
  Scoped_Env set(name, "/usr/lib");
  ACE_Process_Options options;
  options.setenv(name, "%s", "/first");
  options.setenv(name, "%s", "/second");
  EXPECT_EQ(0, append_process_options_env(options, name, "/opt/db/bin"));
  EXPECT_EQ("/second:/opt/db/bin", value_set(options));
}

TEST(Append_Process_Options_Env, adds_a_directory_once)
{
  Scoped_Env set(name, "/a:/opt/db/bin");
  ACE_Process_Options options;
  EXPECT_EQ(0, append_process_options_env(options, name, "/opt/db/bin"));
  EXPECT_EQ("(none)", value_set(options)) << "it is inherited";
  EXPECT_EQ(0, append_process_options_env(options, name, "/opt/db"));
  EXPECT_EQ("/a:/opt/db/bin:/opt/db", value_set(options));
  // Reused options must not fill up their buffer.
  for (int i = 0; i < 10000; ++i)
    ASSERT_EQ(0, append_process_options_env(options, name, "/opt/db"));
  EXPECT_EQ("/a:/opt/db/bin:/opt/db", value_set(options));
}

TEST(Append_Process_Options_Env, takes_percent_signs_as_they_are)
{
  Scoped_Env set(name, "/a%s%n");
  ACE_Process_Options options;
  EXPECT_EQ(0, append_process_options_env(options, name, "/b%d"));
  EXPECT_EQ("/a%s%n:/b%d", value_set(options));
}

TEST(Append_Process_Options_Env, refuses_missing_names_and_a_full_buffer)
{
  Scoped_Env unset(name, nullptr);
  ACE_Process_Options options;
  EXPECT_EQ(-1, append_process_options_env(options, nullptr, "/a"));
  EXPECT_EQ(-1, append_process_options_env(options, "", "/a"));
  EXPECT_EQ(-1, append_process_options_env(options, name, nullptr));
  EXPECT_EQ(-1, append_process_options_env(options, name, ""));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(-1, append_process_options_env(options, name, std::string(20000, 'x').c_str()));
}
