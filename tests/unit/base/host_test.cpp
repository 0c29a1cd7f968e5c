#include "base/network_interface.h"
#include "base/service_lister.h"

#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <unistd.h>

using kestrel_test::Temp_Dir;

TEST(Service_Lister, finds_services_by_their_command_line)
{
  Temp_Dir proc;
  proc.write("20/cmdline", std::string("/opt/db/bin/oscar\0-d\0DB2\0", 25));
  proc.write("3/cmdline", std::string("/opt/db/bin/oscar\0-d\0DB1\0", 25));
  proc.write("1/cmdline", std::string("/sbin/init\0", 11));
  proc.write("2/cmdline", "");
  proc.make_dir("4");
  proc.write("self/cmdline", std::string("/opt/db/bin/oscar\0-d\0DB9\0", 25));
  std::vector<Service_Info> services(5);
  ASSERT_EQ(0,
            Service_Lister(proc.path()).list_service("oscar.*-d\\s+(\\S+)", services, false, "en_US.UTF8"));
  ASSERT_EQ(2u, services.size());
  EXPECT_EQ(3, services[0].pid);
  EXPECT_EQ("/opt/db/bin/oscar -d DB1", services[0].cmd);
  EXPECT_EQ(20, services[1].pid);
  EXPECT_EQ("/opt/db/bin/oscar -d DB2", services[1].cmd);
  EXPECT_NE("", services[0].user);
}

TEST(Service_Lister, keeps_blanks_inside_arguments_and_drops_only_the_last_one)
{
  Temp_Dir proc;
  proc.write("7/cmdline", std::string("a b\0\0c\0", 7));
  std::vector<Service_Info> services;
  ASSERT_EQ(0, Service_Lister(proc.path()).list_service("", services, false, nullptr));
  ASSERT_EQ(1u, services.size());
  EXPECT_EQ("a b  c", services[0].cmd);
}

TEST(Service_Lister, survives_a_command_line_that_the_matcher_gives_up_on)
{
  Temp_Dir proc;
  proc.write("5/cmdline", "x" + std::string(100000, ' ') + "y");
  proc.write("6/cmdline", "x z");
  std::vector<Service_Info> services;
  ASSERT_EQ(0, Service_Lister(proc.path()).list_service("(x\\s*)*z", services, false, nullptr));
  ASSERT_EQ(1u, services.size());
  EXPECT_EQ(6, services[0].pid);
}

TEST(Service_Lister, refuses_a_bad_pattern_and_a_missing_directory)
{
  std::vector<Service_Info> services(1);
  EXPECT_EQ(-1, Service_Lister().list_service("(", services, false, nullptr));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(-1, Service_Lister("/nonexistent").list_service("x", services, false, nullptr));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(1u, services.size());
}

TEST(Service_Lister, finds_this_program)
{
  std::vector<Service_Info> services;
  ASSERT_EQ(0, Service_Lister().list_service("unit_base", services, false, nullptr));
  EXPECT_TRUE(std::any_of(services.begin(), services.end(),
                          [](const Service_Info& s) { return s.pid == ::getpid(); }));
}

TEST(Network_Interface_Enumerator, lists_the_loopback_address_in_a_stable_order)
{
  const std::unique_ptr<Network_Interface_Enumerator> first(new (std::nothrow) Network_Interface_Enumerator);
  const Network_Interface_Enumerator second;
  std::vector<std::string> texts;
  for (const kestrel::Network_Interface& interface : *first)
    texts.push_back(ACE_Addr_String(interface.address, false).c_str());
  EXPECT_NE(texts.end(), std::find(texts.begin(), texts.end(), "127.0.0.1"));
  std::vector<std::string> again;
  for (const kestrel::Network_Interface& interface : second)
    again.push_back(ACE_Addr_String(interface.address, false).c_str());
  EXPECT_EQ(texts, again);
}

TEST(Ace_Addr_String, is_numeric)
{
  const ACE_INET_Addr address(static_cast<u_short>(2003), "192.168.4.5");
  EXPECT_STREQ("192.168.4.5", ACE_Addr_String(address, false).c_str());
  EXPECT_STREQ("192.168.4.5:2003", ACE_Addr_String(address, true).c_str());
}
