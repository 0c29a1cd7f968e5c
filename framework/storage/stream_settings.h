#pragma once

#include "storage/client_io.h"

namespace kestrel
{
/// Sizes of the queue between a job thread and a stream's worker thread.
struct Stream_Settings {
  unsigned block_count;
  unsigned block_bytes;
};

/// For one direction with this limit (bytes per second, 0 = none). A limited stream gets a short queue of
/// small blocks: a job thread that waits for a free block must come back within a fraction of a second to see
/// that it was cancelled.
Stream_Settings write_settings(const Client_IO_Base::Options& options);
Stream_Settings read_settings(Compression_Method method, uint64_t bytes_per_second);

/// The threads that compress one stream with these options, besides the stream's own; 0 for a slow limit.
unsigned compression_workers(const Client_IO_Base::Options& options);

/// Of these, the threads that compress blocks into frames of their own; 0 when the stream is to be one frame.
unsigned frame_workers(const Client_IO_Base::Options& options);
} // namespace kestrel
