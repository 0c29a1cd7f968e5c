#pragma once

#include "storage/back_end.h"
#include "storage/rate_limiter.h"
#include "storage/side_file.h"

#include <atomic>
#include <memory>
#include <string>

namespace kestrel
{
/// Gives bytes from any place of an uncompressed stored file. Verifies the file's size and nothing else: the
/// checksums cover whole files only, so what is read must carry checksums of its own.
/// Threads:   one.
/// Ownership: owns the file.
/// Errors:    false or a negative count with error() filled.
class Random_Reader
{
public:
  Random_Reader(std::unique_ptr<Stored_File_Reader> file, uint64_t bytes_per_second);

  /// Refuses what Stream_Reader refuses. True with `possible` false: the file is compressed, or its storage
  /// reads from the beginning only.
  [[nodiscard]] bool start(bool& possible);
  /// n unless the file ends.
  [[nodiscard]] int read_at(uint64_t offset, void* data, unsigned n);

  uint64_t size() const { return side_.original_size; }
  /// Bytes given out so far.
  uint64_t bytes_read() const { return bytes_read_; }
  const std::string& error() const { return error_; }

private:
  std::unique_ptr<Stored_File_Reader> file_;
  Side_File side_;
  Rate_Limiter limiter_;
  std::atomic<bool> stopped_{false};
  uint64_t bytes_read_ = 0;
  std::string error_;
};

/// Reads and checks the side file of an open stored file, and that the file has the size it tells.
[[nodiscard]] bool load_side_file(const Stored_File_Reader& file, Side_File& side, std::string& error);

/// The sentence for a stored file that is not what was stored.
std::string damaged_file(const std::string& path, const std::string& reason);
} // namespace kestrel
