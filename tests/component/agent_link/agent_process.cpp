#include "agent_process.h"

#include "support/paths.h"
#include "support/waiting.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kestrel_test
{
namespace
{
/// This process's environment with changes.
std::vector<std::string> with(const Agent_Process::Environment& changes)
{
  std::vector<std::string> entries;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (changes.count(text.substr(0, text.find('='))) == 0)
      entries.push_back(text);
  }
  for (const auto& [name, value] : changes)
    entries.push_back(name + "=" + value);
  return entries;
}

std::vector<char*> to_pointers(std::vector<std::string>& texts)
{
  std::vector<char*> pointers;
  for (std::string& text : texts)
    pointers.push_back(&text[0]);
  pointers.push_back(nullptr);
  return pointers;
}
} // namespace

Agent_Process::~Agent_Process()
{
  if (pid_ > 0)
    kill_and_wait();
}

void Agent_Process::start(const std::vector<std::string>& arguments, const Environment& environment)
{
  ASSERT_EQ(-1, pid_);
  const std::string program = bin_dir() + "/kestrel";
  std::vector<std::string> words = {program, "--root", root_.path(), "agent"};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<std::string> variables = with(environment);
  // Before the fork: other threads of this process may hold the lock of its memory, and then the child, where
  // they do not exist, could allocate nothing.
  const std::vector<char*> argv = to_pointers(words);
  const std::vector<char*> envp = to_pointers(variables);
  const std::string output = root_ / "agent.stderr";
  pid_ = ::fork();
  ASSERT_GE(pid_, 0);
  if (pid_ == 0) {
    const int fd = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::dup2(fd, STDERR_FILENO);
    ::dup2(fd, STDOUT_FILENO);
    ::execve(program.c_str(), argv.data(), envp.data());
    ::_exit(127);
  }
}

void Agent_Process::signal(int number) const
{
  ASSERT_GT(pid_, 0);
  ASSERT_EQ(0, ::kill(pid_, number));
}

bool Agent_Process::runs() const
{
  return pid_ > 0 && !has_ended(pid_);
}

int Agent_Process::wait()
{
  const pid_t pid = pid_;
  if (!eventually([&] { return has_ended(pid); })) {
    ADD_FAILURE() << "the agent does not end\n" << log();
    return -1;
  }
  int status = 0;
  EXPECT_EQ(pid, ::waitpid(pid, &status, 0));
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int Agent_Process::kill_and_wait()
{
  signal(SIGKILL);
  return wait();
}

std::string Agent_Process::errors() const
{
  return read_file(root_ / "agent.stderr");
}

std::string Agent_Process::log() const
{
  return read_file(root_ / "var/log/kestrel3/agent.log");
}
} // namespace kestrel_test
