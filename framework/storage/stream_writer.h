#pragma once

#include "base/checksum.h"
#include "storage/back_end.h"
#include "storage/block_pipe.h"
#include "storage/codec.h"
#include "storage/frame_team.h"
#include "storage/rate_limiter.h"

#include <atomic>
#include <memory>
#include <string>
#include <thread>

namespace kestrel
{
/// Takes a stream in pieces of any size and stores it: the caller's thread computes the stream's checksum and
/// fills large blocks, a worker thread compresses them or lets a team compress them, computes the checksum of
/// the stored bytes, keeps the rate limit and writes. Threads:   one owner thread; owns one worker, and a
/// team where Stream_Settings say so. Ownership: owns the file. The destructor stops the worker at once and
/// leaves the file unfinished. Errors:    false; error() then tells the first thing that failed. Nothing
/// works afterwards.
class Stream_Writer : private Byte_Sink
{
public:
  Stream_Writer(std::unique_ptr<Stored_File_Writer> file, const Client_IO_Base::Options& options);
  ~Stream_Writer() override;

  [[nodiscard]] bool start(const Client_IO_Base::Options& options);
  [[nodiscard]] bool write(const void* data, unsigned n);
  /// Stores what is still on its way, then commits the file with its side file.
  [[nodiscard]] bool close();

  /// Stops, and removes what was stored. Nothing works afterwards.
  void discard();

  const std::string& error() const { return error_; }
  uint64_t original_size() const { return original_size_; }
  uint64_t storage_size() const { return storage_size_; }
  /// Both are complete after close().
  const std::string& original_checksum() const { return original_checksum_; }
  const std::string& storage_checksum() const { return storage_checksum_; }

private:
  bool put(const char* data, unsigned n) override;
  void run();
  bool store_blocks();
  bool store_frames();
  bool begin_empty_frame();
  bool fail();
  void stop();

  const Compression_Method method_;
  std::unique_ptr<Stored_File_Writer> file_;
  std::unique_ptr<Compressor> compressor_;
  Rate_Limiter limiter_;
  Block_Pipe pipe_;
  std::unique_ptr<Frame_Team> team_;
  std::thread worker_;
  std::atomic<bool> stopped_{false};
  std::atomic<uint64_t> storage_size_{0};
  // Used by the worker until it has ended.
  Xxh3_128 storage_sum_;
  std::string worker_error_;
  // Used by the owner thread.
  Block* block_ = nullptr;
  Xxh3_128 original_sum_;
  uint64_t original_size_ = 0;
  std::string original_checksum_;
  std::string storage_checksum_;
  std::string error_;
};
} // namespace kestrel
