#include "lab/brcmd/image.h"

#include "lab/brcmd/pipe.h"
#include "lab/common/files.h"
#include "lab/common/text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/mman.h>
#include <sys/uio.h>
#include <unistd.h>
#include <xxhash.h>
#ifdef KESTREL_XXHASH_DISPATCH
// Puts functions that fit the processor in the place of the usual ones; the checksums are the same.
#include <xxh_x86dispatch.h>
#endif

namespace oscar_lab
{

namespace
{

// Large enough to spare system calls, small enough to stay in the processor's cache between reading, hashing
// and writing.
constexpr std::size_t piece_bytes = 256 * 1024;
constexpr std::size_t pieces = 5;
constexpr std::size_t buffer_bytes = piece_bytes * pieces;
constexpr std::size_t huge_page_bytes = 2 * 1024 * 1024;
constexpr std::size_t frame_header_bytes = 32;
constexpr std::size_t max_path_bytes = 4096;
constexpr std::size_t max_text_bytes = 64 * 1024;
const char frame_magic[4] = {'O', 'B', 'F', '1'};
const char stream_magic[8] = {'O', 'S', 'C', 'A', 'R', 'B', 'R', '1'};

std::size_t mapped_bytes(std::size_t bytes)
{
  return (bytes + huge_page_bytes - 1) / huge_page_bytes * huge_page_bytes;
}

/// Mapped, and not of the heap: pages that are still lent to a pipe when the buffer goes must not be given to
/// anybody else before they are read.
char* new_buffer(std::size_t bytes)
{
  void* const buffer =
      ::mmap(nullptr, mapped_bytes(bytes), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (buffer == MAP_FAILED)
    throw std::bad_alloc();
  // Small pages serve as well, a little slower.
  (void)::madvise(buffer, mapped_bytes(bytes), MADV_HUGEPAGE);
  return static_cast<char*>(buffer);
}

void release_buffer(char* buffer, std::size_t bytes)
{
  // Fails only for what is no mapping.
  (void)::munmap(buffer, mapped_bytes(bytes));
}

void store(char* place, std::uint64_t value, std::size_t size)
{
  for (std::size_t i = 0; i < size; ++i)
    place[i] = static_cast<char>(value >> (8 * (size - 1 - i)));
}

bool is_frame_type(char letter)
{
  return letter != '\0' && std::strchr("HTDFPUWE", letter);
}

std::uint64_t most_payload_bytes(const Frame& frame)
{
  switch (frame.type) {
  case Frame_Type::file:
    return INT64_MAX;
  case Frame_Type::pages:
  case Frame_Type::log:
    return max_piece_bytes;
  case Frame_Type::unchanged:
    return 0;
  default:
    return max_text_bytes;
  }
}

std::uint64_t fetch(const char* place, std::size_t size)
{
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < size; ++i)
    value = value << 8 | static_cast<unsigned char>(place[i]);
  return value;
}

} // namespace

Xxh3_64::Xxh3_64() : state_(XXH3_createState())
{
  if (!state_)
    throw std::bad_alloc();
  reset();
}

Xxh3_64::~Xxh3_64()
{
  XXH3_freeState(state_);
}

void Xxh3_64::reset()
{
  XXH3_64bits_reset(state_);
}

void Xxh3_64::update(const void* data, std::size_t size)
{
  XXH3_64bits_update(state_, data, size);
}

std::uint64_t Xxh3_64::digest() const
{
  return XXH3_64bits_digest(state_);
}

/// Whether a piece that was lent to the pipe has left it when the other pieces have gone in.
bool pipe_fits_pieces(int fd)
{
  const int pipe_bytes = ::fcntl(fd, F_GETPIPE_SZ);
  return pipe_bytes > 0 && static_cast<std::size_t>(pipe_bytes) <= piece_bytes * (pieces - 1);
}

Image_Writer::Image_Writer(int fd)
    : fd_(fd), buffer_(new_buffer(buffer_bytes)), piece_(buffer_), lends_pages_(pipe_fits_pieces(fd))
{
}

Image_Writer::~Image_Writer()
{
  release_buffer(buffer_, buffer_bytes);
}

void Image_Writer::info(const std::string& text)
{
  const std::size_t length = info_head_bytes + text.size();
  if (length > max_info_bytes)
    throw Failure("the info block would be longer than " + std::to_string(max_info_bytes) + " bytes");
  char head[info_head_bytes] = {};
  store(head, length, 4);
  std::memcpy(head + 8, stream_magic, sizeof stream_magic);
  put(head, sizeof head);
  put(text.data(), text.size());
}

void Image_Writer::flush()
{
  write_all(fd_, piece_, used_, "to the pipe");
  written_bytes_ += used_;
  used_ = 0;
}

/// Lends the full piece to the pipe and goes on in the next one.
void Image_Writer::write_piece()
{
  // Nobody but this process and the reader has the pipe open, but a reader may resize it at any time.
  if (lends_pages_ && !pipe_fits_pieces(fd_)) {
    // What was lent before may still be in the larger pipe, and must stay as it is until the reader has taken
    // it.
    wait_until_drained(fd_);
    lends_pages_ = false;
  }
  if (!lends_pages_) {
    flush();
    return;
  }
  allow_time_for_room(fd_, piece_bytes);
  iovec part{piece_, piece_bytes};
  while (part.iov_len > 0) {
    const ssize_t count = ::vmsplice(fd_, &part, 1, 0);
    if (count < 0 && errno == EINTR)
      continue;
    if (count < 0)
      fail_errno("cannot write to the pipe");
    part.iov_base = static_cast<char*>(part.iov_base) + count;
    part.iov_len -= static_cast<std::size_t>(count);
  }
  written_bytes_ += piece_bytes;
  used_ = 0;
  piece_ = piece_ + piece_bytes == buffer_ + buffer_bytes ? buffer_ : piece_ + piece_bytes;
}

void Image_Writer::put(const void* data, std::size_t size)
{
  const char* next = static_cast<const char*>(data);
  hash_.update(data, size);
  while (size > 0) {
    const std::size_t count = std::min(size, piece_bytes - used_);
    std::memcpy(free_part(), next, count);
    used_ += count;
    next += count;
    size -= count;
    if (used_ == piece_bytes)
      write_piece();
  }
}

void Image_Writer::begin(const Frame& frame)
{
  char header[frame_header_bytes] = {};
  std::memcpy(header, frame_magic, sizeof frame_magic);
  header[4] = static_cast<char>(frame.type);
  store(header + 6, frame.root, 2);
  store(header + 8, frame.mode, 4);
  store(header + 12, frame.path.size(), 4);
  store(header + 16, frame.payload_bytes, 8);
  store(header + 24, frame.file_bytes, 8);
  hash_.reset();
  put(header, sizeof header);
  put(frame.path.data(), frame.path.size());
}

void Image_Writer::end()
{
  char checksum[8];
  store(checksum, hash_.digest(), sizeof checksum);
  put(checksum, sizeof checksum);
}

void Image_Writer::text_frame(const Frame& frame, const std::string& payload)
{
  Frame complete = frame;
  complete.payload_bytes = complete.file_bytes = payload.size();
  begin(complete);
  put(payload.data(), payload.size());
  end();
}

void Image_Writer::properties(Frame_Type type, const Properties& properties)
{
  std::string text;
  for (const auto& property : properties)
    text += property.first + "=" + property.second + "\n";
  Frame frame;
  frame.type = type;
  text_frame(frame, text);
}

void Image_Writer::tablespace(std::uint16_t root, const std::string& oid, const std::string& location)
{
  Frame frame;
  frame.type = Frame_Type::tablespace;
  frame.root = root;
  frame.path = location;
  text_frame(frame, oid);
}

void Image_Writer::directory(std::uint16_t root, const std::string& path, std::uint32_t mode)
{
  Frame frame;
  frame.type = Frame_Type::directory;
  frame.root = root;
  frame.mode = mode;
  frame.path = path;
  text_frame(frame, "");
}

void Image_Writer::file(const Frame& frame, const std::string& content)
{
  text_frame(frame, content);
}

void Image_Writer::piece(const Frame& frame, const std::string& payload)
{
  Frame complete = frame;
  complete.payload_bytes = payload.size();
  begin(complete);
  put(payload.data(), payload.size());
  end();
}

void Image_Writer::file(const Frame& frame, int fd)
{
  begin(frame);
  std::uint64_t left = frame.payload_bytes;
  while (left > 0) {
    // Straight into the free part of the buffer: one copy less than put().
    const std::size_t room = static_cast<std::size_t>(std::min<std::uint64_t>(left, piece_bytes - used_));
    const std::size_t count = read_full(fd, free_part(), room, frame.path);
    std::memset(free_part() + count, 0, room - count);
    hash_.update(free_part(), room);
    used_ += room;
    left -= room;
    if (used_ == piece_bytes)
      write_piece();
  }
  end();
}

Image_Reader::Image_Reader(int fd) : fd_(fd), buffer_(new_buffer(piece_bytes)) {}

Image_Reader::~Image_Reader()
{
  release_buffer(buffer_, piece_bytes);
}

std::size_t Image_Reader::fill()
{
  if (begin_ == end_) {
    begin_ = end_ = 0;
    for (;;) {
      const ssize_t count = ::read(fd_, buffer_, piece_bytes);
      if (count < 0 && errno == EINTR)
        continue;
      if (count < 0)
        fail_errno("cannot read from the pipe");
      end_ = static_cast<std::size_t>(count);
      break;
    }
  }
  return end_ - begin_;
}

void Image_Reader::take(void* data, std::size_t size)
{
  char* next = static_cast<char*>(data);
  while (size > 0) {
    const std::size_t count = std::min(size, fill());
    if (count == 0)
      throw Failure("the backup stream is truncated");
    std::memcpy(next, buffer_ + begin_, count);
    begin_ += count;
    next += count;
    size -= count;
  }
}

std::string Image_Reader::info()
{
  std::string block(info_head_bytes, '\0');
  take(&block[0], block.size());
  const std::uint64_t length = fetch(block.data(), 4);
  if (std::memcmp(block.data() + 8, stream_magic, sizeof stream_magic) != 0 || length < info_head_bytes ||
      length > max_info_bytes)
    throw Failure("the stream is not a backup of this tool");
  block.resize(static_cast<std::size_t>(length));
  take(&block[info_head_bytes], block.size() - info_head_bytes);
  return block;
}

Frame Image_Reader::next()
{
  char header[frame_header_bytes];
  take(header, sizeof header);
  Frame frame;
  const std::uint64_t path_bytes = fetch(header + 12, 4);
  frame.type = static_cast<Frame_Type>(header[4]);
  frame.root = static_cast<std::uint16_t>(fetch(header + 6, 2));
  frame.mode = static_cast<std::uint32_t>(fetch(header + 8, 4));
  frame.payload_bytes = fetch(header + 16, 8);
  frame.file_bytes = fetch(header + 24, 8);
  if (std::memcmp(header, frame_magic, sizeof frame_magic) != 0 || !is_frame_type(header[4]) ||
      path_bytes > max_path_bytes || frame.payload_bytes > frame.file_bytes || frame.file_bytes > INT64_MAX ||
      frame.payload_bytes > most_payload_bytes(frame))
    throw Failure("the backup stream is damaged");
  frame.path.resize(static_cast<std::size_t>(path_bytes));
  take(&frame.path[0], frame.path.size());
  hash_.reset();
  hash_.update(header, sizeof header);
  hash_.update(frame.path.data(), frame.path.size());
  return frame;
}

void Image_Reader::verify()
{
  char checksum[8];
  take(checksum, sizeof checksum);
  if (fetch(checksum, sizeof checksum) != hash_.digest())
    throw Failure("the backup stream is damaged: wrong checksum");
}

std::string Image_Reader::text(const Frame& frame)
{
  std::string payload(static_cast<std::size_t>(frame.payload_bytes), '\0');
  take(&payload[0], payload.size());
  hash_.update(payload.data(), payload.size());
  verify();
  return payload;
}

Properties Image_Reader::parse_properties(const std::string& text)
{
  Properties properties;
  for (const std::string& line : split_lines(text)) {
    const auto equals = line.find('=');
    if (equals != std::string::npos)
      properties[line.substr(0, equals)] = line.substr(equals + 1);
  }
  return properties;
}

void Image_Reader::copy_payload(const Frame& frame, int fd, const std::string& what)
{
  std::uint64_t left = frame.payload_bytes;
  while (left > 0) {
    const std::size_t count = static_cast<std::size_t>(std::min<std::uint64_t>(left, fill()));
    if (count == 0)
      throw Failure("the backup stream is truncated");
    hash_.update(buffer_ + begin_, count);
    write_all(fd, buffer_ + begin_, count, what);
    begin_ += count;
    left -= count;
  }
  verify();
}

void Image_Reader::require_end()
{
  if (fill() != 0)
    throw Failure("the backup stream goes on after its end mark");
}

} // namespace oscar_lab
