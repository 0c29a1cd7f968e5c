#include "archive/transfer_watch.h"

#include "base/clock.h"
#include "base/ignore_result.h"

#include <ace/Log_Msg.h>

#include <algorithm>

namespace kestrel
{
namespace
{
const int64_t pause_step_msec = 100;

bool judge_action(const char* name, bool done, bool ignored, std::string& error)
{
  if (done)
    return true;
  if (ignored) {
    ACE_DEBUG((LM_NOTICE, "(%P|%t) The %C of the transfer failed, which does not matter to it\n", name));
    return true;
  }
  error = std::string("the ") + name + " failed";
  return false;
}
} // namespace

bool Transfer_Watch::go_on()
{
  if (handler_ == nullptr)
    return true;
  while (!handler_->canceling()) {
    if (!handler_->pausing())
      return true;
    clock().sleep_msec(pause_step_msec);
  }
  return false;
}

void Transfer_Watch::moved(uint64_t done, uint64_t total, uint64_t file_bytes, uint64_t all_file_bytes,
                           uint64_t other_bytes)
{
  const double share = total == 0 ? 0 : static_cast<double>(done) / static_cast<double>(total);
  const int percent = std::min(99, static_cast<int>(share * 100));
  if (handler_ == nullptr || percent == percent_)
    return;
  percent_ = percent;
  ignore_result(handler_->handle_progress(percent, all_file_bytes, file_bytes, other_bytes),
                "a transfer goes on without anybody looking");
}

void Transfer_Watch::finish(uint64_t all_file_bytes, uint64_t other_bytes)
{
  if (handler_)
    ignore_result(handler_->handle_progress(100, all_file_bytes, all_file_bytes, other_bytes),
                  "a transfer goes on without anybody looking");
}

void Transfer_Watch::file_event(MTF::Event event, const std::string& path, uint64_t size)
{
  if (handler_)
    ignore_result(handler_->notify_event(event, {{"path", path}, {"size", size}}),
                  "a transfer goes on without anybody looking");
}

bool run_pre_action(Action_Handler_Ptr& handler, std::string& error)
{
  if (handler.null())
    return true;
  const bool done = handler->pre_action() && handler->wait_pre_action(nullptr) == 0;
  return judge_action("pre-action", done, handler->ignore_pre_action_failure(), error);
}

bool run_post_action(Action_Handler_Ptr& handler, std::string& error)
{
  if (handler.null())
    return true;
  const bool done = handler->post_action() && handler->wait_post_action(nullptr) == 0;
  return judge_action("post-action", done, handler->ignore_post_action_failure(), error);
}
} // namespace kestrel
