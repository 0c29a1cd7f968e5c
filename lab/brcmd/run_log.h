/// The log file of one run (option -e): lines with time and level, appended.
/// Errors: the constructor throws when the file cannot be opened; a failed line is dropped.
#pragma once

#include "lab/common/files.h"

#include <string>

namespace oscar_lab
{

class Run_Log
{
public:
  explicit Run_Log(const std::string& path);
  void line(const char* level, const std::string& text);
  void info(const std::string& text) { line("INFO", text); }

private:
  Descriptor file_;
};

} // namespace oscar_lab
