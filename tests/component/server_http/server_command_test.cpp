#include "raw_client.h"
#include "support/paths.h"
#include "support/temp_dir.h"
#include "support/waiting.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace kestrel_test;

namespace
{
const char* const state = "/var/opt/tarnvik/kestrel3/server/";

/// `kestrel server ...` as its own process below a root of its own.
class Server_Command : public testing::Test
{
protected:
  ~Server_Command() override
  {
    if (server_ > 0) {
      ::kill(server_, SIGKILL);
      ::waitpid(server_, nullptr, 0);
    }
  }

  pid_t start(const std::vector<std::string>& words, const std::string& output)
  {
    std::vector<std::string> all = {bin_dir() + "/kestrel", "--root", dir_.path(), "server"};
    all.insert(all.end(), words.begin(), words.end());
    std::vector<char*> argv;
    for (std::string& word : all)
      argv.push_back(&word[0]);
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
      const int file = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      ::dup2(file, 1);
      ::dup2(file, 2);
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
    return pid;
  }
  static int end_of(pid_t pid)
  {
    int status = 0;
    EXPECT_EQ(pid, ::waitpid(pid, &status, 0));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  int run(const std::vector<std::string>& words)
  {
    const int code = end_of(start(words, dir_ / "output"));
    output_ = read_file(dir_ / "output");
    return code;
  }
  void init()
  {
    const std::string password = dir_.write("password", "password-1\n", 0600);
    ASSERT_EQ(0, run({"init", "--admin", "root", "--password-file", password})) << output_;
    // A port that the kernel chooses.
    dir_.write(std::string(state) + "server.toml", "[server]\naddress = \"127.0.0.1\"\nport = 0\n", 0600);
  }
  void serve()
  {
    std::filesystem::remove(dir_ / "server_output"); // what an earlier one said
    server_ = start({}, dir_ / "server_output");
    std::string text;
    ASSERT_TRUE(eventually([&] {
      if (exists(dir_ / "server_output"))
        text = read_file(dir_ / "server_output");
      return text.find(" port ") != std::string::npos && text.back() == '\n';
    })) << text;
    port_ = static_cast<unsigned short>(std::atoi(text.c_str() + text.find(" port ") + 6));
  }
  int stop(int signal)
  {
    ::kill(server_, signal);
    const int code = end_of(server_);
    server_ = -1;
    return code;
  }
  bool serves() const
  {
    Raw_Client::TLS tls;
    tls.ca_pem = read_file(dir_ / (std::string(state) + "tls/ca.crt"));
    return Raw_Client(port_, tls).ask(http_request("GET", "/k2/r/status")).status == 401;
  }
  std::string log() const { return read_file(dir_ / "/var/log/kestrel3/server.log"); }

  Temp_Dir dir_;
  std::string output_;
  pid_t server_ = -1;
  unsigned short port_ = 0;
};
} // namespace

TEST_F(Server_Command, serves_until_it_is_told_to_end)
{
  init();
  serve();
  EXPECT_TRUE(serves());
  EXPECT_EQ(0, stop(SIGTERM));
  serve();
  EXPECT_TRUE(serves());
  EXPECT_EQ(0, stop(SIGINT));
  EXPECT_EQ(std::string::npos, log().find("ERROR"));
  EXPECT_EQ(std::string::npos, log().find("WARNING"));
}

TEST_F(Server_Command, reads_its_certificate_again_at_sighup)
{
  init();
  serve();
  EXPECT_EQ(0, run({"renew"})) << output_;
  ::kill(server_, SIGHUP);
  EXPECT_TRUE(eventually([&] { return log().find("the certificate was read again") != std::string::npos; }));
  EXPECT_TRUE(serves());
}

TEST_F(Server_Command, starts_again_after_a_kill_and_never_twice)
{
  init();
  serve();
  EXPECT_EQ(1, end_of(start({}, dir_ / "second")));
  EXPECT_NE(std::string::npos, read_file(dir_ / "second").find("Another backup server is running"));
  EXPECT_TRUE(serves());
  stop(SIGKILL);
  serve();
  EXPECT_TRUE(serves());
}

TEST_F(Server_Command, administers_a_server_that_runs)
{
  EXPECT_EQ(1, run({}));
  EXPECT_NE(std::string::npos, output_.find("'kestrel server init' makes one")) << output_;
  EXPECT_EQ(1, run({"user", "list"}));
  init();
  EXPECT_EQ(1, run({"init", "--admin", "root", "--password-file", dir_ / "password"}));
  serve();
  EXPECT_EQ(0, run({"user", "add", "vic", "--role", "viewer", "--password-file", dir_ / "password"}))
      << output_;
  EXPECT_EQ(2, run({"user", "add", "vic", "--role", "king", "--password-file", dir_ / "password"}));
  EXPECT_EQ(1, run({"user", "add", "vic", "--role", "admin", "--password-file", dir_ / "password"}));
  EXPECT_EQ(0, run({"user", "password", "vic", "--password-file", dir_ / "password"})) << output_;
  EXPECT_EQ(0, run({"user", "list"}));
  EXPECT_NE(std::string::npos, output_.find("viewer"));
  EXPECT_EQ(0, run({"user", "remove", "vic"})) << output_;
  EXPECT_EQ(1, run({"user", "remove", "root"}));
  EXPECT_EQ(2, run({"user"}));
  const std::string file = dir_ / "db1.json";
  EXPECT_EQ(0, run({"enroll", "db1", "--out", file})) << output_;
  const std::string enrollment = read_file(file);
  const std::string key = enrollment.substr(enrollment.find("access_key") + 14, 64);
  EXPECT_EQ(std::string::npos, output_.find(key));
  struct stat status;
  ASSERT_EQ(0, ::stat(file.c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 0777);
  EXPECT_EQ(0, run({"revoke", "db1"})) << output_;
  EXPECT_EQ(1, run({"revoke", "db2"}));
  EXPECT_EQ(0, run({"hosts"}));
  EXPECT_NE(std::string::npos, output_.find("db1"));
  EXPECT_EQ(0, run({"save", dir_ / "copy"})) << output_;
  EXPECT_EQ(1, run({"save", dir_ / "copy"}));
  EXPECT_EQ(0, run({"audit"}));
  for (const char* command : {"server user add", "server enroll", "server revoke", "server save", "local:"})
    EXPECT_NE(std::string::npos, output_.find(command)) << output_;
  for (const std::string& text : {output_, log()}) {
    EXPECT_EQ(std::string::npos, text.find("password-1"));
    EXPECT_EQ(std::string::npos, text.find(key));
  }
}

TEST_F(Server_Command, enrolls_no_host_whose_file_cannot_be_written)
{
  init();
  EXPECT_EQ(0, run({"enroll", "db1", "--out", dir_ / "db1.json"})) << output_;
  const std::string enrollment = read_file(dir_ / "db1.json");
  std::filesystem::create_directory(dir_ / "taken");
  for (const char* host : {"db1", "db2"})
    for (const std::string& file : {dir_ / "missing/db.json", dir_ / "taken", dir_ / "db1.json/db.json"}) {
      EXPECT_EQ(1, run({"enroll", host, "--out", file}));
      EXPECT_EQ(0u, output_.find("kestrel: the host was not enrolled: cannot write " + file + ": "))
          << output_;
    }
  EXPECT_EQ(0, run({"hosts"}));
  EXPECT_EQ(std::string::npos, output_.find("db2")) << output_;
  EXPECT_EQ(0, run({"audit"}));
  EXPECT_EQ(output_.find("server enroll"), output_.rfind("server enroll")) << output_;
  EXPECT_NE(std::string::npos, output_.find("server enroll")) << output_;

  EXPECT_EQ(0, run({"enroll", "db1", "--out", dir_ / "db1.json"})) << output_;
  EXPECT_NE(enrollment, read_file(dir_ / "db1.json"));
  for (const auto& entry : std::filesystem::directory_iterator(dir_.path()))
    EXPECT_EQ(std::string::npos, entry.path().filename().string().find("trial"));
}

TEST_F(Server_Command, says_which_line_of_the_settings_is_wrong)
{
  init();
  dir_.write(std::string(state) + "server.toml", "[server]\nprot = 1\n", 0600);
  EXPECT_EQ(1, run({}));
  EXPECT_NE(std::string::npos, output_.find("server.toml, line 2: 'prot' is no key of [server]")) << output_;
  const std::string other = dir_.write("other.toml", "[server]\naddress = \"192.0.2.1\"\nport = 0\n");
  EXPECT_EQ(1, run({"--config", other}));
  EXPECT_NE(std::string::npos, output_.find("Cannot listen on 192.0.2.1")) << output_;
}
