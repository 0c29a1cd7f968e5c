#include "storage/stream_reader.h"

#include "storage/random_reader.h"
#include "storage/stream_settings.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <system_error>

namespace kestrel
{
namespace
{
const unsigned STORED_BYTES = 256 * 1024;
} // namespace

Stream_Reader::Stream_Reader(std::unique_ptr<Stored_File_Reader> file, uint64_t bytes_per_second)
    : file_(std::move(file)), bytes_per_second_(bytes_per_second), limiter_(bytes_per_second)
{
}

Stream_Reader::~Stream_Reader()
{
  stop();
}

void Stream_Reader::stop()
{
  stopped_ = true;
  if (pipe_)
    pipe_->stop();
  if (file_)
    file_->interrupt();
  if (worker_.joinable())
    worker_.join();
}

std::string Stream_Reader::damaged(const std::string& reason) const
{
  return damaged_file(file_->path(), reason);
}

bool Stream_Reader::start()
{
  if (!load_side_file(*file_, side_, error_))
    return false;
  if (side_.method != COMPRESSION_NONE) {
    stored_.reset(new (std::nothrow) char[STORED_BYTES]);
    if (!stored_)
      error_ = "not enough memory to read a stored file";
    decompressor_ = make_decompressor(side_.method, error_);
    if (!stored_ || !decompressor_)
      return false;
  }
  const bool at_once = !decompressor_ && limiter_.unlimited() && file_->in_memory();
  return at_once || start_worker();
}

bool Stream_Reader::start_worker()
{
  const Stream_Settings settings = read_settings(side_.method, bytes_per_second_);
  pipe_ = std::make_unique<Block_Pipe>(settings.block_count, settings.block_bytes);
  try {
    worker_ = std::thread([this] { run(); });
  } catch (const std::system_error& failure) {
    error_ = std::string("cannot start the thread that reads the file: ") + failure.what();
    return false;
  }
  return true;
}

int Stream_Reader::fail(const std::string& reason)
{
  if (error_.empty())
    error_ = reason;
  return -1;
}

int Stream_Reader::read(void* data, unsigned n)
{
  if (!error_.empty())
    return -1;
  if (!pipe_)
    return read_at_once(data, n);
  unsigned done = 0;
  while (done < n && !ended_) {
    if (block_ == nullptr) {
      block_ = pipe_->take_full();
      block_taken_ = 0;
      if (block_ == nullptr && !pipe_->ended())
        return fail(pipe_->failure());
      if (block_ == nullptr && !verify_stream())
        return -1;
      ended_ = block_ == nullptr;
      continue;
    }
    const unsigned piece = std::min(n - done, block_->size - block_taken_);
    std::memcpy(static_cast<char*>(data) + done, block_->data + block_taken_, piece);
    // The uncompressed stream is what the worker has already summed up.
    if (decompressor_)
      original_sum_.update(block_->data + block_taken_, piece);
    original_size_ += piece;
    block_taken_ += piece;
    done += piece;
    if (block_taken_ == block_->size) {
      pipe_->give_back(block_);
      block_ = nullptr;
    }
  }
  return static_cast<int>(done);
}

int Stream_Reader::read_at_once(void* data, unsigned n)
{
  unsigned done = 0;
  while (done < n && !ended_) {
    char* const next = static_cast<char*>(data) + done;
    // Small enough to be summed up while it is still in the processor's cache.
    const unsigned piece = std::min(n - done, STORED_BYTES);
    const int got = file_->read(next, piece, worker_error_);
    if (got < 0)
      return fail(worker_error_);
    storage_sum_.update(next, static_cast<unsigned>(got));
    stored_size_ += static_cast<unsigned>(got);
    done += static_cast<unsigned>(got);
    ended_ = static_cast<unsigned>(got) < piece;
  }
  original_size_ = stored_size_;
  if (!ended_ || !original_checksum_.empty())
    return static_cast<int>(done);
  if (!verify_stored())
    return fail(worker_error_);
  return verify_stream() ? static_cast<int>(done) : -1;
}

bool Stream_Reader::verify_stream()
{
  const std::string checksum = decompressor_ ? original_sum_.hex() : side_.storage_checksum;
  if (original_size_ != side_.original_size || checksum != side_.original_checksum) {
    fail(damaged("what it contains is not what was stored"));
    return false;
  }
  original_checksum_ = side_.original_checksum;
  storage_checksum_ = side_.storage_checksum;
  return true;
}

unsigned Stream_Reader::left_of(unsigned most) const
{
  return static_cast<unsigned>(
      std::min<uint64_t>(most, side_.storage_size - std::min(stored_size_, side_.storage_size)));
}

void Stream_Reader::run()
{
  while (Block* block = pipe_->take_free()) {
    if (!fill(*block)) {
      if (worker_error_.empty() && decompressor_)
        worker_error_ = damaged(decompressor_->error());
      if (!stopped_)
        pipe_->fail(worker_error_);
      return;
    }
    const bool ended = block->size < block->capacity;
    if (block->size > 0)
      pipe_->put(block);
    if (ended && !verify_stored()) {
      pipe_->fail(worker_error_);
      return;
    }
    if (ended) {
      pipe_->finish();
      return;
    }
  }
}

bool Stream_Reader::fill(Block& block)
{
  if (decompressor_)
    return decompressor_->fill(*this, block.data, block.capacity, block.size);
  if (!limiter_.wait_for(left_of(block.capacity), stopped_))
    return false;
  const int got = file_->read(block.data, block.capacity, worker_error_);
  if (got < 0)
    return false;
  block.size = static_cast<unsigned>(got);
  storage_sum_.update(block.data, block.size);
  stored_size_ += block.size;
  return true;
}

int Stream_Reader::get(const char*& data)
{
  const unsigned piece = std::max(limiter_.piece(STORED_BYTES), COMPRESSION_MAGIC_BYTES);
  if (!limiter_.wait_for(left_of(piece), stopped_))
    return -1;
  const int got = file_->read(stored_.get(), piece, worker_error_);
  if (got <= 0)
    return got;
  if (stored_size_ == 0 && detect_compression(stored_.get(), static_cast<unsigned>(got)) != side_.method) {
    worker_error_ =
        damaged(std::string("it does not begin like ") + compression_value_to_name(side_.method) + " data");
    return -1;
  }
  storage_sum_.update(stored_.get(), static_cast<unsigned>(got));
  stored_size_ += static_cast<unsigned>(got);
  data = stored_.get();
  return got;
}

bool Stream_Reader::verify_stored()
{
  if (stored_size_ != side_.storage_size)
    worker_error_ = damaged("it ended after " + std::to_string(stored_size_) + " of " +
                            std::to_string(side_.storage_size) + " bytes");
  else if (storage_sum_.hex() != side_.storage_checksum)
    worker_error_ = damaged("the checksum of its content is wrong");
  return worker_error_.empty();
}
} // namespace kestrel
