#include "storage/stream_writer.h"

#include "base/clock.h"
#include "storage/side_file.h"
#include "storage/stream_settings.h"

#include <algorithm>
#include <cstring>
#include <system_error>

namespace kestrel
{
Stream_Writer::Stream_Writer(std::unique_ptr<Stored_File_Writer> file, const Client_IO_Base::Options& options)
    : method_(options.compression_method), file_(std::move(file)),
      limiter_(options.rate_limits.write_limit()),
      pipe_(write_settings(options).block_count, write_settings(options).block_bytes)
{
}

Stream_Writer::~Stream_Writer()
{
  stop();
}

void Stream_Writer::stop()
{
  stopped_ = true;
  pipe_.stop();
  if (team_)
    team_->frames().stop();
  if (file_)
    file_->interrupt();
  if (worker_.joinable())
    worker_.join();
}

bool Stream_Writer::start(const Client_IO_Base::Options& options)
{
  if (const unsigned workers = frame_workers(options)) {
    team_ = std::make_unique<Frame_Team>(pipe_, workers, write_settings(options).block_bytes);
    if (!team_->start(method_, options.compression_level, error_))
      return false;
  } else if (method_ != COMPRESSION_NONE) {
    compressor_ = make_compressor(method_, options.compression_level, compression_workers(options), error_);
    if (!compressor_)
      return false;
  }
  try {
    worker_ = std::thread([this] { run(); });
  } catch (const std::system_error& failure) {
    error_ = std::string("cannot start the thread that stores the file: ") + failure.what();
    return false;
  }
  return true;
}

bool Stream_Writer::fail()
{
  if (error_.empty())
    error_ = pipe_.failure();
  if (error_.empty())
    error_ = "the stored file is no longer open";
  return false;
}

bool Stream_Writer::write(const void* data, unsigned n)
{
  if (!error_.empty())
    return false;
  const char* next = static_cast<const char*>(data);
  unsigned left = n;
  while (left > 0) {
    if (block_ == nullptr && (block_ = pipe_.take_free()) == nullptr)
      return fail();
    const unsigned piece = std::min(left, block_->capacity - block_->size);
    std::memcpy(block_->data + block_->size, next, piece);
    block_->size += piece;
    next += piece;
    left -= piece;
    if (block_->size == block_->capacity) {
      pipe_.put(block_);
      block_ = nullptr;
    }
  }
  original_sum_.update(data, n);
  original_size_ += n;
  return true;
}

bool Stream_Writer::close()
{
  if (!error_.empty() || !begin_empty_frame())
    return false;
  if (block_ != nullptr)
    pipe_.put(block_);
  block_ = nullptr;
  pipe_.finish();
  worker_.join();
  if (!pipe_.failure().empty())
    return fail();

  Side_File side;
  side.method = method_;
  side.original_size = original_size_;
  side.original_checksum = original_sum_.hex();
  side.storage_size = storage_size_;
  side.storage_checksum = method_ == COMPRESSION_NONE ? side.original_checksum : storage_sum_.hex();
  side.time = clock().now();
  if (!file_->commit(side_file_text(side), error_))
    return false;
  original_checksum_ = side.original_checksum;
  storage_checksum_ = side.storage_checksum;
  return true;
}

void Stream_Writer::discard()
{
  stop();
  if (file_)
    file_->discard();
  fail();
}

// A team makes frames of blocks, and an empty stream is to be a frame too.
bool Stream_Writer::begin_empty_frame()
{
  if (!team_ || original_size_ > 0)
    return true;
  block_ = pipe_.take_free();
  return block_ != nullptr || fail();
}

void Stream_Writer::run()
{
  if (team_ ? store_frames() : store_blocks())
    return;
  // The compressor's reason and the file's reason exclude each other.
  if (worker_error_.empty() && compressor_)
    worker_error_ = compressor_->error();
  if (!stopped_)
    pipe_.fail(worker_error_);
  if (team_)
    team_->frames().stop();
}

bool Stream_Writer::store_blocks()
{
  while (Block* block = pipe_.take_full()) {
    const bool stored =
        compressor_ ? compressor_->add(block->data, block->size, *this) : put(block->data, block->size);
    if (!stored)
      return false;
    pipe_.give_back(block);
  }
  return !pipe_.ended() || !compressor_ || compressor_->finish(*this);
}

bool Stream_Writer::store_frames()
{
  Block_Pipe& frames = team_->frames();
  while (Block* frame = frames.take_full()) {
    if (!put(frame->data, frame->size))
      return false;
    frames.give_back(frame);
  }
  // Either all are stored, or the team has stopped and the blocks' pipe tells why.
  return true;
}

bool Stream_Writer::put(const char* data, unsigned n)
{
  // What is stored uncompressed has the checksum that the owner thread computes.
  if (method_ != COMPRESSION_NONE)
    storage_sum_.update(data, n);
  while (n > 0) {
    const unsigned piece = limiter_.piece(n);
    if (!limiter_.wait_for(piece, stopped_) || !file_->write(data, piece, worker_error_))
      return false;
    storage_size_ += piece;
    data += piece;
    n -= piece;
  }
  return true;
}
} // namespace kestrel
