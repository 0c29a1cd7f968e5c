#include "storage/stream_settings.h"

#include "storage/codec.h"
#include "storage/rate_limiter.h"

#include <algorithm>
#include <thread>

namespace kestrel
{
namespace
{
// Large enough that the hand-over and the system call cost nothing, small enough for the processor's second
// cache.
const unsigned BLOCK_BYTES = 256 * 1024;
const unsigned BLOCK_COUNT = 16;
// Uncompressed blocks go to the disk as they are, past the page cache and one at a time. The kernel splits a
// large one into requests that the device works on together.
const unsigned DIRECT_WRITE_BYTES = 4 * 1024 * 1024;
const unsigned DIRECT_WRITE_COUNT = 4;
const unsigned DIRECT_READ_BYTES = 1024 * 1024;
const unsigned DIRECT_READ_COUNT = 6;
// A frame's begin compresses badly, so frames are larger than other blocks. Twice as many as workers let
// these go on while the disk takes its time.
const unsigned FRAME_BLOCK_BYTES = 1536 * 1024;
const unsigned SMALL_FRAME_BLOCK_BYTES = 512 * 1024;
const unsigned MOST_WORKERS_WITH_LARGE_FRAMES = 4;
const unsigned LIMITED_BLOCK_BYTES = 64 * 1024;
const unsigned LIMITED_BLOCK_COUNT = 4;

const unsigned MOST_WORKERS_BY_DEFAULT = 4;
// Each worker costs some megabytes.
const unsigned MOST_WORKERS = 16;
// Below this speed the stream's own thread keeps up, and less data waits inside the compressor when a job is
// cancelled.
const uint64_t NO_WORKER_BYTES_PER_SECOND = 8 * 1024 * 1024;
} // namespace

Stream_Settings write_settings(const Client_IO_Base::Options& options)
{
  const Compression_Method method = options.compression_method;
  const uint64_t bytes_per_second = options.rate_limits.write_limit();
  const unsigned workers = frame_workers(options);
  if (workers > 0)
    return {2 * workers + 2,
            workers > MOST_WORKERS_WITH_LARGE_FRAMES ? SMALL_FRAME_BLOCK_BYTES : FRAME_BLOCK_BYTES};
  if (bytes_per_second != 0 && method != COMPRESSION_NONE)
    return {LIMITED_BLOCK_COUNT, LIMITED_BLOCK_BYTES};
  if (bytes_per_second != 0)
    return {LIMITED_BLOCK_COUNT, Rate_Limiter(bytes_per_second).piece(LIMITED_BLOCK_BYTES)};
  if (method != COMPRESSION_NONE)
    return {BLOCK_COUNT, BLOCK_BYTES};
  return {DIRECT_WRITE_COUNT, DIRECT_WRITE_BYTES};
}

Stream_Settings read_settings(Compression_Method method, uint64_t bytes_per_second)
{
  if (method != COMPRESSION_NONE)
    return {BLOCK_COUNT, BLOCK_BYTES};
  if (bytes_per_second != 0)
    return {LIMITED_BLOCK_COUNT, Rate_Limiter(bytes_per_second).piece(LIMITED_BLOCK_BYTES)};
  return {DIRECT_READ_COUNT, DIRECT_READ_BYTES};
}

unsigned compression_workers(const Client_IO_Base::Options& options)
{
  const uint64_t limit = options.rate_limits.write_limit();
  if (limit != 0 && limit < NO_WORKER_BYTES_PER_SECOND)
    return 0;
  if (options.compression_workers != 0)
    return std::min(options.compression_workers, MOST_WORKERS);
  return std::clamp(std::thread::hardware_concurrency(), 1u, MOST_WORKERS_BY_DEFAULT);
}

unsigned frame_workers(const Client_IO_Base::Options& options)
{
  // A limited stream needs no speed, and its small blocks would make bad frames.
  const bool frames = options.rate_limits.write_limit() == 0 &&
                      compresses_in_frames(options.compression_method, options.compression_level);
  return frames ? compression_workers(options) : 0;
}
} // namespace kestrel
