#pragma once

#include "archive/archive_format.h"
#include "base/checksum.h"

#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>

struct archive;

namespace kestrel
{
/// Writes one archive as a stream: begin(), then for each file of the record, in its order, begin_file(),
/// data() and end_file(), then finish().
/// Threads: one.
/// Errors:  false; error() tells why, or is "" when the output refused the bytes, which then keeps the reason
///          itself. Nothing works afterwards.
class Archive_Writer
{
public:
  /// Takes all bytes or returns false.
  typedef std::function<bool(const char* data, unsigned n)> Output;
  explicit Archive_Writer(Output output);
  ~Archive_Writer();
  Archive_Writer(const Archive_Writer&) = delete;
  Archive_Writer& operator=(const Archive_Writer&) = delete;

  [[nodiscard]] bool begin(const Archive_Record& record);
  /// The next file of the record.
  [[nodiscard]] bool begin_file(unsigned mode, time_t modified);
  [[nodiscard]] bool data(const char* data, unsigned n);
  /// Fails unless the file got exactly its size.
  [[nodiscard]] bool end_file();
  [[nodiscard]] bool finish();

  const Archive_Index& index() const { return index_; }
  /// Bytes of the archive so far, and their checksum.
  uint64_t size() const { return size_; }
  std::string checksum() const { return sum_.hex(); }
  const std::string& error() const { return error_; }

private:
  struct Closer {
    void operator()(struct archive* archive) const;
  };
  bool put(const void* data, size_t n);
  static ssize_t put_callback(struct archive*, void* writer, const void* data, size_t n);
  bool open();
  bool put_header(const std::string& name, uint64_t size, unsigned mode, time_t modified);
  bool put_text(const char* name, const std::string& text, uint64_t& offset);
  bool put_data(const char* data, size_t n);
  bool fail(const std::string& reason);
  bool check(int result, const char* what);

  const Output output_;
  Archive_Record record_;
  Archive_Index index_;
  std::unique_ptr<struct archive, Closer> archive_;
  uint64_t size_ = 0;
  Xxh3_128 sum_;
  Xxh3_128 file_sum_;
  uint64_t file_left_ = 0;
  bool output_failed_ = false;
  bool failed_ = false;
  std::string error_;
};
} // namespace kestrel
