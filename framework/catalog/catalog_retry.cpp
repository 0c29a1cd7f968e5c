#include "catalog/catalog_retry.h"

#include "base/clock.h"
#include "catalog/catalog_operator.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <atomic>

namespace kestrel
{
namespace
{
std::atomic<int>& default_retry_seconds()
{
  static std::atomic<int> seconds(300);
  return seconds;
}
} // namespace

int catalog_retry_seconds()
{
  return default_retry_seconds();
}

void set_catalog_retry_seconds(int seconds)
{
  default_retry_seconds() = std::max(0, seconds);
}

bool retry_while_busy(int max_seconds_retry, std::string& error,
                      const std::function<Catalog_Status(std::string& error)>& attempt)
{
  const int seconds = max_seconds_retry < 0 ? catalog_retry_seconds() : max_seconds_retry;
  const int64_t end_msec = clock().monotonic_msec() + seconds * int64_t(1000);
  const int64_t longest_pause_msec = 5000;
  for (int64_t pause_msec = 100;; pause_msec = std::min(2 * pause_msec, longest_pause_msec)) {
    std::string problem;
    const Catalog_Status status = attempt(problem);
    if (status == Catalog_Status::done)
      return true;
    const int64_t left_msec = end_msec - clock().monotonic_msec();
    if (status != Catalog_Status::busy || left_msec <= 0) {
      error = problem;
      if (status == Catalog_Status::busy)
        error += " (tried for " + std::to_string(seconds) + " s)";
      return false;
    }
    ACE_DEBUG((LM_DEBUG, "(%P|%t) The catalog is busy and is tried again in %q ms: %s\n",
               std::min(pause_msec, left_msec), problem.c_str()));
    clock().sleep_msec(std::min(pause_msec, left_msec));
  }
}
} // namespace kestrel
