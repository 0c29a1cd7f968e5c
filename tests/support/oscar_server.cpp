#include "support/oscar_server.h"

#include "process/process_api.h"
#include "support/fake_tool.h"
#include "support/waiting.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <sys/wait.h>

namespace kestrel_test
{
Oscar_Server::Oscar_Server(const Temp_Dir& home, const std::string& name)
{
  kestrel::Spawn_Request request;
  request.program = make_fake_tool(home, "bin/oscar", "hang\n");
  request.argv = {request.program, "-d", name};
  pid_ = kestrel::process_api().spawn(request);
  EXPECT_GT(pid_, 0);
  // The list of services shows the command line of the new program only once it was executed.
  EXPECT_TRUE(eventually([&] {
    std::ifstream file("/proc/" + std::to_string(pid_) + "/cmdline", std::ios::binary);
    const std::string line((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    return line.find(name) != std::string::npos;
  })) << "the server did not start";
}

void Oscar_Server::stop()
{
  if (pid_ <= 0)
    return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
  pid_ = -1;
}
} // namespace kestrel_test
