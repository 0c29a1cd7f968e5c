#include "oscar/utils.h"
#include "support/fault_file_system.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cerrno>

using kestrel_test::Fault_File_System;
using kestrel_test::Log_Capture;
using kestrel_test::Temp_Dir;

namespace
{
struct Answer {
  bool found;
  unsigned short port;
  bool operator==(const Answer& other) const { return found == other.found && port == other.port; }
};

std::ostream& operator<<(std::ostream& out, const Answer& answer)
{
  return out << (answer.found ? "found " : "not found ") << answer.port;
}

// What the module reads from a configuration file with this content.
Answer port_in(const std::string& content)
{
  Log_Capture log;
  const Temp_Dir home;
  home.write("admin/DB1.conf", content);
  unsigned short port = 4711;
  const bool found = get_instance_port(home.path().c_str(), "DB1", port);
  EXPECT_EQ(log.lines().size(), 0u);
  return Answer{found, port};
}
} // namespace

TEST(Get_Instance_Port, checks_its_arguments)
{
  for (const char* missing : {static_cast<const char*>(nullptr), ""}) {
    Log_Capture log;
    unsigned short port = 1;
    EXPECT_FALSE(get_instance_port(missing, "DB1", port));
    EXPECT_EQ(port, 0);
    log.expect(LM_EMERGENCY, ", oscar_home is NULL or \"\":\n");
    EXPECT_FALSE(get_instance_port("/opt/db", missing, port));
    log.expect(LM_EMERGENCY, ", instance is NULL or \"\":\n");
  }
}

