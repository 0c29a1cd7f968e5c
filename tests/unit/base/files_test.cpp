#include "base/files.h"

#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using kestrel_test::exists;
using kestrel_test::Log_Capture;
using kestrel_test::Scoped_Env;
using kestrel_test::Temp_Dir;

TEST(Get_Env_R, gives_an_empty_text_for_what_is_not_set)
{
  Scoped_Env set("KESTREL_TEST_VARIABLE", "value");
  EXPECT_EQ("value", get_env_r("KESTREL_TEST_VARIABLE"));
  Scoped_Env unset("KESTREL_TEST_VARIABLE", nullptr);
  EXPECT_EQ("", get_env_r("KESTREL_TEST_VARIABLE"));
  EXPECT_EQ("", get_env_r(nullptr));
}

TEST(Is_Regular_File, follows_links_and_refuses_the_rest)
{
  Temp_Dir dir;
  const std::string file = dir.write("file", "x");
  ASSERT_EQ(0, ::symlink(file.c_str(), (dir / "link").c_str()));
  ASSERT_EQ(0, ::symlink((dir / "none").c_str(), (dir / "dangling").c_str()));
  ASSERT_EQ(0, ::mkfifo((dir / "fifo").c_str(), 0600));
  EXPECT_TRUE(is_regular_file(file.c_str()));
  EXPECT_TRUE(is_regular_file((dir / "link").c_str()));
  EXPECT_FALSE(is_regular_file((dir / "dangling").c_str()));
  EXPECT_FALSE(is_regular_file((dir / "fifo").c_str()));
  EXPECT_FALSE(is_regular_file(dir.path().c_str()));
  EXPECT_FALSE(is_regular_file(""));
  EXPECT_FALSE(is_regular_file(nullptr));
}

TEST(Read_Line, gives_the_first_line_without_its_end)
{
  Temp_Dir dir;
  std::string line;
  EXPECT_TRUE(read_line(dir.write("a", "123\r\n456\n").c_str(), line, true));
  EXPECT_EQ("123\r", line);
  EXPECT_TRUE(read_line(dir.write("b", "no end").c_str(), line, true));
  EXPECT_EQ("no end", line);
  EXPECT_TRUE(read_line(dir.write("c", "\nsecond\n").c_str(), line, true));
  EXPECT_EQ("", line);
  const std::string longer(20000, 'x');
  EXPECT_TRUE(read_line(dir.write("d", longer + "\n").c_str(), line, true));
  EXPECT_EQ(longer, line);
}

TEST(Read_Line, leaves_the_text_alone_when_there_is_no_line)
{
  Log_Capture log;
  Temp_Dir dir;
  std::string line = "before";
  EXPECT_FALSE(read_line((dir / "none").c_str(), line, false));
  EXPECT_FALSE(read_line(dir.write("empty", "").c_str(), line, false));
  EXPECT_FALSE(read_line(dir.path().c_str(), line, false));
  EXPECT_EQ("before", line);
  EXPECT_TRUE(log.lines().empty());

  EXPECT_FALSE(read_line((dir / "none").c_str(), line, true));
  log.expect(LM_ERROR, "errno=2, No such file or directory\n");
  EXPECT_FALSE(read_line((dir / "empty").c_str(), line, true));
  log.expect(LM_ERROR, "the file is empty\n");
  EXPECT_FALSE(read_line(dir.path().c_str(), line, true));
  log.expect(LM_ERROR, "errno=21, Is a directory\n");
}

TEST(Ace_Ifstream, tells_a_last_line_without_an_end)
{
  Temp_Dir dir;
  ACE_ifstream file(4);
  ASSERT_EQ(0, file.open(dir.write("a", "first line\n\nlast").c_str(), O_RDONLY | O_CLOEXEC));
  std::string line;
  EXPECT_TRUE(file.getline(line));
  EXPECT_EQ("first line", line);
  EXPECT_FALSE(file.eof());
  EXPECT_TRUE(file.getline(line));
  EXPECT_EQ("", line);
  EXPECT_FALSE(file.eof());
  EXPECT_TRUE(file.getline(line));
  EXPECT_EQ("last", line);
  EXPECT_TRUE(file.eof());
  EXPECT_FALSE(file.getline(line));
  EXPECT_EQ(0, file.last_error());
}

TEST(Ace_Ifstream, does_not_meet_the_end_after_a_last_line_with_an_end)
{
  Temp_Dir dir;
  ACE_ifstream file(8192);
  ASSERT_EQ(0, file.open(dir.write("a", "port = 2010\n").c_str(), O_RDONLY));
  std::string line;
  EXPECT_TRUE(file.getline(line));
  EXPECT_FALSE(file.eof());
  EXPECT_FALSE(file.getline(line));
  EXPECT_TRUE(file.eof());
}

TEST(Ace_Ifstream, keeps_the_last_error)
{
  Temp_Dir dir;
  std::string line = "x";
  ACE_ifstream file(8192);
  EXPECT_FALSE(file.getline(line));
  EXPECT_EQ(-1, file.open((dir / "none").c_str(), O_RDONLY));
  EXPECT_EQ(ENOENT, file.last_error());
  ASSERT_EQ(0, file.open(dir.path().c_str(), O_RDONLY));
  EXPECT_EQ(0, file.last_error());
  EXPECT_FALSE(file.getline(line));
  EXPECT_EQ(EISDIR, file.last_error());
  EXPECT_FALSE(file.eof());
  ASSERT_EQ(0, file.open(dir.write("good", "again").c_str(), O_RDONLY));
  EXPECT_TRUE(file.getline(line));
  EXPECT_EQ("again", line);
}

