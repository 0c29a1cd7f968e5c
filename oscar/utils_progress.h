#pragma once

#include <cstddef>
#include <string>

class Job_Definition;
struct Job_Activity;

namespace oscar
{
/// Helpers with which a run tells how far it is and learns that it is to stop. Any thread.

/// Queues a progress event; the three counters are passed on as they are. 0, or -1 when the queue refused it
/// (not logged).
int put_progress_event(Job_Definition const& def, int progress, unsigned long long a, unsigned long long b,
                       unsigned long long c);
/// Queues the news that the run turned to the next of its objects; number from 1. Results as above.
int put_item_event(Job_Definition const& def, const std::string& item, size_t number, size_t total);

/// True when the job was asked to cancel or to abort. One atomic read.
bool job_is_canceled(const Job_Activity& activity);
} // namespace oscar
