#pragma once

#include "archive/mtf.h"

class Job_Definition;
struct Job_Activity;

namespace oscar
{
/// Reports how far the archive of a logical job is, and tells the archive of a cancel or pause.
/// Threads:   the transfer's thread; the state it reads is written by control requests on other threads.
/// Ownership: definition and activity record are not owned and must outlive the handler.
class Archive_Event_Handler : public MTF::Event_Handler
{
public:
  Archive_Event_Handler(Job_Definition const* def, Job_Activity* act);

  /// Sends an event when the percentage differs from the last one, upwards or downwards. 0, or -1 when the
  /// event could not be queued.
  int handle_progress(int progress, unsigned long long a, unsigned long long b,
                      unsigned long long c) override;
  /// A cancel or an abort. A pause is no cancel.
  bool canceling() override;

private:
  Job_Definition const* def_;
  Job_Activity* act_;
};
} // namespace oscar
