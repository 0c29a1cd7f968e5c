#pragma once

#include "cli/command_line.h"
#include "fake_server.h"

#include "support/clocks.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace kestrel_test
{
/// What a command printed and ended with.
struct Command_Outcome {
  int code = -1;
  std::string out;
  std::string err;
};

/// A console that is signed in at a server that answers as the test says. Two hosts, both with an instance
/// DB1, the first with DB2 too; one pool.
class Console_Test : public testing::Test
{
protected:
  Console_Test();

  /// Runs the command with --server.
  Command_Outcome run(std::vector<std::string> words);

  static const char* const host_1;
  static const char* const host_2;
  static const char* const db1_on_1;
  static const char* const db1_on_2;
  static const char* const db2_on_1;
  static const char* const pool;
  static const char* const job;

  Temp_Dir directory_;
  Scoped_Env console_directory_;
  Scoped_Env no_server_;
  Fake_Clock clock_;
  std::shared_ptr<Fake_Server> server_ = std::make_shared<Fake_Server>();
  kestrel::Scoped_REST_Transport transport_;
};
} // namespace kestrel_test
