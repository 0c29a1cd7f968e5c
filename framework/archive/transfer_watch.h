#pragma once

#include "archive/mtf.h"

#include <cstdint>

namespace kestrel
{
/// One transfer's side of an event handler: progress by percentages, the question for cancellation, waiting
/// while paused. A null handler is never canceled.
/// Threads: the transfer's.
class Transfer_Watch
{
public:
  explicit Transfer_Watch(MTF::Event_Handler* handler) : handler_(handler) {}

  /// Between blocks: waits while the job is paused; false when the transfer must end.
  [[nodiscard]] bool go_on();
  /// Tells the handler when the percentage of done / total is a new one. Before finish() it is at most 99.
  void moved(uint64_t done, uint64_t total, uint64_t file_bytes, uint64_t all_file_bytes,
             uint64_t other_bytes);
  void finish(uint64_t all_file_bytes, uint64_t other_bytes);
  void file_event(MTF::Event event, const std::string& path, uint64_t size);

private:
  MTF::Event_Handler* const handler_;
  int percent_ = -1;
};

/// Runs an action and waits for it. False when it failed and that is not ignored; `error` says which.
[[nodiscard]] bool run_pre_action(Action_Handler_Ptr& handler, std::string& error);
[[nodiscard]] bool run_post_action(Action_Handler_Ptr& handler, std::string& error);
} // namespace kestrel
