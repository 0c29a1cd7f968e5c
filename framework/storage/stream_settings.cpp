#include "storage/stream_settings.h"

#include "storage/rate_limiter.h"

#include <algorithm>
#include <thread>

namespace kestrel
{
namespace
{
// Large enough that the hand-over and the system call cost nothing against the copying, small enough that a
// block is still in the processor's second cache when the worker gets it.
const unsigned BLOCK_BYTES = 256 * 1024;
const unsigned BLOCK_COUNT = 16;
const unsigned LIMITED_BLOCK_BYTES = 64 * 1024;
const unsigned LIMITED_BLOCK_COUNT = 4;

const unsigned MOST_WORKERS_BY_DEFAULT = 4;
// Each worker costs some megabytes.
const unsigned MOST_WORKERS = 16;
// Below this speed one thread keeps up, and less data waits inside the compressor when a job is cancelled.
const uint64_t ONE_WORKER_BYTES_PER_SECOND = 8 * 1024 * 1024;
} // namespace

Stream_Settings stream_settings(Compression_Method method, uint64_t bytes_per_second)
{
  if (bytes_per_second == 0)
    return {BLOCK_COUNT, BLOCK_BYTES};
  const unsigned most =
      method == COMPRESSION_NONE ? Rate_Limiter(bytes_per_second).piece(BLOCK_BYTES) : BLOCK_BYTES;
  return {LIMITED_BLOCK_COUNT, std::min(most, LIMITED_BLOCK_BYTES)};
}

unsigned compression_workers(const Client_IO_Base::Options& options)
{
  const uint64_t limit = options.rate_limits.write_limit();
  if (limit != 0 && limit < ONE_WORKER_BYTES_PER_SECOND)
    return 1;
  if (options.compression_workers != 0)
    return std::min(options.compression_workers, MOST_WORKERS);
  return std::clamp(std::thread::hardware_concurrency(), 1u, MOST_WORKERS_BY_DEFAULT);
}
} // namespace kestrel
