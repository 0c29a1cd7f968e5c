#pragma once

#include "storage/block_pipe.h"
#include "storage/codec.h"

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace kestrel
{
/// Threads that compress the blocks of a pipe, each block into a frame of its own, and hand the frames on in
/// the blocks' order.
/// Threads:   one owner (start, frames, join) and any number of threads of its own. They end at the end of
///            the blocks, and when either pipe stops or fails. A failure stops both pipes: the blocks' pipe
///            then has the reason.
/// Ownership: owns its threads and frames, not the blocks' pipe. The destructor stops the frames, not the
///            blocks: stop these first, or have them ended.
/// Limits:    holds twice as many frames as threads, and two more.
class Frame_Team
{
public:
  /// block_bytes: the most that a block of `blocks` holds.
  Frame_Team(Block_Pipe& blocks, unsigned workers, unsigned block_bytes);
  ~Frame_Team();
  Frame_Team(const Frame_Team&) = delete;
  Frame_Team& operator=(const Frame_Team&) = delete;

  /// May be called once. False with `error` filled; threads already started end when the blocks' pipe stops.
  [[nodiscard]] bool start(Compression_Method method, int level, std::string& error);
  /// Where the frames come out.
  Block_Pipe& frames() { return frames_; }

private:
  void run(Frame_Compressor& compressor);
  bool compress_blocks(Frame_Compressor& compressor);

  Block_Pipe& blocks_;
  Block_Pipe frames_;
  const unsigned workers_;
  std::atomic<unsigned> running_;
  std::vector<std::unique_ptr<Frame_Compressor>> compressors_;
  std::vector<std::thread> threads_;
};
} // namespace kestrel
