#include "oscar/brcmd_tool_run.h"

#include <exception>

#include <ace/Log_Msg.h>

#include "base/clock.h"
#include "base/ignore_result.h"
#include "jobs/job.h"

namespace oscar
{
namespace
{
// Given to a tool that was told to end, before it is killed.
constexpr unsigned END_GRACE_SECONDS = 600;
constexpr int64_t STOP_RETRY_MSEC = 50;
} // namespace

Brcmd_Tool_Run::Brcmd_Tool_Run(Job& job, Stream_Fifo& fifo, Stream_Fifo::Side opener_side, bool logging,
                               Command command)
    : job_(job), fifo_(fifo), opener_side_(opener_side), command_(std::move(command)),
      handler_(nullptr, logging),
      watch_(job, handler_, "brcmd", kestrel::Tool_Watch::GRACE_MSEC, [this] { free_job(); }), thread_(job)
{
  // A child of a brcmd that is gone may hold the FIFO: a backup would wait for it, and in a restore it would
  // take the end of the stream for the end of the backup.
  handler_.kill_group_on_failure();
  handler_.keep_group();
}

Brcmd_Tool_Run::~Brcmd_Tool_Run()
{
  if (!started_)
    return;
  if (!ended_)
    stop();
  kestrel::ignore_result(join(), "the tool was stopped: its result does not matter any more");
}

bool Brcmd_Tool_Run::start()
{
  fifo_.begin_open();
  started_ = thread_.spawn(&Brcmd_Tool_Run::run, this) >= 0;
  if (!started_)
    ACE_ERROR((LM_ERROR,
               "(%P|%t) Brcmd_Tool_Run::start: no thread for brcmd: %m; the job fails, try it again when the "
               "host has resources\n"));
  return started_;
}

void Brcmd_Tool_Run::run()
{
  bool success = false;
  try {
    success = command_(handler_) == 0;
  } catch (const std::exception& error) {
    ACE_ERROR((LM_ERROR, "(%P|%t) Brcmd_Tool_Run::run: %C\n", error.what()));
  }
  success_ = success;
  ended_ = true;
  fifo_.release_open(opener_side_);
}

/// Called by the watch when the job is canceled and nothing has moved for long.
void Brcmd_Tool_Run::free_job()
{
  if (!ended_ || joined_)
    return;
  if (!freed_)
    ACE_ERROR((LM_WARNING,
               "(%P|%t) Brcmd_Tool_Run: job %C is canceled and brcmd has ended, but a process that it left "
               "behind holds the FIFO %C: killing it\n",
               job_.definition().id().c_str(), fifo_.path().c_str()));
  freed_ = true;
  // Before the kill: what the job then sees is the end of the stream, but not of a whole one.
  success_ = false;
  handler_.kill_group();
  // One that left the group goes on, but without the job.
  fifo_.disturb_stream(opener_side_);
}

void Brcmd_Tool_Run::stop()
{
  watch_.expect_end();
  // Asked again until it has ended: a tool that is just being started is not there to be terminated yet.
  while (handler_.terminate(END_GRACE_SECONDS), started_ && !ended_)
    kestrel::clock().sleep_msec(STOP_RETRY_MSEC);
}

bool Brcmd_Tool_Run::join()
{
  fifo_.give_up_open();
  kestrel::ignore_result(thread_.join(), "fails only for a thread that was joined before");
  kestrel::ignore_result(handler_.wait(nullptr), "the result of the run was kept by its thread");
  joined_ = true;
  return success_;
}
} // namespace oscar
