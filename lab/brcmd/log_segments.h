/// The server's write-ahead log as a sequence of bytes: its segment files, in the server's own directory and
/// in the archive. A position in the log (LSN) is the number of bytes before it. Threads: one owner per
/// object. Errors: Failure.
#pragma once

#include "lab/brcmd/image.h"
#include "lab/brcmd/run_log.h"
#include "lab/common/instance_files.h"

#include <cstdint>
#include <string>

namespace oscar_lab
{

constexpr std::uint64_t log_page_bytes = 8192;

struct Log_Shape {
  unsigned timeline = 1;
  std::uint64_t segment_bytes = 16 * 1024 * 1024;
};

/// First and last position of a piece of log; end_lsn is not part of it.
struct Log_Range {
  std::uint64_t first_lsn = 0;
  std::uint64_t end_lsn = 0;
};

std::string segment_name(const Log_Shape& shape, std::uint64_t segment);
/// The number of a segment file; throws unless it is one of this timeline and size.
std::uint64_t segment_of_name(const Log_Shape& shape, const std::string& name);

/// Every page of the log says where it belongs. Throws when a page that begins in the piece belongs
/// elsewhere: a segment file that was used again, or has a gap. The blank rest of a segment is none.
void check_log_pages(const Log_Shape& shape, std::uint64_t lsn, const std::string& piece);

/// Reads log that a running server may move from its own directory to the archive meanwhile.
class Log_Reader
{
public:
  Log_Reader(const Instance_Files& files, const Log_Shape& shape) : files_(files), shape_(shape) {}
  /// Throws unless every segment of the range is there.
  void require(const Log_Range& range) const;
  /// Whether the server has written these bytes.
  bool has(std::uint64_t lsn, std::size_t size) const;
  /// The bytes from lsn on; they must not go beyond the segment. Checks the pages.
  std::string read(std::uint64_t lsn, std::size_t size) const;

private:
  bool read_from_archive(const std::string& name, std::uint64_t offset, std::string& piece) const;
  bool read_from_server(const std::string& name, std::uint64_t offset, std::string& piece) const;

  const Instance_Files& files_;
  Log_Shape shape_;
};

/// W frames with the bytes of the range. What is left of a segment after a switch to the next one is not sent
/// where it is zeros.
void write_log_bytes(Image_Writer& image, const Log_Reader& reader, const Log_Shape& shape,
                     const Log_Range& range);

/// Removes the archived segments before the one with this position.
void trim_archive(const Instance_Files& files, const Log_Shape& shape, std::uint64_t lsn, Run_Log& log);

} // namespace oscar_lab