TEST(Get_Instance_Port, is_the_default_without_a_file)
{
  Log_Capture log;
  const Temp_Dir home;
  unsigned short port = 0;
  EXPECT_TRUE(get_instance_port(home.path().c_str(), "DB1", port));
  EXPECT_EQ(port, 2003);
  log.expect_exactly(LM_INFO, "Instance config file " + (home / "admin/DB1.conf") +
                                  " does not exist, use default port 2003\n");
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST(Get_Instance_Port, is_the_default_when_a_directory_has_the_name)
{
  Log_Capture log;
  const Temp_Dir home;
  home.make_dir("admin/DB1.conf");
  unsigned short port = 0;
  EXPECT_TRUE(get_instance_port(home.path().c_str(), "DB1", port));
  EXPECT_EQ(port, 2003);
  log.expect(LM_INFO, "does not exist, use default port 2003\n");
}

TEST(Get_Instance_Port, finds_the_first_matching_line)
{
  EXPECT_EQ(port_in("port = 2010\n"), (Answer{true, 2010}));
  EXPECT_EQ(port_in("PORT = 2010\n"), (Answer{true, 2010}));
  EXPECT_EQ(port_in("\t Port\t=\t2010 # main listener\n"), (Answer{true, 2010}));
  EXPECT_EQ(port_in("port=2010x\n"), (Answer{true, 2010}));
  EXPECT_EQ(port_in("a = b\n\nport=1\nport=2\n"), (Answer{true, 1}));
  EXPECT_EQ(port_in("port=1\r\nport=2\r\n"), (Answer{true, 1}));
  EXPECT_EQ(port_in("port=7\nlast line without an end"), (Answer{true, 7}));
}

TEST(Get_Instance_Port, passes_over_lines_that_do_not_match_from_their_start)
{
  EXPECT_EQ(port_in("# port = 2010\nport = 3\n"), (Answer{true, 3}));
  EXPECT_EQ(port_in("my_port = 2010\nport = 3\n"), (Answer{true, 3}));
  EXPECT_EQ(port_in("port 2010\nport == 5\nport = -6\nport = '7'\nports = 8\nport = 3\n"), (Answer{true, 3}));
  EXPECT_EQ(port_in(std::string("\0port = 1\nport = 3\n", 19)), (Answer{true, 3}));
}

TEST(Get_Instance_Port, is_not_found_without_a_port_line)
{
  EXPECT_EQ(port_in(""), (Answer{false, 0}));
  EXPECT_EQ(port_in("\n\n\n"), (Answer{false, 0}));
  EXPECT_EQ(port_in("host = x\n"), (Answer{false, 0}));
  EXPECT_EQ(port_in("port =\nport = \n= 5\n"), (Answer{false, 0}));
}

TEST(Get_Instance_Port, is_not_found_when_its_line_has_no_end)
{
  EXPECT_EQ(port_in("port = 2010"), (Answer{false, 2010}));
  EXPECT_EQ(port_in("a = b\nport = 2010"), (Answer{false, 2010}));
  EXPECT_EQ(port_in("port = 2010\r"), (Answer{false, 2010}));
}

TEST(Get_Instance_Port, takes_numbers_up_to_the_largest_port)
{
  EXPECT_EQ(port_in("port = 0\n"), (Answer{false, 0}));
  EXPECT_EQ(port_in("port = 0\nport = 5\n"), (Answer{false, 0}));
  EXPECT_EQ(port_in("port = 00080\n"), (Answer{true, 80}));
  EXPECT_EQ(port_in("port = 65535\n"), (Answer{true, 65535}));
  EXPECT_EQ(port_in("port = 65536\n"), (Answer{true, 65535}));
  EXPECT_EQ(port_in("port = " + std::string(5000, '9') + "\n"), (Answer{true, 65535}));
}

TEST(Get_Instance_Port, survives_hostile_text)
{
  EXPECT_EQ(port_in(std::string(200000, ' ') + "\nport = 3\n"), (Answer{true, 3}));
  EXPECT_EQ(port_in("port" + std::string(200000, ' ') + "\nport = 3\n"), (Answer{true, 3}));
  EXPECT_EQ(port_in(std::string(200000, ' ') + "port" + std::string(200000, ' ') + "= 4\n"),
            (Answer{true, 4}));
  EXPECT_EQ(port_in("port = 4" + std::string(1 << 20, 'x') + "\n"), (Answer{true, 4}));
  EXPECT_EQ(port_in(std::string(100000, '\0') + "\nport = 3" + std::string(100000, '\0') + "\n"),
            (Answer{true, 3}));
  EXPECT_EQ(port_in("\xff\xfe\x80\nport = 3\xff\n"), (Answer{true, 3}));
}

TEST(Get_Instance_Port, reads_lines_that_straddle_the_buffer)
{
  for (size_t length = 8180; length <= 8200; ++length)
    EXPECT_EQ(port_in(std::string(length, 'x') + "\nport = 2010\n"), (Answer{true, 2010})) << length;
}

TEST(Get_Instance_Port, says_why_the_file_cannot_be_opened)
{
  Log_Capture log;
  const Temp_Dir home;
  const std::string path = home.write("admin/DB1.conf", "port = 2010\n");
  Fault_File_System files;
  files.fail("open", 1, EACCES);
  unsigned short port = 1;
  EXPECT_FALSE(get_instance_port(home.path().c_str(), "DB1", port));
  EXPECT_EQ(port, 0);
  log.expect_exactly(LM_ERROR, "Failed to open " + path + " for reading, errno=13, Permission denied\n");
}

TEST(Get_Instance_Port, says_why_the_file_cannot_be_read)
{
  Log_Capture log;
  const Temp_Dir home;
  const std::string path = home.write("admin/DB1.conf", "port = 2010\n");
  Fault_File_System files;
  files.fail("read", 1, EIO);
  unsigned short port = 1;
  EXPECT_FALSE(get_instance_port(home.path().c_str(), "DB1", port));
  EXPECT_EQ(port, 0);
  log.expect_exactly(LM_ERROR, "Failed to read " + path + ", errno=5, Input/output error\n");
}

TEST(Get_Instance_Port, reads_on_after_an_interrupted_read)
{
  Log_Capture log;
  const Temp_Dir home;
  home.write("admin/DB1.conf", "port = 2010\n");
  Fault_File_System files;
  files.fail("read", 1, EINTR);
  unsigned short port = 1;
  EXPECT_TRUE(get_instance_port(home.path().c_str(), "DB1", port));
  EXPECT_EQ(port, 2010);
}

TEST(Get_Instance_Port, long_names_lose_the_end_of_the_file_name)
{
  Log_Capture log;
  const Temp_Dir home;
  const std::string name26(26, 'A');
  home.write("admin/" + name26 + ".conf", "port = 26\n");
  home.write("admin/" + name26 + "B.con", "port = 27\n");
  home.write("admin/" + std::string(31, 'C'), "port = 31\n");
  unsigned short port = 0;
  EXPECT_TRUE(get_instance_port(home.path().c_str(), name26.c_str(), port));
  EXPECT_EQ(port, 26);
  EXPECT_TRUE(get_instance_port(home.path().c_str(), (name26 + "B").c_str(), port));
  EXPECT_EQ(port, 27);
  EXPECT_TRUE(get_instance_port(home.path().c_str(), std::string(31, 'C').c_str(), port));
  EXPECT_EQ(port, 31);
  EXPECT_TRUE(get_instance_port(home.path().c_str(), std::string(40, 'C').c_str(), port));
  EXPECT_EQ(port, 31);
  EXPECT_TRUE(get_instance_port(home.path().c_str(), std::string(30, 'C').c_str(), port));
  EXPECT_EQ(port, 2003);
}
