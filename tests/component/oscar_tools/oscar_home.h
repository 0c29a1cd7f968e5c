#pragma once

#include "support/fake_tool.h"
#include "support/temp_dir.h"
#include "support/waiting.h"

#include <string>
#include <vector>

namespace kestrel_test
{
/// A directory that looks like an OSCAR installation with one instance, DB1, and scripted tools.
class Oscar_Home
{
public:
  Oscar_Home();

  const char* path() const { return dir_.path().c_str(); }
  const Temp_Dir& dir() const { return dir_; }
  std::string operator/(const std::string& name) const { return dir_ / name; }

  /// Puts a tool into bin/. The script's steps are those of fake_tool.
  std::string tool(const std::string& name, const std::string& script) const;

  /// An isql that prints these lines to any statement and ends with success.
  void isql_prints(const std::vector<std::string>& lines) const;

  /// An isql that prints a table: headings, the rows and the footer.
  void isql_answers(const std::vector<std::string>& rows) const;

  /// One step that prints a line.
  static std::string out(const std::string& line);
  static std::string err(const std::string& line);

private:
  Temp_Dir dir_;
};

/// Listens on some port of the loopback address while it lives.
class Listener
{
public:
  Listener();
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  unsigned short port() const { return port_; }

private:
  int socket_;
  unsigned short port_ = 0;
};

/// The lines of a file without their ends.
std::vector<std::string> lines_of(const std::string& path);

/// The value of NAME=value among the lines, "-" when there is none; a name that occurs twice fails the test.
std::string value_of(const std::vector<std::string>& lines, const std::string& name);
} // namespace kestrel_test
