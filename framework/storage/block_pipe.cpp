#include "storage/block_pipe.h"

#include "base/ignore_result.h"

#include <algorithm>
#include <cstdlib>
#include <sys/mman.h>

namespace kestrel
{
namespace
{
const uint64_t PAGE_BYTES = 4096;
const uint64_t HUGE_PAGE_BYTES = 2 * 1024 * 1024;

uint64_t whole(uint64_t unit, uint64_t bytes)
{
  return (bytes + unit - 1) / unit * unit;
}
} // namespace

Block_Pipe::Block_Pipe(unsigned block_count, unsigned block_bytes)
    : block_count_(block_count), block_bytes_(block_bytes), area_(nullptr, std::free)
{
  blocks_.reserve(block_count);
  free_.reserve(block_count);
}

Block_Pipe::~Block_Pipe() = default;

bool Block_Pipe::make_area()
{
  const uint64_t bytes = block_count_ * whole(PAGE_BYTES, block_bytes_);
  const uint64_t unit = bytes < HUGE_PAGE_BYTES ? PAGE_BYTES : HUGE_PAGE_BYTES;
  const uint64_t area_bytes = whole(unit, bytes);
  if (area_bytes > SIZE_MAX)
    return false;
  area_.reset(
      static_cast<char*>(std::aligned_alloc(static_cast<size_t>(unit), static_cast<size_t>(area_bytes))));
  if (area_ && unit == HUGE_PAGE_BYTES)
    ignore_result(::madvise(area_.get(), static_cast<size_t>(area_bytes), MADV_HUGEPAGE),
                  "small pages serve as well, a little slower");
  return area_ != nullptr;
}

Block* Block_Pipe::make_block()
{
  if (!area_ && !make_area()) {
    stopped_ = true;
    failure_ = "not enough memory for the buffers of a stored file";
    freed_.notify_all();
    filled_.notify_all();
    return nullptr;
  }
  char* const data = area_.get() + blocks_.size() * whole(PAGE_BYTES, block_bytes_);
  blocks_.push_back(std::make_unique<Block>(Block{data, block_bytes_, 0, 0}));
  return blocks_.back().get();
}

Block* Block_Pipe::take_free()
{
  std::unique_lock<std::mutex> guard(lock_);
  freed_.wait(guard, [this] { return stopped_ || !free_.empty() || blocks_.size() < block_count_; });
  if (stopped_)
    return nullptr;
  if (free_.empty())
    return make_block();
  // The block used last is the one most likely still in the processor's cache.
  Block* block = free_.back();
  free_.pop_back();
  block->size = 0;
  return block;
}

void Block_Pipe::put(Block* block)
{
  std::unique_lock<std::mutex> guard(lock_);
  block->number = next_put_++;
  full_.push_back(block);
  guard.unlock();
  filled_.notify_one();
}

void Block_Pipe::put(Block* block, uint64_t number)
{
  std::unique_lock<std::mutex> guard(lock_);
  block->number = number;
  const auto behind =
      std::find_if(full_.begin(), full_.end(), [&](Block* each) { return each->number > number; });
  full_.insert(behind, block);
  const bool wanted = number == next_taken_;
  guard.unlock();
  if (wanted)
    filled_.notify_one();
}

void Block_Pipe::finish()
{
  std::lock_guard<std::mutex> guard(lock_);
  finished_ = true;
  filled_.notify_all();
}

Block* Block_Pipe::take_full()
{
  std::unique_lock<std::mutex> guard(lock_);
  filled_.wait(guard, [this] { return stopped_ || next_is_here() || (finished_ && full_.empty()); });
  if (stopped_ || full_.empty())
    return nullptr;
  Block* block = full_.front();
  full_.pop_front();
  ++next_taken_;
  const bool another = next_is_here();
  const bool last = finished_ && full_.empty();
  guard.unlock();
  // A block that was put early woke nobody; and every consumer is to learn of the end.
  if (last)
    filled_.notify_all();
  else if (another)
    filled_.notify_one();
  return block;
}

void Block_Pipe::give_back(Block* block)
{
  std::unique_lock<std::mutex> guard(lock_);
  free_.push_back(block);
  guard.unlock();
  freed_.notify_one();
}

void Block_Pipe::stop()
{
  std::lock_guard<std::mutex> guard(lock_);
  stopped_ = true;
  freed_.notify_all();
  filled_.notify_all();
}

void Block_Pipe::fail(const std::string& reason)
{
  std::lock_guard<std::mutex> guard(lock_);
  if (failure_.empty())
    failure_ = reason;
  stopped_ = true;
  freed_.notify_all();
  filled_.notify_all();
}

bool Block_Pipe::ended() const
{
  std::lock_guard<std::mutex> guard(lock_);
  return finished_ && full_.empty() && !stopped_;
}

std::string Block_Pipe::failure() const
{
  std::lock_guard<std::mutex> guard(lock_);
  return failure_;
}
} // namespace kestrel
