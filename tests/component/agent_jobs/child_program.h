#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace kestrel_test
{
/// Another process that runs one disabled test of this program: an agent that can be killed.
/// Threads:   one. Ownership: the process; the destructor kills it and waits.
/// Errors:    an end other than by SIGKILL or with success fails the test: neither a crash nor a failed
///            expectation of the child is taken for the kill.
class Child_Program
{
public:
  explicit Child_Program(const std::string& test)
  {
    char program[] = "/proc/self/exe";
    std::string filter = "--gtest_filter=" + test;
    char disabled[] = "--gtest_also_run_disabled_tests";
    char* const argv[] = {program, &filter[0], disabled, nullptr};
    EXPECT_EQ(0, ::posix_spawn(&pid_, program, nullptr, nullptr, argv, environ));
  }
  ~Child_Program() { kill(); }
  Child_Program(const Child_Program&) = delete;
  Child_Program& operator=(const Child_Program&) = delete;

  void kill()
  {
    if (pid_ <= 0)
      return;
    EXPECT_EQ(0, ::kill(pid_, SIGKILL));
    killed();
  }
  /// Waits for its end. True when it was killed.
  bool killed()
  {
    int status = 0;
    EXPECT_EQ(pid_, ::waitpid(pid_, &status, 0));
    pid_ = -1;
    const bool by_itself = WIFEXITED(status);
    EXPECT_EQ(0, by_itself ? WEXITSTATUS(status) : 0);
    EXPECT_EQ(SIGKILL, by_itself ? SIGKILL : WTERMSIG(status)) << "it crashed";
    return !by_itself;
  }

private:
  pid_t pid_ = -1;
};
} // namespace kestrel_test
