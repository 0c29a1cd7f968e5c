#pragma once

#include "support/temp_dir.h"

#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kestrel_test
{
/// `kestrel agent` as a process of its own, below a directory of the test. Killed at the end of the scope when it still
/// runs.
class Agent_Process
{
public:
  typedef std::map<std::string, std::string> Environment;

  explicit Agent_Process(const Temp_Dir& root) : root_(root) {}
  ~Agent_Process();
  Agent_Process(const Agent_Process&) = delete;
  Agent_Process& operator=(const Agent_Process&) = delete;

  void start(const std::vector<std::string>& arguments = {}, const Environment& environment = {});
  void signal(int number) const;
  bool runs() const;
  /// The exit code, 128 + the signal when one killed it; a test failure and -1 when it does not end.
  int wait();
  int kill_and_wait();
  /// What it wrote to its standard error output since the last start.
  std::string errors() const;
  std::string log() const;

private:
  const Temp_Dir& root_;
  pid_t pid_ = -1;
};
} // namespace kestrel_test
