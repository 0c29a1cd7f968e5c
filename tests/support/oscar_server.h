#pragma once

#include "support/temp_dir.h"

#include <string>
#include <sys/types.h>

namespace kestrel_test
{
/// A process that looks like the server of an instance, HOME/bin/oscar -d NAME. It is seen in the list of
/// services once the constructor has returned, and ended with its object at the latest.
class Oscar_Server
{
public:
  Oscar_Server(const Temp_Dir& home, const std::string& name);
  ~Oscar_Server() { stop(); }
  Oscar_Server(const Oscar_Server&) = delete;
  Oscar_Server& operator=(const Oscar_Server&) = delete;

  void stop();

private:
  pid_t pid_ = -1;
};
} // namespace kestrel_test
