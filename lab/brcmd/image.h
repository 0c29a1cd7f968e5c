/// The byte stream of a backup: a head with the length of the info block, the info text, then frames.
///
/// Head (512 bytes):  info length (32 bits, head included), 4 zero bytes, "OSCARBR1", zeros
/// Frame:             header (32 bytes), path, payload, XXH3-64 of all of these; numbers are big endian
/// Header:            "OBF1", type, 0, root (16), mode or position (32), path length (32), payload length
/// (64),
///                    file size (64)
/// Types:             H text about the backup   T tablespace: root, location as path, oid as payload
///                    D directory               F file; bytes from payload length to file size are zero
///                    P pages of a file from block number "position" on; the file gets the given size
///                    U file that is as in the backup before
///                    W log: path is a segment's name, "position" the payload's offset in it
///                    E text about the end; nothing follows
/// A full backup has H T D F E. A backup that continues an online one has W, and F for settings files; one
/// that continues an offline one names every file there is, as F, P or U: what it does not name is gone. Root
/// 0 is the data directory, root n the n-th tablespace; paths are relative to their root.
///
/// Threads:   one owner per object. Ownership: descriptors belong to the caller.
/// Errors:    Failure. A writer whose reader went away fails; a reader refuses everything that does not fit.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

struct XXH3_state_s;

namespace oscar_lab
{

constexpr std::size_t info_head_bytes = 512;
/// Agents keep the whole info block in one buffer of this size when they restore.
constexpr std::size_t max_info_bytes = 8192;
/// Most bytes of pages or log in one frame.
constexpr std::size_t max_piece_bytes = 256 * 1024;

enum class Frame_Type : char {
  head = 'H',
  tablespace = 'T',
  directory = 'D',
  file = 'F',
  pages = 'P',
  unchanged = 'U',
  log = 'W',
  end = 'E'
};

struct Frame {
  Frame_Type type = Frame_Type::head;
  std::uint16_t root = 0;
  std::uint32_t mode = 0; // of P and W frames: the position
  std::uint64_t payload_bytes = 0;
  std::uint64_t file_bytes = 0;
  std::string path;
};

/// Lines "key=value", the payload of H and E frames.
using Properties = std::map<std::string, std::string>;

class Xxh3_64
{
public:
  Xxh3_64();
  ~Xxh3_64();
  Xxh3_64(const Xxh3_64&) = delete;
  Xxh3_64& operator=(const Xxh3_64&) = delete;
  void reset();
  void update(const void* data, std::size_t size);
  std::uint64_t digest() const;

private:
  XXH3_state_s* state_;
};

/// Into a pipe, full pieces of the buffer go as pages that the reader copies out of the buffer itself; the
/// same piece is filled again only when so many pages followed that the pipe cannot hold it any more. So the
/// reader must read: what it passed on with splice() would change later.
class Image_Writer
{
public:
  explicit Image_Writer(int fd);
  ~Image_Writer();

  /// Head and info block. Throws when the text is too long.
  void info(const std::string& text);
  void properties(Frame_Type type, const Properties& properties);
  void tablespace(std::uint16_t root, const std::string& oid, const std::string& location);
  void directory(std::uint16_t root, const std::string& path, std::uint32_t mode);
  /// payload_bytes from the start of fd. A file that is shorter by now is filled up with zeros: it shrank
  /// while the server ran, and the log that goes with the backup knows.
  void file(const Frame& frame, int fd);
  void file(const Frame& frame, const std::string& content);
  /// P, U and W frames. The size of the file stays as given in the frame.
  void piece(const Frame& frame, const std::string& payload);
  void flush();
  std::uint64_t written_bytes() const { return written_bytes_; }

private:
  char* free_part() const { return piece_ + used_; }
  void write_piece();
  void begin(const Frame& frame);
  void put(const void* data, std::size_t size);
  void end();
  void text_frame(const Frame& frame, const std::string& payload);

  int fd_;
  std::uint64_t written_bytes_ = 0;
  char* buffer_;
  char* piece_; // the part of the buffer that is filled now
  std::size_t used_ = 0;
  bool lends_pages_;
  Xxh3_64 hash_;
};

class Image_Reader
{
public:
  explicit Image_Reader(int fd);
  ~Image_Reader();

  /// Head and info text as one block, exactly as written.
  std::string info();
  /// The next frame's header and path. The payload must be taken completely before the next call.
  Frame next();
  /// The payload as text, for all frames but F. Verifies the checksum.
  std::string text(const Frame& frame);
  static Properties parse_properties(const std::string& text);
  /// Writes the payload to the descriptor and verifies the checksum.
  void copy_payload(const Frame& frame, int fd, const std::string& what);
  /// Throws unless the stream has ended.
  void require_end();

private:
  std::size_t fill();
  void take(void* data, std::size_t size);
  void verify();

  int fd_;
  char* buffer_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  Xxh3_64 hash_;
};

} // namespace oscar_lab