namespace
{
const char tcp_table[] =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n"
    "   0: 0100007F:07D3 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 1 1 0000 100 "
    "0 0 10 0\n"
    "   1: 0100007F:1538 0100007F:07D4 01 00000000:00000000 00:00000000 00000000     0        0 2 1 0000 20 "
    "4 30 10 -1\n"
    "  12: 00000000000000000000000001000000:07D5 00000000000000000000000000000000:0000 0A 00000000:00000000 "
    "00:00000000 0 0 0\n";
} // namespace

TEST(Check_Port_Listening, reads_the_kernels_table)
{
  std::set<unsigned short> ports;
  kestrel::add_listening_ports(tcp_table, ports);
  // Neither the port of a connection nor a remote one.
  EXPECT_EQ((std::set<unsigned short>{2003, 2005}), ports);
  kestrel::add_listening_ports("", ports);
  kestrel::add_listening_ports("garbage\n: : :\n\n1:", ports);
  EXPECT_EQ(2u, ports.size());
}

TEST(Listening_Ports_Scope, answers_from_one_reading_until_the_outermost_ends)
{
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(fd, 0);
  const kestrel::Auto_Fd closer(fd);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ASSERT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr*>(&address), size));
  ASSERT_EQ(0, ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size));
  const unsigned short port = ntohs(address.sin_port);
  {
    const kestrel::Listening_Ports_Scope outer;
    ASSERT_EQ(0, ::listen(fd, 1));
    {
      const kestrel::Listening_Ports_Scope inner;
      EXPECT_FALSE(check_port_listening(port));
    }
    EXPECT_FALSE(check_port_listening(port));
  }
  EXPECT_TRUE(check_port_listening(port));
}

TEST(Check_Port_Listening, sees_a_socket_from_listen_until_close)
{
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(fd, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
  socklen_t length = sizeof address;
  ASSERT_EQ(0, ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length));
  const unsigned short port = ntohs(address.sin_port);
  EXPECT_FALSE(check_port_listening(port));
  ASSERT_EQ(0, ::listen(fd, 1));
  EXPECT_TRUE(check_port_listening(port));
  ::close(fd);
  EXPECT_FALSE(check_port_listening(port));
}

TEST(Rm_Rf, removes_a_tree_but_not_what_its_links_name)
{
  Temp_Dir dir;
  const std::string kept = dir.write("kept/file", "x");
  dir.write("tree/a/b/file", "x");
  dir.write("tree/.hidden", "x");
  dir.make_dir("tree/empty");
  ASSERT_EQ(0, ::symlink((dir / "kept").c_str(), (dir / "tree/link").c_str()));
  EXPECT_EQ(0, rm_rf((dir / "tree").c_str()));
  EXPECT_FALSE(exists(dir / "tree"));
  EXPECT_TRUE(exists(kept));
}

TEST(Rm_Rf, removes_a_link_and_not_its_directory)
{
  Temp_Dir dir;
  const std::string kept = dir.write("kept/file", "x");
  ASSERT_EQ(0, ::symlink((dir / "kept").c_str(), (dir / "link").c_str()));
  EXPECT_EQ(0, rm_rf((dir / "link/").c_str()));
  EXPECT_FALSE(exists(dir / "link"));
  EXPECT_TRUE(exists(kept));
}

TEST(Rm_Rf, counts_a_missing_path_as_removed)
{
  Temp_Dir dir;
  EXPECT_EQ(0, rm_rf((dir / "none").c_str()));
  EXPECT_EQ(0, rm_rf((dir / "none/deeper").c_str()));
}

TEST(Rm_Rf, removes_a_single_file)
{
  Temp_Dir dir;
  EXPECT_EQ(0, rm_rf(dir.write("file", "x").c_str()));
  EXPECT_FALSE(exists(dir / "file"));
}

TEST(Rm_Rf, refuses_paths_that_could_name_too_much)
{
  Temp_Dir dir;
  const std::string kept = dir.write("kept/file", "x");
  for (const std::string& path :
       {std::string(), std::string("/"), std::string("//"), std::string("."), std::string("./"),
        std::string("/."), std::string(".."), std::string("../x"), dir / "kept/..", dir / "kept/../kept"}) {
    errno = 0;
    EXPECT_EQ(-1, rm_rf(path.c_str())) << path;
    EXPECT_EQ(EINVAL, errno) << path;
  }
  EXPECT_EQ(-1, rm_rf(nullptr));
  EXPECT_TRUE(exists(kept));
  // Two dots inside a name are no parent directory.
  EXPECT_EQ(0, rm_rf(dir.write("a..b", "x").c_str()));
}

TEST(Make_Dirs, makes_missing_parents_with_the_mode)
{
  Temp_Dir dir;
  const mode_t previous = ::umask(022);
  EXPECT_EQ(0, make_dirs((dir / "a/b//c/").c_str(), 0750));
  ::umask(previous);
  struct stat status;
  ASSERT_EQ(0, ::stat((dir / "a/b/c").c_str(), &status));
  EXPECT_EQ(0750u, status.st_mode & 07777);
  EXPECT_EQ(0, make_dirs((dir / "a/b/c").c_str(), 0750));
}

TEST(Make_Dirs, says_what_is_in_the_way)
{
  Temp_Dir dir;
  dir.write("file", "x");
  EXPECT_EQ(-1, make_dirs((dir / "file").c_str(), 0750));
  EXPECT_EQ(ENOTDIR, errno);
  EXPECT_EQ(-1, make_dirs((dir / "file/below").c_str(), 0750));
  EXPECT_EQ(ENOTDIR, errno);
  EXPECT_EQ(-1, make_dirs("", 0750));
  EXPECT_EQ(ENOENT, errno);
}
