#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kestrel
{
/// A page-aligned buffer that travels through a Block_Pipe. Its number is its place in the stream, from 0.
struct Block {
  char* data;
  unsigned capacity;
  unsigned size;
  uint64_t number;
};

/// A bounded queue of large blocks between threads that produce and threads that consume. Blocks are made on
/// first use and go round, so the memory is bounded by count * bytes and a short stream uses little of it.
/// They lie side by side in one area for which the kernel is asked for huge pages: the processor then finds
/// its way through a stream with a fraction of the address translations.
///
/// Threads:   producers (take_free, put, finish) and consumers (take_full, give_back), any number of each;
///            stop() and fail() from any. Who hands over blocks by number takes the free block before it
///            learns the number: otherwise all blocks may be filled while the next number waits for one.
/// Ownership: owns every block; a block in the hands of a thread must not be used after the pipe is gone.
/// Units:     bytes.
/// Errors:    a null block: stopped, failed or (take_full) at the end; failure() tells which.
class Block_Pipe
{
public:
  Block_Pipe(unsigned block_count, unsigned block_bytes);
  ~Block_Pipe();
  Block_Pipe(const Block_Pipe&) = delete;
  Block_Pipe& operator=(const Block_Pipe&) = delete;

  /// An empty block to fill; waits while all are in use. Null when stopped or failed, or without memory (then
  /// failed).
  Block* take_free();
  /// Hands a filled block over, behind those already put.
  void put(Block* block);
  /// Hands a filled block over as the one of this number; consumers get them in the order of their numbers.
  /// Not to be mixed with the other put().
  void put(Block* block, uint64_t number);
  /// No more blocks will come; the consumer still gets those already put.
  void finish();

  /// The next filled block; waits for one. Null at the end (ended() is then true), when stopped or failed.
  Block* take_full();
  /// Returns an emptied block.
  void give_back(Block* block);

  /// Wakes both sides; from now on both get null. Blocks still queued are dropped.
  void stop();
  /// As stop(), with a reason. The first reason stays.
  void fail(const std::string& reason);

  /// True when finish() was called and every block was taken.
  bool ended() const;
  /// The reason given to fail(); "" when nothing failed.
  std::string failure() const;

private:
  Block* make_block();
  bool make_area();
  bool next_is_here() const { return !full_.empty() && full_.front()->number == next_taken_; }

  const unsigned block_count_;
  const unsigned block_bytes_;
  // Of all blocks, reserved with the first one; the kernel gives the memory as they are used.
  std::unique_ptr<char, void (*)(void*)> area_;
  mutable std::mutex lock_;
  std::condition_variable freed_;
  std::condition_variable filled_;
  std::vector<std::unique_ptr<Block>> blocks_;
  std::vector<Block*> free_;
  // By number.
  std::deque<Block*> full_;
  uint64_t next_put_ = 0;
  uint64_t next_taken_ = 0;
  bool finished_ = false;
  bool stopped_ = false;
  std::string failure_;
};
} // namespace kestrel
