/// One run of a PostgreSQL client program (pg_dump, pg_restore, psql) under a user's login.
///
/// The login travels in the environment, never on the command line. The program dies with the tool, however
/// the tool ends. Threads:   single-threaded tools (fork). Ownership: the destructor kills and reaps a
/// program that still runs. Errors:    Failure when it cannot be started; what it says on stderr is kept, up
/// to 64 KiB.
#pragma once

#include "lab/common/database.h"
#include "lab/common/files.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace oscar_lab
{

class Client_Program
{
public:
  /// input and output become stdin and stdout; -1 stands for /dev/null. The program inherits the files as
  /// well, under the same numbers: an argument can name one with path_of_inherited().
  Client_Program(const std::string& name, const std::vector<std::string>& arguments, const Login& login,
                 int input, int output, const std::vector<int>& inherited = {});
  Client_Program(const Client_Program&) = delete;
  Client_Program& operator=(const Client_Program&) = delete;
  ~Client_Program() { kill(); }

  /// Waits for the end; true when it ended with status 0.
  bool wait();
  void kill();
  /// What it wrote to stderr so far.
  std::string messages() const;
  /// The one line that matters out of messages(), without the program's name.
  std::string error() const;

private:
  std::string name_;
  pid_t pid_ = -1;
  int status_ = 0;
  Descriptor messages_;
};

std::string path_of_inherited(int fd);

/// Runs a program to its end and gives its stdout; throws a Failure with its error.
std::string output_of(const std::string& name, const std::vector<std::string>& arguments, const Login& login,
                      const std::vector<int>& inherited = {});

/// An unnamed file in memory, for output of a limited size.
Descriptor memory_file();
std::string content_of(const Descriptor& file, std::size_t limit);

} // namespace oscar_lab
