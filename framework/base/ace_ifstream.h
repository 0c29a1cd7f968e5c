#pragma once

#include "base/descriptor.h"

#include <string>
#include <vector>

/// Reads a file line by line.
/// Limits:    lines end at '\n' only; a '\r' before it stays. Not for:   seeking, writing.
/// Threads:   one at a time.
/// Ownership: owns the descriptor and its buffer.
class ACE_ifstream
{
public:
  /// bufsize: bytes read at once (at least 1 is used).
  explicit ACE_ifstream(size_t bufsize);

  /// As open(2), close-on-exec added. 0, or -1 with errno and last_error().
  int open(const char* path, int flags);

  /// The next line without its end. True also for a last line that has no end of its own; eof() is true then,
  /// as it is with std::getline. False at end of file, after an error and before open; `line` is empty then.
  bool getline(std::string& line);

  /// True once the end of the file was met: when getline returned an unterminated last line or found nothing
  /// more.
  bool eof() const { return eof_; }

  /// errno of the last failure of open or read, 0 when there was none (plain end of file is none).
  int last_error() const { return last_error_; }

  void close() { file_.reset(); }

private:
  bool fill();

  kestrel::Auto_Fd file_;
  std::vector<char> buffer_;
  size_t begin_ = 0;
  size_t end_ = 0;
  bool eof_ = false;
  int last_error_ = 0;
};
