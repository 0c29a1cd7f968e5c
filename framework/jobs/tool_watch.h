#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

class Job;
class Text_Process_Handler;

namespace kestrel
{
/// Frees a cancelled job from a tool that has fallen silent.
///
/// An executor notices a cancel only while its tool moves data. When the job is canceling, canceled or
/// aborting and the tool has neither moved a byte (touch()) nor printed a line for the grace time, the tool's
/// process group is terminated; the executor then sees the end of the stream. The grace begins no earlier
/// than the cancel; with a grace time of 0 the cancel ends the tool at once, whatever it does. A job that
/// nobody cancels is never disturbed. Once the owner has told the tool to end (expect_end()), what it prints
/// counts no more: a tool that ignores that has the grace time, and is then ended however busy it seems. A
/// job can be held up, too, after its tool has ended, by a process that the tool left behind with its pipe;
/// the owner of the tool says how to free it from that.
///
/// Threads:   makes one thread, ended and joined by the destructor; touch() from any thread.
/// Ownership: job and handler are not owned and must outlive the watch.
/// Units:     milliseconds of kestrel::clock()'s monotonic time.
class Tool_Watch
{
public:
  static constexpr int64_t GRACE_MSEC = 60 * 1000;

  /// tool is the name used in the log. free_job is called, again at every look, when the time has come to
  /// terminate the tool but it does not run; it must bear that the tool was not started yet.
  Tool_Watch(Job& job, Text_Process_Handler& handler, std::string tool = "tool",
             int64_t grace_msec = GRACE_MSEC, std::function<void()> free_job = nullptr);
  ~Tool_Watch();
  Tool_Watch(const Tool_Watch&) = delete;
  Tool_Watch& operator=(const Tool_Watch&) = delete;

  /// Looks once and acts; what the thread does several times a second.
  void check();
  /// Bytes have moved. Cheap enough for every block.
  void touch();
  /// The tool has been told to end, or is about to be.
  void expect_end();
  /// True once the watch has terminated the tool.
  bool fired() const;

private:
  struct State;
  std::unique_ptr<State> state_;
};
} // namespace kestrel
