#pragma once

#include "cli/command_line.h"
#include "cli/exit_code.h"
#include "json/value.h"

#include <string>

namespace kestrel
{
/// Writes to the standard output; false when that is in vain from now on. What cannot be written is reported
/// once, except to a reader that has gone, such as `head`, which wanted no more. Threads: main thread.
bool write_result(const std::string& text);
/// Whether something that write_result() was given did not arrive.
bool result_lost();

/// How results, remarks and failures of one command reach the user. Results go to the standard output,
/// everything else to the standard error output. Threads: main thread, except note().
class Command_Output
{
public:
  /// `line` is not owned and must outlive this.
  explicit Command_Output(const Command_Line& line) : line_(line) {}

  const Command_Line& line() const { return line_; }

  /// With --json the value, else the text (with its line ends).
  void result(const json_spirit::Object& json, const std::string& text);
  /// A remark; shown unless --quiet or --json.
  void note(const std::string& text);
  /// The one line that ends a failure: `what` failed and why, and what to do next. Returns `code`.
  int fail(const std::string& what, int code = EXIT_CODE_FAILED, const std::string& log_path = std::string());

  /// The code of the last fail().
  int last_code() const { return last_code_; }

private:
  const Command_Line& line_;
  int last_code_ = EXIT_CODE_DONE;
};
} // namespace kestrel
