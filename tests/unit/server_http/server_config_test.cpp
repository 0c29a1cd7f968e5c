#include "server/server_config.h"

#include "support/temp_dir.h"

#include <gtest/gtest.h>

using namespace kestrel;

namespace
{
std::string error_of(const std::string& text)
{
  Server_Config config;
  config.port = 1;
  std::string error;
  if (config.parse(text, "server.toml", error))
    return "";
  EXPECT_EQ(1, config.port) << "unchanged by a file that is refused";
  return error;
}
} // namespace

TEST(Server_Config, an_empty_file_gives_the_defaults)
{
  Server_Config config;
  std::string error;
  ASSERT_TRUE(config.parse("", "server.toml", error)) << error;
  EXPECT_EQ(7480, config.port);
  EXPECT_EQ("0.0.0.0", config.address);
  EXPECT_FALSE(config.plain);
  EXPECT_EQ(12, config.session_hours);
}

TEST(Server_Config, reads_every_key)
{
  Server_Config config;
  std::string error;
  ASSERT_TRUE(config.parse(
      "[server]\naddress = \"::1\"\nport = 1234\nurl = \"https://a:1\"\nplain = true\nworkers = 4\n"
      "[tls]\ncertificate = \"/c\"\nkey = \"/k\"\n"
      "[limits]\nconnections = 10\nconnections_per_address = 5\n"
      "[sessions]\nhours = 2\n[cluster]\nwindow_seconds = 4\n"
      "[keep]\naudit_days = 30\nrun_days = 31\n",
      "server.toml", error))
      << error;
  EXPECT_EQ("::1", config.address);
  EXPECT_EQ(1234, config.port);
  EXPECT_EQ("https://a:1", config.url);
  EXPECT_TRUE(config.plain);
  EXPECT_EQ(4u, config.workers);
  EXPECT_EQ("/c", config.certificate_file);
  EXPECT_EQ("/k", config.key_file);
  EXPECT_EQ(10u, config.limits.connections);
  EXPECT_EQ(5u, config.limits.connections_per_address);
  EXPECT_EQ(2, config.session_hours);
  EXPECT_EQ(4, config.cluster_window_seconds);
  EXPECT_EQ(30, config.keep_audit_days);
  EXPECT_EQ(31, config.keep_run_days);
}

TEST(Server_Config, names_key_and_line_of_an_error)
{
  EXPECT_EQ("server.toml, line 3: 'prot' is no key of [server]", error_of("[server]\nport = 5\nprot = 6\n"));
  EXPECT_EQ("server.toml, line 2: 'serve' is no section of this file", error_of("\n[serve]\nport = 5\n"));
  EXPECT_EQ("server.toml, line 1: 'port' is no section of this file", error_of("port = 5\n"));
  EXPECT_EQ("server.toml, line 2: 'port' of [server] must be a whole number from 0 to 65535",
            error_of("[server]\nport = 65536\n"));
  EXPECT_EQ("server.toml, line 2: 'port' of [server] must be a whole number from 0 to 65535",
            error_of("[server]\nport = \"5\"\n"));
  EXPECT_EQ("server.toml, line 2: 'plain' of [server] must be true or false",
            error_of("[server]\nplain = 1\n"));
  EXPECT_EQ("server.toml, line 2: 'url' of [server] must be a text in quotation marks",
            error_of("[server]\nurl = 1\n"));
  EXPECT_EQ(0u, error_of("[server]\nport = \n").find("server.toml, line 2: "));
  EXPECT_EQ(0u, error_of("[server\n").find("server.toml, line 1: "));
}

TEST(Server_Config, refuses_what_cannot_work)
{
  EXPECT_NE(std::string::npos, error_of("[server]\naddress = \"localhost\"\n").find("numeric address"));
  EXPECT_NE(std::string::npos, error_of("[tls]\nkey = \"/k\"\n").find("[tls] needs both"));
  Server_Config config;
  std::string error;
  EXPECT_FALSE(config.read("/nonexistent/server.toml", error));
  EXPECT_NE(std::string::npos, error.find("/nonexistent/server.toml"));
}
