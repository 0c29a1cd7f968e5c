#include "storage/codec.h"

#include <cstring>

namespace kestrel
{
namespace
{
// From level 3 on frames of a megabyte cost some percent of the ratio; up to here about one.
const int MOST_FRAME_LEVEL = 2;
} // namespace

Byte_Sink::~Byte_Sink() = default;

Byte_Source::~Byte_Source() = default;

Compressor::~Compressor() = default;

Frame_Compressor::~Frame_Compressor() = default;

Decompressor::~Decompressor() = default;

bool Decompressor::fill(Byte_Source& in, char* out, unsigned capacity, unsigned& produced)
{
  Span span{in_, in_left_, out, capacity};
  while (span.out_left > 0) {
    if (span.in_left == 0 && !input_ended_) {
      const int got = in.get(span.in);
      if (got < 0)
        return false;
      span.in_left = static_cast<unsigned>(got);
      input_ended_ = got == 0;
      any_input_ = any_input_ || got > 0;
    }
    if (input_ended_ && span.in_left == 0 && !frame_open_)
      break;
    const unsigned in_before = span.in_left;
    const unsigned out_before = span.out_left;
    if (!step(span))
      return false;
    // A library may still hold output after its last input, so only a standstill tells that bytes are
    // missing.
    if (input_ended_ && span.in_left == in_before && span.out_left == out_before) {
      error_ = "the compressed data ends early";
      return false;
    }
  }
  in_ = span.in;
  in_left_ = span.in_left;
  if (!any_input_) {
    error_ = "the compressed data is missing";
    return false;
  }
  produced = capacity - span.out_left;
  return true;
}

std::unique_ptr<Compressor> make_compressor(Compression_Method method, int level, unsigned workers,
                                            std::string& error)
{
  const int used_level = effective_compression_level(method, level);
  switch (method) {
  case COMPRESSION_ZLIB:
    return make_zlib_compressor(used_level, error);
  case COMPRESSION_LZ4:
    return make_lz4_compressor(used_level, error);
  case COMPRESSION_ZSTD:
    return make_zstd_compressor(used_level, workers, error);
  }
  error = "compression method " + std::to_string(method) + " is unknown";
  return nullptr;
}

bool compresses_in_frames(Compression_Method method, int level)
{
  return method == COMPRESSION_ZSTD && effective_compression_level(method, level) <= MOST_FRAME_LEVEL;
}

std::unique_ptr<Frame_Compressor> make_frame_compressor(Compression_Method method, int level,
                                                        std::string& error)
{
  if (compresses_in_frames(method, level))
    return make_zstd_frame_compressor(effective_compression_level(method, level), error);
  error = "compression method " + std::to_string(method) + " is not used in frames at level " +
          std::to_string(level);
  return nullptr;
}

std::unique_ptr<Decompressor> make_decompressor(Compression_Method method, std::string& error)
{
  switch (method) {
  case COMPRESSION_ZLIB:
    return make_zlib_decompressor(error);
  case COMPRESSION_LZ4:
    return make_lz4_decompressor(error);
  case COMPRESSION_ZSTD:
    return make_zstd_decompressor(error);
  }
  error = "compression method " + std::to_string(method) + " is unknown";
  return nullptr;
}

Compression_Method detect_compression(const char* data, unsigned n)
{
  if (n >= 3 && std::memcmp(data, "\x1f\x8b\x08", 3) == 0)
    return COMPRESSION_ZLIB;
  if (n >= 4 && std::memcmp(data, "\x04\x22\x4d\x18", 4) == 0)
    return COMPRESSION_LZ4;
  if (n >= 4 && std::memcmp(data, "\x28\xb5\x2f\xfd", 4) == 0)
    return COMPRESSION_ZSTD;
  return COMPRESSION_NONE;
}
} // namespace kestrel
