#pragma once

#include <ace/Log_Priority.h>

#include <memory>
#include <string>
#include <vector>

namespace kestrel_test
{
struct Log_Line {
  ACE_Log_Priority priority;
  std::string text; ///< as logged, with its line end
  bool expected = false;
};

/// Sees every log line of the process, all threads, from its construction on. At its end each WARNING, ERROR,
/// CRITICAL, ALERT and EMERGENCY line that no expect() or allow() took fails the test. Without one in a test,
/// test_main's own does the same at the test's end; captures nest, and the innermost gets the lines.
/// Threads: any.
class Log_Capture
{
public:
  Log_Capture();
  ~Log_Capture();
  Log_Capture(const Log_Capture&) = delete;
  Log_Capture& operator=(const Log_Capture&) = delete;

  /// Takes the first line of this priority that contains `text` and that nobody took yet. Fails the test when
  /// there is none. Any priority may be expected.
  bool expect(ACE_Log_Priority priority, const std::string& text);
  /// As expect, but the line must be exactly `text`.
  bool expect_exactly(ACE_Log_Priority priority, const std::string& text);
  /// Lines of this priority that contain `text`, past and future ones, are no failure.
  void allow(ACE_Log_Priority priority, const std::string& text);

  /// Number of lines that contain `text`, taken or not; with a priority only of that one.
  unsigned count(const std::string& text) const;
  unsigned count(ACE_Log_Priority priority, const std::string& text) const;
  /// True when some line contains `text`. For secrets: EXPECT_FALSE(log.contains(password)).
  bool contains(const std::string& text) const { return count(text) > 0; }
  std::vector<Log_Line> lines() const;
  /// Forgets all lines so far, unexpected ones too.
  void clear();

private:
  struct State;
  friend class Capture_Backend;

  bool take(ACE_Log_Priority priority, const std::string& text, bool exactly);

  const std::unique_ptr<State> state_;
};
} // namespace kestrel_test
