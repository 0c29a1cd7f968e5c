#include "cli/cancel_signals.h"

#include <csignal>

namespace kestrel
{
namespace
{
volatile std::sig_atomic_t cancel_flag = 0;

void note_cancel(int)
{
  cancel_flag = 1;
}

struct sigaction previous_interrupt;
struct sigaction previous_terminate;
struct sigaction previous_hangup;
} // namespace

Cancel_Signals::Cancel_Signals()
{
  cancel_flag = 0;
  struct sigaction action = {};
  action.sa_handler = note_cancel;
  action.sa_flags = SA_RESTART;
  ::sigaction(SIGINT, &action, &previous_interrupt);
  ::sigaction(SIGTERM, &action, &previous_terminate);
  ::sigaction(SIGHUP, &action, &previous_hangup);
}

Cancel_Signals::~Cancel_Signals()
{
  ::sigaction(SIGINT, &previous_interrupt, nullptr);
  ::sigaction(SIGTERM, &previous_terminate, nullptr);
  ::sigaction(SIGHUP, &previous_hangup, nullptr);
}

bool Cancel_Signals::requested()
{
  return cancel_flag != 0;
}
} // namespace kestrel
