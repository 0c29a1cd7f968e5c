#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kestrel
{
/// A page-aligned buffer that travels through a Block_Pipe.
struct Block {
  char* data;
  unsigned capacity;
  unsigned size;
};

/// A bounded queue of large blocks between one producing and one consuming thread. Blocks are made on first
/// use and go round, so the memory is bounded by count * bytes and a short stream uses little of it.
///
/// Threads:   one producer (take_free, put, finish), one consumer (take_full, give_back); stop() and fail()
///            from any.
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
  /// Hands a filled block to the consumer.
  void put(Block* block);
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

  const unsigned block_count_;
  const unsigned block_bytes_;
  mutable std::mutex lock_;
  std::condition_variable freed_;
  std::condition_variable filled_;
  std::vector<std::unique_ptr<Block>> blocks_;
  std::vector<Block*> free_;
  std::deque<Block*> full_;
  bool finished_ = false;
  bool stopped_ = false;
  std::string failure_;
};
} // namespace kestrel
