#include "storage/frame_team.h"

#include <system_error>

namespace kestrel
{
Frame_Team::Frame_Team(Block_Pipe& blocks, unsigned workers, unsigned block_bytes)
    : blocks_(blocks), frames_(2 * workers + 2, frame_bound(block_bytes)), workers_(workers),
      running_(workers)
{
}

Frame_Team::~Frame_Team()
{
  frames_.stop();
  for (std::thread& thread : threads_)
    thread.join();
}

bool Frame_Team::start(Compression_Method method, int level, std::string& error)
{
  for (unsigned i = 0; i < workers_; ++i) {
    compressors_.push_back(make_frame_compressor(method, level, error));
    if (!compressors_.back())
      return false;
  }
  threads_.reserve(workers_);
  try {
    for (const auto& compressor : compressors_)
      threads_.emplace_back([this, &each = *compressor] { run(each); });
  } catch (const std::system_error& failure) {
    error = std::string("cannot start the threads that compress the file: ") + failure.what();
    return false;
  }
  return true;
}

void Frame_Team::run(Frame_Compressor& compressor)
{
  if (!compress_blocks(compressor))
    frames_.stop();
  else if (--running_ == 0)
    frames_.finish();
}

bool Frame_Team::compress_blocks(Frame_Compressor& compressor)
{
  // The free frame is taken first: who has a block's number must be able to go on.
  while (Block* frame = frames_.take_free()) {
    Block* block = blocks_.take_full();
    if (block == nullptr) {
      frames_.give_back(frame);
      return blocks_.ended();
    }
    const uint64_t number = block->number;
    frame->size = compressor.compress(block->data, block->size, frame->data, frame->capacity);
    blocks_.give_back(block);
    if (frame->size == 0) {
      blocks_.fail(compressor.error());
      return false;
    }
    frames_.put(frame, number);
  }
  if (!frames_.failure().empty())
    blocks_.fail(frames_.failure());
  return false;
}
} // namespace kestrel
