// Compares the frames of stored files at zstd level 1 with those that the library makes with its own settings
// of that level: the same pieces of the same files, in turn, on one thread.
//
//   zstd_level_bench FILE...    prints for each file its bytes, the speed with the library's settings, and
//   speed and
//                               size in relation to them

#include "storage/codec.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <zstd.h>

namespace
{
const unsigned FRAME_BYTES = 1536 * 1024;
const int ROUNDS = 6;

double processor_seconds()
{
  timespec time{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

struct Total {
  double seconds = 0;
  double bytes = 0;
};

/// The library with nothing set but the level and the checksum.
class Plain_Level
{
public:
  Plain_Level()
      : ready_(context_ != nullptr &&
               !ZSTD_isError(ZSTD_CCtx_setParameter(context_, ZSTD_c_compressionLevel, 1)) &&
               !ZSTD_isError(ZSTD_CCtx_setParameter(context_, ZSTD_c_checksumFlag, 1)))
  {
  }
  ~Plain_Level() { ZSTD_freeCCtx(context_); }
  Plain_Level(const Plain_Level&) = delete;
  Plain_Level& operator=(const Plain_Level&) = delete;

  /// The size of the frame; 0 when the library failed.
  size_t compress(const char* data, unsigned n, std::string& out)
  {
    const size_t size = ready_ ? ZSTD_compress2(context_, &out[0], out.size(), data, n) : 0;
    return ZSTD_isError(size) ? 0 : size;
  }

private:
  ZSTD_CCtx* const context_ = ZSTD_createCCtx();
  const bool ready_;
};

template <typename Compress> bool measure(const Compress& compress, Total& total)
{
  const double begin = processor_seconds();
  const size_t size = compress();
  total.seconds += processor_seconds() - begin;
  total.bytes += static_cast<double>(size);
  return size > 0;
}

bool compare(const char* path)
{
  std::ifstream file(path, std::ios::binary);
  std::stringstream text;
  text << file.rdbuf();
  const std::string data = text.str();
  std::string error;
  const auto frames = kestrel::make_frame_compressor(COMPRESSION_ZSTD, 1, error);
  Plain_Level plain;
  std::string out(kestrel::frame_bound(FRAME_BYTES), '\0');
  Total own;
  Total library;
  bool compressed = frames != nullptr && !data.empty();
  for (int round = 0; compressed && round < ROUNDS; ++round)
    for (size_t at = 0; compressed && at < data.size(); at += FRAME_BYTES) {
      const char* const piece = data.data() + at;
      const auto n = static_cast<unsigned>(std::min<size_t>(FRAME_BYTES, data.size() - at));
      const auto by_frames = [&] {
        return frames->compress(piece, n, &out[0], static_cast<unsigned>(out.size()));
      };
      const auto by_library = [&] { return plain.compress(piece, n, out); };
      // Who comes second finds the piece in the cache, so they change places.
      compressed = round % 2 == 0 ? measure(by_frames, own) && measure(by_library, library)
                                  : measure(by_library, library) && measure(by_frames, own);
    }
  if (!compressed) {
    std::fprintf(stderr, "zstd_level_bench: %s cannot be read or compressed\n", path);
    return false;
  }
  std::printf("%12zu bytes  %5.0f MB/s  speed %.3f  size %.4f  %s\n", data.size(),
              static_cast<double>(data.size()) * ROUNDS / library.seconds / 1e6,
              library.seconds / own.seconds, own.bytes / library.bytes, path);
  return true;
}
} // namespace

int main(int argc, char** argv)
{
  if (argc < 2) {
    std::fputs("usage: zstd_level_bench FILE...\n", stderr);
    return 2;
  }
  bool all = true;
  for (int i = 1; i < argc; ++i)
    all = compare(argv[i]) && all;
  return all ? 0 : 1;
}
