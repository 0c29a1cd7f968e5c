#include "agent/cron.h"
#include "support/corpus.h"

#include <cstdlib>
#include <limits>
#include <string>

static const time_t longest_wait = 8 * 366 * 24 * 3600; // leap days, around a year like 2100

// A line is refused with a text, or it has a next time that lies behind the one asked from, and asking from
// there goes on. The first line of the input is the zone.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  const std::string text(reinterpret_cast<const char*>(data), size);
  const size_t end = text.find('\n');
  const std::string zone = end == std::string::npos ? "UTC" : text.substr(0, end);
  kestrel::Cron_Schedule schedule;
  std::string error;
  if (!kestrel::Cron_Schedule::parse(end == std::string::npos ? text : text.substr(end + 1), zone, schedule,
                                     error)) {
    if (error.empty())
      ::abort();
    return 0;
  }
  const time_t start = 1700000000;
  time_t time = start;
  for (int round = 0; round < 4; ++round) {
    time_t next = 0;
    if (!schedule.next_after(time, next)) {
      // No day is more than eight years off, unless a time_t of 32 bits ends before.
      if (std::numeric_limits<time_t>::max() - time < longest_wait)
        return 0;
      ::abort(); // a day that never comes must have been refused
    }
    if (next <= time)
      ::abort();
    time = next;
    // Counting and looking back see the same times.
    bool complete = false;
    time_t last = 0;
    if (schedule.count(start, time, complete) != static_cast<uint64_t>(round) + 1 || !complete)
      ::abort();
    if (!schedule.last_until(time, start, last) || last != time)
      ::abort();
  }
  return 0;
}
