#include "oscar/storage_options.h"

#include "jobs/job_definition.h"
#include "storage/host_manager.h"

#include <gtest/gtest.h>

namespace
{
/// Sets what the host knows about itself, and nothing afterwards.
struct Host {
  Host(bool on_backupd, const char* access_key, const char* node_access_key)
  {
    Host_Manager::instance()->configure(on_backupd, access_key, node_access_key);
  }
  ~Host() { Host_Manager::instance()->configure(false, nullptr, nullptr); }
};

std::string access_key_of(const Client_IO_Base::Options& options)
{
  const std::string* const value = options.extra_option("X-Access-Key");
  return value ? *value : "(none)";
}
} // namespace

TEST(Storage_Options, carry_the_host_key_on_an_ordinary_host)
{
  const Host host(false, "host-key", "node-key");
  Client_IO_Base::Options options;
  set_options_by_host(options);
  EXPECT_EQ("host-key", access_key_of(options));
}

TEST(Storage_Options, carry_the_node_key_on_the_backup_server)
{
  const Host host(true, "host-key", "node-key");
  Client_IO_Base::Options options;
  set_options_by_host(options);
  EXPECT_EQ("node-key", access_key_of(options));
}

TEST(Storage_Options, carry_an_empty_key_when_the_host_has_none)
{
  for (const bool on_backupd : {false, true}) {
    const Host host(on_backupd, nullptr, nullptr);
    Client_IO_Base::Options options;
    set_options_by_host(options);
    EXPECT_EQ("", access_key_of(options));
  }
}

TEST(Storage_Options, do_without_an_unknown_head)
{
  Client_IO_Base::Options options;
  for (const int head : {-1, 0, 48, 50, 1000000}) {
    EXPECT_FALSE(set_http_head_to_options(options, head, "value"));
    EXPECT_EQ("(none)", access_key_of(options));
  }
  EXPECT_TRUE(set_http_head_to_options(options, 49, "value"));
  EXPECT_EQ("value", access_key_of(options));
}

TEST(Storage_Options, take_the_values_of_the_definition)
{
  kestrel::Job_Definition_Fields fields;
  fields.max_seconds_retry = 77;
  fields.resumption_buffer_size = 88;
  fields.server_side_dedup = true;
  fields.rate_limits = Rate_Limits(1000, 2001);
  const Job_Definition definition(fields);

  Client_IO_Base::Options options;
  set_options_by_job_def(options, definition, 1);
  EXPECT_EQ(77u, options.max_seconds_retry);
  EXPECT_EQ(88u, options.resumption_buffer_size);
  EXPECT_TRUE(options.server_side_dedup);
  EXPECT_EQ(1000u, options.rate_limits.write_limit());
  EXPECT_EQ(2001u, options.rate_limits.read_limit());

  set_options_by_job_def(options, definition, 4);
  EXPECT_EQ(250u, options.rate_limits.write_limit());
  EXPECT_EQ(500u, options.rate_limits.read_limit());
  EXPECT_EQ(1000u, definition.rate_limits().write_limit()) << "the definition's own limits were changed";
}
