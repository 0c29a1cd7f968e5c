#include "jobs/start_time.h"

#include "base/clock.h"
#include "base/descriptor.h"
#include "base/file_lock.h"
#include "base/file_system.h"
#include "base/path_conf.h"

#include <ace/Log_Msg.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <string>

namespace kestrel
{
namespace
{
/// More runs than this cannot wait in line, so a later time comes from a clock that ran ahead.
const long long MAX_AHEAD_SECONDS = 600;

std::mutex process_mutex;
long long last_of_process = 0;

/// The time is written with a fixed width, so that a new one covers the old one whole.
const std::size_t STAMP_BYTES = 21;

long long read_stamp(int handle)
{
  char text[STAMP_BYTES + 1] = "";
  const ssize_t count = file_system().pread(handle, text, STAMP_BYTES, 0);
  return count == static_cast<ssize_t>(STAMP_BYTES) ? std::strtoll(text, nullptr, 10) : 0;
}

bool write_stamp(int handle, long long stamp)
{
  char text[STAMP_BYTES + 1];
  std::snprintf(text, sizeof text, "%020lld\n", stamp);
  return file_system().pwrite(handle, text, STAMP_BYTES, 0) == static_cast<ssize_t>(STAMP_BYTES);
}

long long next_stamp(long long last, long long now)
{
  if (last > now + MAX_AHEAD_SECONDS) {
    ACE_ERROR((LM_WARNING,
               "(%P|%t) reserve_start_time: the last start time is %q seconds ahead; the clock was set back, "
               "and start times begin anew\n",
               static_cast<ACE_INT64>(last - now)));
    last = 0;
  }
  return last < now ? now : last + 1;
}

/// False with errno when there is no file to share the last time in.
bool reserve_among_processes(long long& stamp)
{
  const std::string path = state_path("last_start_time");
  File_Lock lock;
  if (!lock.lock(path + ".lock")) {
    return false;
  }
  const Auto_Closer<int, Auto_Handle_Trait> file(
      file_system().open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640));
  if (file.get() < 0) {
    return false;
  }
  const long long now = clock().now();
  long long last = read_stamp(file.get());
  // Times that this process gave out while it had no file count too.
  if (last < last_of_process && last_of_process <= now + MAX_AHEAD_SECONDS) {
    last = last_of_process;
  }
  const long long next = next_stamp(last, now);
  if (!write_stamp(file.get(), next)) {
    return false;
  }
  stamp = next;
  return true;
}
} // namespace

time_t reserve_start_time()
{
  const std::lock_guard<std::mutex> guard(process_mutex);
  long long stamp = 0;
  if (!reserve_among_processes(stamp)) {
    ACE_ERROR(
        (LM_WARNING,
         "(%P|%t) reserve_start_time: the last start time cannot be shared with other processes: %m\n"));
    stamp = next_stamp(last_of_process, clock().now());
  }
  last_of_process = stamp;
  return static_cast<time_t>(stamp);
}
} // namespace kestrel
