#include "storage/random_reader.h"

#include <algorithm>

namespace kestrel
{
std::string damaged_file(const std::string& path, const std::string& reason)
{
  return path + " is damaged: " + reason + "; this copy cannot be used, take another backup";
}

bool load_side_file(const Stored_File_Reader& file, Side_File& side, std::string& error)
{
  if (file.side_file().empty()) {
    error = "cannot verify " + file.path() +
            ": its side file is missing; bring it back from wherever the pool was copied from";
    return false;
  }
  std::string reason;
  if (!parse_side_file(file.side_file(), side, reason)) {
    error = "cannot verify " + file.path() + ": its side file cannot be used: " + reason;
    return false;
  }
  if (file.size() != side.storage_size) {
    error = damaged_file(file.path(), "it has " + std::to_string(file.size()) + " bytes instead of " +
                                          std::to_string(side.storage_size));
    return false;
  }
  return true;
}

Random_Reader::Random_Reader(std::unique_ptr<Stored_File_Reader> file, uint64_t bytes_per_second)
    : file_(std::move(file)), limiter_(bytes_per_second)
{
}

bool Random_Reader::start(bool& possible)
{
  if (!load_side_file(*file_, side_, error_))
    return false;
  possible = side_.method == COMPRESSION_NONE && file_->can_read_at();
  return true;
}

int Random_Reader::read_at(uint64_t offset, void* data, unsigned n)
{
  unsigned done = 0;
  while (done < n) {
    const unsigned piece = limiter_.piece(n - done);
    if (!limiter_.wait_for(piece, stopped_)) {
      error_ = "reading was stopped";
      return -1;
    }
    const int count = file_->read_at(offset + done, static_cast<char*>(data) + done, piece, error_);
    if (count < 0)
      return -1;
    done += static_cast<unsigned>(count);
    bytes_read_ += static_cast<unsigned>(count);
    if (static_cast<unsigned>(count) < piece)
      break;
  }
  return static_cast<int>(done);
}
} // namespace kestrel
