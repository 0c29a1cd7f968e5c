#pragma once

#include "archive/archive_format.h"
#include "base/checksum.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

struct archive;

namespace kestrel
{
/// Reads an archive as a stream, trusting nothing: the entries must be the record, the record's files in its
/// order and of its sizes, all of them plain files, the index and the tail, and then the input must end.
/// Every file that was read to its end must have the index's checksum; since the index comes last, what was
/// read may be used only after next() has answered `end`.
/// Threads: one.
/// Errors:  error() tells why, or is "" when the input failed, which then keeps the reason itself. Nothing
///          works afterwards.
class Archive_Reader
{
public:
  /// Puts up to n bytes at `data`: their count, 0 at the end, negative on an error.
  typedef std::function<int(char* data, unsigned n)> Input;
  explicit Archive_Reader(Input input);
  ~Archive_Reader();
  Archive_Reader(const Archive_Reader&) = delete;
  Archive_Reader& operator=(const Archive_Reader&) = delete;

  /// Reads the record.
  [[nodiscard]] bool open();
  const Archive_Record& record() const { return record_; }

  enum class Step { file, end, failed };
  /// Goes to the next file of the record, skipping what was not read of the last one.
  [[nodiscard]] Step next();
  /// The file that next() went to.
  const Archive_Record::File& file() const { return record_.files[position_ - 1]; }
  unsigned mode() const { return mode_; }
  /// The file's next bytes, valid until the next call: their count, 0 at its end, negative on an error.
  [[nodiscard]] int read(const char*& data);

  /// After `end`.
  const Archive_Index& index() const { return index_; }
  /// Bytes of the archive taken from the input so far.
  uint64_t bytes_taken() const { return taken_; }
  const std::string& error() const { return error_; }

private:
  struct Closer {
    void operator()(struct archive* archive) const;
  };
  static ssize_t take_callback(struct archive*, void* reader, const void** data);
  bool fail(const std::string& reason);
  bool fail_library();
  bool next_entry(std::string& name, uint64_t& size, bool& ended);
  bool read_text(const char* name, std::string& text);
  int read_some(const char*& data);
  Step finish();
  bool check_index();
  bool drain();

  const Input input_;
  std::unique_ptr<struct archive, Closer> archive_;
  std::unique_ptr<char[]> buffer_;
  Archive_Record record_;
  Archive_Index index_;
  std::string record_checksum_;
  uint64_t record_size_ = 0;
  size_t position_ = 0; // files begun
  unsigned mode_ = 0;
  uint64_t entry_offset_ = 0;
  uint64_t entry_size_ = 0;
  uint64_t entry_done_ = 0;
  Xxh3_128 sum_;
  std::vector<uint64_t> offsets_;
  std::vector<std::string> sums_; // of the files that were read to the end
  uint64_t taken_ = 0;
  bool input_failed_ = false;
  bool input_ended_ = false;
  bool failed_ = false;
  std::string error_;
};

/// The way around the stream: finds record and index of an archive whose bytes can be read at any place.
/// `read_at` fills n bytes at `data` from `offset`: n, less at the end, or negative, keeping the reason
/// itself; `error` is "" then. Both texts have been compared with their checksums, and every file of the
/// index lies inside the archive.
[[nodiscard]] bool
read_archive_index(uint64_t archive_size,
                   const std::function<int(uint64_t offset, char* data, unsigned n)>& read_at,
                   Archive_Record& record, Archive_Index& index, std::string& error);
} // namespace kestrel
