#pragma once

#include <ctime>

namespace kestrel
{
/// A start time, in seconds, that no other run of this installation has got or will get: the present second,
/// or the first one that is free. The caller waits until it has come.
///
/// Backups and pipes are named after the local time. In the hour that comes twice when the clocks are set
/// back, a second whose local time a run had already the first time is not free.
///
/// Threads: any, and any process with the same product root: what was handed out is kept in a locked file, of
///          the first of two such hours every time.
/// Errors:  without that file (one warning tells why) the times are unique in this process only. A last time
///          far in the future, as after a clock that was set back, is not waited for but replaced.
/// Limits:  local times of processes with other zones than this one's are not compared.
/// Crash:   a kill during the call leaves the time taken, or free.
time_t reserve_start_time();
} // namespace kestrel
