#pragma once

namespace kestrel
{
/// While it lives, SIGINT, SIGTERM and SIGHUP do not end the process but set a flag that whoever waits polls.
/// One at a time; main thread.
class Cancel_Signals
{
public:
  Cancel_Signals();
  ~Cancel_Signals();
  Cancel_Signals(const Cancel_Signals&) = delete;
  Cancel_Signals& operator=(const Cancel_Signals&) = delete;
  static bool requested();
};
} // namespace kestrel
