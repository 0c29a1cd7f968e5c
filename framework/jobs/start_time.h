#pragma once

#include <ctime>

namespace kestrel
{
/// A start time, in seconds, that no other run of this installation has got or will get: the present second,
/// or the first one that is free. The caller waits until it has come.
///
/// Threads: any, and any process with the same product root: the last time handed out is kept in a locked
///          file.
/// Errors:  without that file (one warning tells why) the times are unique in this process only. A last time
///          far in the future, as after a clock that was set back, is not waited for but replaced.
time_t reserve_start_time();
} // namespace kestrel
