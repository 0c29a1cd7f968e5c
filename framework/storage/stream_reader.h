#pragma once

#include "base/checksum.h"
#include "storage/back_end.h"
#include "storage/block_pipe.h"
#include "storage/codec.h"
#include "storage/rate_limiter.h"
#include "storage/side_file.h"

#include <atomic>
#include <memory>
#include <string>
#include <thread>

namespace kestrel
{
/// Gives back the stream of a stored file: a worker thread reads ahead, verifies the stored bytes and
/// decompresses them; the caller's thread verifies the stream as it takes it. What is in memory already and
/// needs nothing but a checksum the caller's thread reads itself: handing it from one processor to another
/// would take longer than reading it. Threads:   one owner thread; owns one worker at most. Ownership: owns
/// the file. The destructor stops the worker at once. Errors:    false or a negative count; error() then
/// tells the first thing that failed. Nothing works
///            afterwards.
class Stream_Reader : private Byte_Source
{
public:
  Stream_Reader(std::unique_ptr<Stored_File_Reader> file, uint64_t bytes_per_second);
  ~Stream_Reader() override;

  /// Refuses a file without a valid side file, or with another size than the side file tells.
  [[nodiscard]] bool start();
  /// n, or less at the end of the verified stream, or negative.
  [[nodiscard]] int read(void* data, unsigned n);

  const std::string& error() const { return error_; }
  uint64_t original_size() const { return original_size_; }
  uint64_t storage_size() const { return side_.storage_size; }
  /// Both are complete when read() has reached the end; "" before.
  const std::string& original_checksum() const { return original_checksum_; }
  const std::string& storage_checksum() const { return storage_checksum_; }

private:
  int get(const char*& data) override;
  bool start_worker();
  int read_at_once(void* data, unsigned n);
  void run();
  bool fill(Block& block);
  bool verify_stored();
  bool verify_stream();
  unsigned left_of(unsigned most) const;
  int fail(const std::string& reason);
  std::string damaged(const std::string& reason) const;
  void stop();

  std::unique_ptr<Stored_File_Reader> file_;
  Side_File side_;
  std::unique_ptr<Decompressor> decompressor_;
  const uint64_t bytes_per_second_;
  Rate_Limiter limiter_;
  std::unique_ptr<Block_Pipe> pipe_;
  std::thread worker_;
  std::atomic<bool> stopped_{false};
  // Used by the worker, if there is one, until it has ended.
  std::unique_ptr<char[]> stored_;
  uint64_t stored_size_ = 0;
  Xxh3_128 storage_sum_;
  std::string worker_error_;
  // Used by the owner thread.
  Block* block_ = nullptr;
  unsigned block_taken_ = 0;
  bool ended_ = false;
  Xxh3_128 original_sum_;
  uint64_t original_size_ = 0;
  std::string original_checksum_;
  std::string storage_checksum_;
  std::string error_;
};
} // namespace kestrel
