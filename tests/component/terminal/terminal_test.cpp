#include "cli/confirmation.h"
#include "cli/password_input.h"

#include "support/waiting.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
/// Somebody at a terminal, and a process of which it is the controlling one.
class Terminal : public testing::Test
{
protected:
  Terminal() : user_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {}

  void SetUp() override
  {
    if (user_ < 0)
      GTEST_SKIP() << "this system gives no terminals: " << std::strerror(errno);
    ASSERT_EQ(0, ::grantpt(user_));
    ASSERT_EQ(0, ::unlockpt(user_));
    name_ = ::ptsname(user_);
    // Held open, so that what the process wrote can be read after its end.
    held_ = ::open(name_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_LE(0, held_);
  }
  ~Terminal() override
  {
    if (process_ > 0) {
      ::kill(process_, SIGKILL);
      ::waitpid(process_, nullptr, 0);
    }
    ::close(held_);
    ::close(user_);
  }

  void start(const std::function<int()>& program)
  {
    process_ = ::fork();
    ASSERT_LE(0, process_);
    if (process_ != 0)
      return;
    ::setsid();
    const int terminal = ::open(name_.c_str(), O_RDWR | O_CLOEXEC);
    for (int descriptor = 0; descriptor < 3; ++descriptor)
      ::dup2(terminal, descriptor);
    const int code = program();
    std::fflush(nullptr);
    ::_exit(code);
  }

  void type(const std::string& keys)
  {
    ASSERT_EQ(static_cast<ssize_t>(keys.size()), ::write(user_, keys.data(), keys.size()));
  }

  bool shows(const std::string& text)
  {
    return eventually([&] {
      read_screen();
      return screen_.find(text) != std::string::npos;
    });
  }

  /// The exit code; 1000 and the signal for one that ended the process.
  int end()
  {
    EXPECT_TRUE(eventually([&] { return has_ended(process_); }));
    int status = 0;
    ::kill(process_, SIGKILL);
    EXPECT_EQ(process_, ::waitpid(process_, &status, 0));
    process_ = -1;
    read_screen();
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
  }

  bool echoes()
  {
    struct termios mode = {};
    EXPECT_EQ(0, ::tcgetattr(held_, &mode));
    return (mode.c_lflag & ECHO) != 0;
  }

  pid_t process_ = -1;
  std::string screen_;

private:
  void read_screen()
  {
    char piece[4096];
    for (struct pollfd wait = {user_, POLLIN, 0}; ::poll(&wait, 1, 0) == 1;) {
      const ssize_t count = ::read(user_, piece, sizeof piece);
      if (count <= 0)
        return;
      screen_.append(piece, static_cast<size_t>(count));
    }
  }

  const int user_;
  int held_ = -1;
  std::string name_;
};

const char question[] = "Go on? [y/N] ";

int confirm()
{
  Command_Line line;
  Command_Output output(line);
  return ask_to_go_on(output, "restore");
}

/// What read_password() gives; 100 and more when it does not fit the password.
int ask_password()
{
  std::string error;
  secure_string password;
  const Exit_Code code = read_password("", "Password: ", password, error);
  std::fprintf(stderr, "[%s]\n", error.c_str());
  return code + (password == (code == EXIT_CODE_DONE ? "secret" : "") ? 0 : 100);
}
} // namespace

TEST_F(Terminal, an_interrupted_question_is_a_cancel_with_a_line_of_its_own)
{
  start(confirm);
  ASSERT_TRUE(shows(question)) << screen_;
  type("y\x03");
  EXPECT_EQ(EXIT_CODE_CANCELED, end());
  // The terminal shows the key itself at any time, and may drop what it has not shown before.
  EXPECT_NE(std::string::npos, screen_.find("kestrel: nothing was done\r\n")) << screen_;
  EXPECT_EQ(screen_.find("kestrel: "), screen_.rfind("kestrel: ")) << screen_;
  EXPECT_NE(std::string::npos, screen_.substr(0, screen_.find("kestrel: ")).find("\r\n")) << screen_;
}

TEST_F(Terminal, a_question_is_ended_by_a_request_to_terminate)
{
  start(confirm);
  ASSERT_TRUE(shows(question)) << screen_;
  ASSERT_EQ(0, ::kill(process_, SIGTERM));
  EXPECT_EQ(EXIT_CODE_CANCELED, end());
  EXPECT_EQ(std::string(question) + "\r\nkestrel: nothing was done\r\n", screen_);
}

TEST_F(Terminal, only_a_yes_goes_on)
{
  const struct {
    const char* keys;
    int code;
  } answers[] = {{"y\n", EXIT_CODE_DONE},     {"Y\n", EXIT_CODE_DONE},      {"yes\n", EXIT_CODE_DONE},
                 {"n\n", EXIT_CODE_CANCELED}, {"yy\n", EXIT_CODE_CANCELED}, {"\n", EXIT_CODE_CANCELED},
                 {"\x04", EXIT_CODE_CANCELED}};
  for (const auto& answer : answers) {
    screen_.clear();
    start(confirm);
    ASSERT_TRUE(shows(question)) << screen_;
    type(answer.keys);
    EXPECT_EQ(answer.code, end()) << screen_;
    EXPECT_EQ(answer.code == EXIT_CODE_CANCELED, screen_.find("nothing was done") != std::string::npos);
  }
}

TEST_F(Terminal, is_restored_when_the_question_for_a_password_is_interrupted)
{
  for (const int signal : {SIGINT, SIGTERM}) {
    screen_.clear();
    start(ask_password);
    ASSERT_TRUE(shows("Password: ") && eventually([this] { return !echoes(); })) << screen_;
    if (signal == SIGINT)
      type("sec\x03");
    else
      ASSERT_EQ(0, ::kill(process_, signal));
    EXPECT_EQ(EXIT_CODE_CANCELED, end());
    EXPECT_TRUE(echoes());
    EXPECT_NE(std::string::npos, screen_.find("\r\n[interrupted while asking for the password]\r\n"))
        << screen_;
    EXPECT_EQ(std::string::npos, screen_.find("sec")) << screen_;
  }
}

TEST_F(Terminal, does_not_show_the_password)
{
  start(ask_password);
  ASSERT_TRUE(shows("Password: ") && eventually([this] { return !echoes(); })) << screen_;
  type("secret\n");
  EXPECT_EQ(EXIT_CODE_DONE, end());
  EXPECT_TRUE(echoes());
  EXPECT_EQ("Password: \r\n[]\r\n", screen_);
}

TEST_F(Terminal, an_empty_password_is_a_failure)
{
  start(ask_password);
  ASSERT_TRUE(shows("Password: ") && eventually([this] { return !echoes(); })) << screen_;
  type("\n");
  EXPECT_EQ(EXIT_CODE_FAILED, end());
  EXPECT_TRUE(shows("[the password is empty]")) << screen_;
}
