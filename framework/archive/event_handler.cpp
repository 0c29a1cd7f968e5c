#include "archive/mtf.h"

namespace MTF
{
Event_Handler::Event_Handler(void*) {}

Event_Handler::~Event_Handler() = default;

int Event_Handler::notify_event(unsigned, const Opts&)
{
  return 0;
}

int Event_Handler::handle_progress(int, unsigned long long, unsigned long long, unsigned long long)
{
  return 0;
}

bool Event_Handler::canceling()
{
  return false;
}

bool Event_Handler::pausing()
{
  return pausing_when_ && pausing_when_();
}

void Event_Handler::pausing_when(std::function<bool()> question)
{
  pausing_when_ = std::move(question);
}
} // namespace MTF
