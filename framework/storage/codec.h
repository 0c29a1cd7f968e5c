#pragma once

#include "storage/compression.h"

#include <memory>
#include <string>

namespace kestrel
{
/// Where a compressor puts its output. Returns false when it cannot take it; it then keeps the reason itself.
class Byte_Sink
{
public:
  virtual ~Byte_Sink();
  [[nodiscard]] virtual bool put(const char* data, unsigned n) = 0;
};

/// Where a decompressor gets its input. Points `data` at the next bytes, valid until the next call; their
/// count, 0 at the end, negative on an error, whose reason it keeps itself.
class Byte_Source
{
public:
  virtual ~Byte_Source();
  virtual int get(const char*& data) = 0;
};

/// Turns a stream into one frame of a compressed format, with the format's own content checksum.
/// Threads: one at a time.
/// Errors:  false: the sink refused (error() is "") or the library failed (error() tells why). The object is
///          then of no further use.
class Compressor
{
public:
  virtual ~Compressor();
  [[nodiscard]] virtual bool add(const char* data, unsigned n, Byte_Sink& out) = 0;
  /// Ends the frame. An empty stream gives a valid empty frame.
  [[nodiscard]] virtual bool finish(Byte_Sink& out) = 0;
  const std::string& error() const { return error_; }

protected:
  std::string error_;
};

/// Turns pieces of a stream into frames that stand on their own: put one after the other they are the
/// compressed stream. Without a piece's neighbours, and without buffers between, it takes less time and gives
/// slightly larger output than a Compressor.
/// Threads: one at a time; several objects may share the pieces of one stream.
/// Errors:  0: the library failed, error() tells why.
class Frame_Compressor
{
public:
  virtual ~Frame_Compressor();
  /// The size of the frame made of n bytes; n may be 0. capacity: at least frame_bound(n).
  [[nodiscard]] virtual unsigned compress(const char* data, unsigned n, char* out, unsigned capacity) = 0;
  const std::string& error() const { return error_; }

protected:
  std::string error_;
};

/// Turns one or more frames of one format back into the stream.
/// Threads: one at a time.
/// Errors:  false: the source failed (error() is "") or the data is damaged, ends early or is followed by
///          something that is no frame (error() tells which).
class Decompressor
{
public:
  virtual ~Decompressor();
  /// Fills `out`; `produced` is below `capacity` only at the end of the stream.
  [[nodiscard]] bool fill(Byte_Source& in, char* out, unsigned capacity, unsigned& produced);
  const std::string& error() const { return error_; }

protected:
  struct Span {
    const char* in;
    unsigned in_left;
    char* out;
    unsigned out_left;
  };
  /// Moves what it can from in to out and sets frame_open_; false with error_ filled on damaged data.
  virtual bool step(Span& span) = 0;

  bool frame_open_ = false;
  std::string error_;

private:
  const char* in_ = nullptr;
  unsigned in_left_ = 0;
  bool input_ended_ = false;
  bool any_input_ = false;
};

/// A compressor for one of the compressed methods; level as in effective_compression_level(). `workers` is
/// the number of threads that a zstd compressor runs of its own; with 0 it compresses on the calling thread
/// and holds less back. Null with `error` filled for another method or without memory.
[[nodiscard]] std::unique_ptr<Compressor> make_compressor(Compression_Method method, int level,
                                                          unsigned workers, std::string& error);
[[nodiscard]] std::unique_ptr<Decompressor> make_decompressor(Compression_Method method, std::string& error);

/// Null with `error` filled without memory, or for a method or level that is better compressed in one frame.
[[nodiscard]] std::unique_ptr<Frame_Compressor> make_frame_compressor(Compression_Method method, int level,
                                                                      std::string& error);
/// Whether make_frame_compressor() serves them: only zstd, and only its fastest levels. The others gain much
/// of their ratio from what lies further back than a frame's begin.
bool compresses_in_frames(Compression_Method method, int level);
/// The most that a frame of n bytes can take.
unsigned frame_bound(unsigned n);

/// The compressed method whose frames begin with these bytes; 0 when none does.
Compression_Method detect_compression(const char* data, unsigned n);

/// How many bytes detect_compression() wants to see.
const unsigned COMPRESSION_MAGIC_BYTES = 4;

// Each format's pair, for make_compressor() and make_decompressor().
std::unique_ptr<Compressor> make_zlib_compressor(int level, std::string& error);
std::unique_ptr<Decompressor> make_zlib_decompressor(std::string& error);
std::unique_ptr<Compressor> make_lz4_compressor(int level, std::string& error);
std::unique_ptr<Decompressor> make_lz4_decompressor(std::string& error);
std::unique_ptr<Compressor> make_zstd_compressor(int level, unsigned workers, std::string& error);
std::unique_ptr<Frame_Compressor> make_zstd_frame_compressor(int level, std::string& error);
std::unique_ptr<Decompressor> make_zstd_decompressor(std::string& error);
} // namespace kestrel
