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
#include <set>
#include <string>

namespace kestrel
{
namespace
{
/// More runs than this cannot wait in line, so a later time comes from a clock that ran ahead.
const long long MAX_AHEAD_SECONDS = 600;

/// No zone sets its clocks back by more.
const long long MAX_BACK_SECONDS = 3 * 3600;

/// Every time is written with a fixed width, so that new ones cover the old ones whole.
const std::size_t STAMP_BYTES = 21;
const std::size_t MAX_STAMPS = MAX_BACK_SECONDS;

/// What was handed out, as the file has it: the last one first, then those whose local time comes again.
struct Handed_Out {
  long long last = 0;
  std::set<long long> doubled;
};

std::mutex process_mutex;
Handed_Out of_process;

/// Seconds that the local time is ahead of UTC.
long long local_offset(long long stamp)
{
  const time_t time = static_cast<time_t>(stamp);
  struct tm parts = {};
  return ::localtime_r(&time, &parts) ? parts.tm_gmtoff : 0;
}

bool comes_again(long long stamp)
{
  const long long back = local_offset(stamp) - local_offset(stamp + MAX_BACK_SECONDS);
  return back > 0 && local_offset(stamp) - local_offset(stamp + back) == back;
}

/// The earlier one of two seconds with the same local time; 0 when `stamp` is not the later one.
long long earlier_twin(long long stamp)
{
  const long long back = local_offset(stamp - MAX_BACK_SECONDS) - local_offset(stamp);
  return back > 0 && local_offset(stamp - back) - local_offset(stamp) == back ? stamp - back : 0;
}

Handed_Out read_stamps(int handle)
{
  std::string text(MAX_STAMPS * STAMP_BYTES, '\0');
  const ssize_t count = file_system().pread(handle, &text[0], text.size(), 0);
  Handed_Out found;
  for (std::size_t at = 0; count > 0 && at + STAMP_BYTES <= static_cast<std::size_t>(count);
       at += STAMP_BYTES) {
    const std::string line = text.substr(at, STAMP_BYTES);
    if (line.find_first_not_of("0123456789") != STAMP_BYTES - 1 || line.back() != '\n')
      break; // rubbish, or the blanks behind the last one
    const long long stamp = std::strtoll(line.c_str(), nullptr, 10);
    if (at == 0)
      found.last = stamp;
    else
      found.doubled.insert(stamp);
  }
  return found;
}

bool write_stamps(int handle, const Handed_Out& stamps)
{
  char line[STAMP_BYTES + 1];
  std::snprintf(line, sizeof line, "%020lld\n", stamps.last);
  std::string text = line;
  for (const long long stamp : stamps.doubled) {
    std::snprintf(line, sizeof line, "%020lld\n", stamp);
    text += line;
  }
  // The end; more lines may have stood here.
  text.append(STAMP_BYTES, ' ');
  return file_system().pwrite(handle, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
}

/// Takes the present second, or the first that is free.
void take_next(Handed_Out& stamps, long long now)
{
  if (stamps.last > now + MAX_AHEAD_SECONDS) {
    ACE_ERROR((LM_WARNING,
               "(%P|%t) reserve_start_time: the last start time is %q seconds ahead; the clock was set back, "
               "and start times begin anew\n",
               static_cast<ACE_INT64>(stamps.last - now)));
    stamps.last = 0;
  }
  stamps.last = stamps.last < now ? now : stamps.last + 1;
  while (stamps.doubled.count(earlier_twin(stamps.last)))
    ++stamps.last;
  if (comes_again(stamps.last))
    stamps.doubled.insert(stamps.last);
  stamps.doubled.erase(stamps.doubled.begin(), stamps.doubled.lower_bound(stamps.last - MAX_BACK_SECONDS));
}

/// False with errno when there is no file to share the times in.
bool reserve_among_processes(Handed_Out& stamps)
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
  Handed_Out known = read_stamps(file.get());
  // Times that this process gave out while it had no file count too.
  if (known.last < stamps.last && stamps.last <= now + MAX_AHEAD_SECONDS) {
    known.last = stamps.last;
  }
  known.doubled.insert(stamps.doubled.begin(), stamps.doubled.end());
  take_next(known, now);
  if (!write_stamps(file.get(), known)) {
    return false;
  }
  stamps.last = known.last;
  stamps.doubled.swap(known.doubled);
  return true;
}
} // namespace

time_t reserve_start_time()
{
  const std::lock_guard<std::mutex> guard(process_mutex);
  if (!reserve_among_processes(of_process)) {
    ACE_ERROR(
        (LM_WARNING,
         "(%P|%t) reserve_start_time: the last start time cannot be shared with other processes: %m\n"));
    take_next(of_process, clock().now());
  }
  return static_cast<time_t>(of_process.last);
}
} // namespace kestrel
