#include "lab/brcmd/log_segments.h"

#include "lab/common/text.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace oscar_lab
{

namespace
{

constexpr std::size_t segment_name_bytes = 24;
// Where a page's header keeps its timeline and its own position.
constexpr std::size_t page_timeline_offset = 4;
constexpr std::size_t page_position_offset = 8;
constexpr std::size_t page_header_bytes = 16;

bool is_segment_name(const std::string& name)
{
  return name.size() == segment_name_bytes && name.find_first_not_of("0123456789ABCDEF") == std::string::npos;
}

bool is_zero(const std::string& piece, std::size_t begin, std::size_t size)
{
  const std::size_t end = std::min(piece.size(), begin + size);
  return piece.find_first_not_of('\0', begin) >= end;
}

bool read_at(int fd, std::uint64_t offset, std::string& piece)
{
  std::size_t done = 0;
  while (done < piece.size()) {
    const ssize_t count = ::pread(fd, &piece[done], piece.size() - done, static_cast<off_t>(offset + done));
    if (count < 0 && errno == EINTR)
      continue;
    if (count < 0)
      fail_errno("cannot read the log");
    if (count == 0)
      return false;
    done += static_cast<std::size_t>(count);
  }
  return true;
}

} // namespace

std::string segment_name(const Log_Shape& shape, std::uint64_t segment)
{
  const std::uint64_t per_id = 0x100000000U / shape.segment_bytes;
  char name[32];
  std::snprintf(name, sizeof name, "%08X%08X%08X", shape.timeline, static_cast<unsigned>(segment / per_id),
                static_cast<unsigned>(segment % per_id));
  return name;
}

std::uint64_t segment_of_name(const Log_Shape& shape, const std::string& name)
{
  unsigned timeline = 0, id = 0, part = 0;
  if (!is_segment_name(name) || std::sscanf(name.c_str(), "%8X%8X%8X", &timeline, &id, &part) != 3)
    throw Failure("not the name of a log segment");
  const std::uint64_t segment = id * (0x100000000U / shape.segment_bytes) + part;
  if (segment_name(shape, segment) != name)
    throw Failure("log segment " + name + " belongs to another timeline");
  return segment;
}

void check_log_pages(const Log_Shape& shape, std::uint64_t lsn, const std::string& piece)
{
  const std::uint64_t end = lsn + piece.size();
  for (std::uint64_t page = (lsn + log_page_bytes - 1) / log_page_bytes * log_page_bytes;
       page + page_header_bytes <= end; page += log_page_bytes) {
    const std::size_t place = static_cast<std::size_t>(page - lsn);
    std::uint32_t timeline = 0;
    std::uint64_t position = 0;
    std::memcpy(&timeline, &piece[place + page_timeline_offset], sizeof timeline);
    std::memcpy(&position, &piece[place + page_position_offset], sizeof position);
    if (position == page && timeline == shape.timeline)
      continue;
    // Behind the record that switches to the next segment the server leaves pages of zeros.
    if (page % shape.segment_bytes == 0 || !is_zero(piece, place, log_page_bytes))
      throw Failure("the log is damaged at " + format_lsn(page));
  }
}

void Log_Reader::require(const Log_Range& range) const
{
  for (std::uint64_t segment = range.first_lsn / shape_.segment_bytes;
       segment <= (range.end_lsn - 1) / shape_.segment_bytes; ++segment) {
    const std::string name = segment_name(shape_, segment);
    // A segment goes into the archive before it leaves the server's directory: in this order none is missed.
    if (!is_regular_file(files_.data() + "/pg_wal/" + name) &&
        !is_regular_file(files_.archive() + "/" + name))
      throw Failure("log segment " + name + " is missing; take a full backup");
  }
}

bool Log_Reader::read_from_archive(const std::string& name, std::uint64_t offset, std::string& piece) const
{
  const Descriptor file(::open((files_.archive() + "/" + name).c_str(), O_RDONLY | O_CLOEXEC));
  return file.valid() && read_at(file.get(), offset, piece);
}

bool Log_Reader::read_from_server(const std::string& name, std::uint64_t offset, std::string& piece) const
{
  const std::string path = files_.data() + "/pg_wal/" + name;
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat opened, current;
  if (!file.valid() || ::fstat(file.get(), &opened) != 0 || !read_at(file.get(), offset, piece))
    return false;
  // The server gives an archived segment a new name before it fills it anew.
  return ::stat(path.c_str(), &current) == 0 && opened.st_dev == current.st_dev &&
         opened.st_ino == current.st_ino;
}

bool Log_Reader::has(std::uint64_t lsn, std::size_t size) const
{
  try {
    read(lsn, size);
    return true;
  } catch (const Failure&) {
    return false; // never written, or left from the time before the segment was used again
  }
}

std::string Log_Reader::read(std::uint64_t lsn, std::size_t size) const
{
  const std::string name = segment_name(shape_, lsn / shape_.segment_bytes);
  const std::uint64_t offset = lsn % shape_.segment_bytes;
  std::string piece(size, '\0');
  if (!read_from_archive(name, offset, piece) && !read_from_server(name, offset, piece) &&
      !read_from_archive(name, offset, piece))
    throw Failure("log segment " + name + " is missing or too short; take a full backup");
  check_log_pages(shape_, lsn, piece);
  return piece;
}

void write_log_bytes(Image_Writer& image, const Log_Reader& reader, const Log_Shape& shape,
                     const Log_Range& range)
{
  for (std::uint64_t lsn = range.first_lsn; lsn < range.end_lsn;) {
    // Pieces end at multiples of their size, so no page header is cut in two.
    const std::uint64_t next = std::min(range.end_lsn, (lsn / max_piece_bytes + 1) * max_piece_bytes);
    Frame frame;
    frame.type = Frame_Type::log;
    frame.path = segment_name(shape, lsn / shape.segment_bytes);
    frame.mode = static_cast<std::uint32_t>(lsn % shape.segment_bytes);
    frame.file_bytes = shape.segment_bytes;
    const std::string piece = reader.read(lsn, static_cast<std::size_t>(next - lsn));
    if (frame.mode == 0 || !is_zero(piece, 0, piece.size()))
      image.piece(frame, piece);
    lsn = next;
  }
}

void trim_archive(const Instance_Files& files, const Log_Shape& shape, std::uint64_t lsn, Run_Log& log)
{
  // Without the first eight characters, which name the timeline.
  const std::string first_needed = segment_name(shape, lsn / shape.segment_bytes).substr(8);
  for (const std::string& name : names_in(files.archive())) {
    // "SEGMENT.POSITION.backup": the server's note of an earlier full backup.
    const bool ours = is_segment_name(name) ||
                      (is_segment_name(name.substr(0, segment_name_bytes)) && ends_with(name, ".backup"));
    if (ours && name.substr(8) < first_needed && ::unlink((files.archive() + "/" + name).c_str()) != 0)
      log.line("WARNING", "cannot remove " + name + " from the archive");
  }
}

} // namespace oscar_lab
