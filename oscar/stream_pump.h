#pragma once

#include "base/checksum.h"
#include "oscar/stream_info.h"
#include "oscar/stream_progress.h"

#include <array>
#include <cstdint>
#include <functional>
#include <string>

namespace oscar
{
/// What a pump needs from the job that it works for. All calls come from the pump's thread.
class Stream_Pump_Host
{
public:
  virtual ~Stream_Pump_Host() = default;
  /// Asked once a block: keep it cheap.
  virtual bool canceled() const = 0;
  /// Bytes went through; called once a block.
  virtual void bytes_moved() = 0;
  virtual void progress(int percent, uint64_t total, uint64_t done) = 0;
  virtual void alert(int code) = 0;
  /// For the log line of a canceled job.
  virtual std::string definition_id() const = 0;
};

/// The stored file that a backup writes.
class Stream_Sink
{
public:
  virtual ~Stream_Sink() = default;
  [[nodiscard]] virtual bool write(const void* data, unsigned bytes) = 0;
  /// Closes and removes the file of a canceled backup.
  [[nodiscard]] virtual bool discard() = 0;
  virtual const char* error() const = 0;
};

/// The stored file that a restore reads.
class Stream_Source
{
public:
  virtual ~Stream_Source() = default;
  /// The count read, 0 at the end, which is told only once the whole file has proved undamaged, negative on
  /// error.
  [[nodiscard]] virtual int read(void* data, unsigned bytes) = 0;
  /// Closes the file and opens it again from its first byte.
  [[nodiscard]] virtual bool reopen() = 0;
  /// XXH3-128 of everything that read() gave since the file was opened, as 32 lower-case hex digits; once the
  /// end was told.
  virtual std::string checksum() const = 0;
  virtual const char* error() const = 0;
  virtual const std::string& name() const = 0;
};

/// What went through a pump: the count of bytes, those of the info block among them, and their XXH3-128 as 32
/// lower-case hex digits.
struct Pumped_Stream {
  uint64_t bytes = 0;
  uint32_t info_bytes = 0;
  std::string checksum;

  /// A restore takes no longer info block than its buffer holds.
  bool can_be_restored() const { return info_bytes <= STREAM_BLOCK_BYTES; }

  /// Whether storage holds exactly these bytes, by its own count and checksum. A missing checksum proves
  /// nothing.
  bool is_stored_as(uint64_t stored_bytes, const std::string& stored_checksum) const
  {
    return bytes == stored_bytes && !checksum.empty() && checksum == stored_checksum;
  }
};

/// Moves the stream of a backup from the FIFO into the stored file, byte for byte, until the tool closes its
/// end.
/// Not for: deciding whether the backup succeeded. The end of the stream says nothing about the tool's exit
///          status, nor about bytes that the storage still holds in memory.
/// Threads: one; use an object once.
/// Errors:  false = failed, alert raised and logged; a canceled backup has removed its stored file.
class Stream_Backup_Pump
{
public:
  /// Tells from the info text how large the backup will be; 0 when that cannot be told.
  typedef std::function<uint64_t(const char* data, unsigned len)> Set_Size;

  Stream_Backup_Pump(Stream_Pump_Host& host, Stream_Sink& sink, Set_Size set_size)
      : host_(host), sink_(sink), set_size_(std::move(set_size))
  {
  }

  /// fd: the reading end, not owned; fifo_path names it in messages. Blocks until the stream has ended.
  [[nodiscard]] bool pump(int fd, const std::string& fifo_path, Pumped_Stream& pumped);

private:
  bool copy_head(int fd, uint32_t& info_length);
  bool copy_info(int fd, uint32_t info_length);
  bool copy_image(int fd, const std::string& fifo_path);
  bool store(const void* data, unsigned bytes);
  void cancel();

  Stream_Pump_Host& host_;
  Stream_Sink& sink_;
  const Set_Size set_size_;
  Stream_Progress progress_{0};
  kestrel::Xxh3_128 checksum_;
  std::array<char, STREAM_BLOCK_BYTES> block_;
};

/// Feeds one stored file to the tool through the FIFO: the info block alone, and after a pause the whole file
/// from its first byte. The tool reads the block to prepare the restore and then reads the backup as it was
/// written. The last block is held back until the source has told a verified end and the stream is what the
/// catalog says of it, so that a damaged or exchanged file can still be kept from the tool.
/// Threads: one; use an object once.
/// Errors:  false = failed, alert raised and logged. The caller stops the tool before it closes the FIFO:
///          otherwise the tool would take the short stream for a complete one.
class Stream_Restore_Pump
{
public:
  /// What the catalog says of the stream; 0 or empty where it says nothing.
  struct Expected {
    uint64_t bytes = 0;
    std::string checksum;
  };

  /// progress counts over all sets of a restore.
  Stream_Restore_Pump(Stream_Pump_Host& host, Stream_Source& source, Stream_Progress& progress)
      : host_(host), source_(source), progress_(progress)
  {
  }

  /// fd: the writing end, not owned.
  [[nodiscard]] bool pump(int fd, const Expected& expected);

private:
  bool feed_info(int fd);
  bool rewind();
  bool feed_file(int fd, const Expected& expected);
  bool feed_block(int fd, const char* data, unsigned bytes);
  bool verify(const Expected& expected);

  Stream_Pump_Host& host_;
  Stream_Source& source_;
  Stream_Progress& progress_;
  uint64_t bytes_ = 0;
  std::array<char, STREAM_BLOCK_BYTES> block_;
  std::array<char, STREAM_BLOCK_BYTES> held_back_;
};
} // namespace oscar
