#include "storage/codec.h"

#include <algorithm>
#include <vector>

#include <zstd.h>

namespace kestrel
{
namespace
{
const unsigned OUTPUT_BYTES = 512 * 1024;

// The library's own choices reach hundreds of megabytes at high levels with several workers. These bounds
// keep the whole compressor at a few tens of megabytes; they change nothing up to level 5 or so and cost a
// few percent of the ratio at the highest levels.
const int MOST_WINDOW_LOG = 21;
const int MOST_TABLE_LOG = 19;
const int JOB_BYTES = 2 * 1024 * 1024;

// Level 1 has a table of 64 KiB, which most processors' first cache cannot hold, and takes matches from seven
// bytes on. Half of the table with matches from six bytes takes less time on most database pages, for about
// the same size; bench/zstd_level_bench compares the two on any file.
const int FASTEST_TABLE_LOG = 13;
const int FASTEST_MATCH_BYTES = 6;

/// The library's compressing context, with the settings that every stored stream has.
class Zstd_Context
{
public:
  Zstd_Context() = default;
  ~Zstd_Context() { ZSTD_freeCCtx(context_); }
  Zstd_Context(const Zstd_Context&) = delete;
  Zstd_Context& operator=(const Zstd_Context&) = delete;

  bool init(int level, std::string& error)
  {
    context_ = ZSTD_createCCtx();
    if (context_ == nullptr) {
      error = "the zstd compressor cannot start: not enough memory";
      return false;
    }
    return set(ZSTD_c_compressionLevel, level, error) && set(ZSTD_c_checksumFlag, 1, error) &&
           suit_pages(level, error) && bound_memory(level, error);
  }

  bool set(ZSTD_cParameter parameter, int value, std::string& error)
  {
    const size_t result = ZSTD_CCtx_setParameter(context_, parameter, value);
    if (ZSTD_isError(result))
      error = std::string("the zstd compressor cannot start: ") + ZSTD_getErrorName(result);
    return !ZSTD_isError(result);
  }

  ZSTD_CCtx* get() const { return context_; }

private:
  bool suit_pages(int level, std::string& error)
  {
    return level != 1 || (set(ZSTD_c_hashLog, FASTEST_TABLE_LOG, error) &&
                          set(ZSTD_c_minMatch, FASTEST_MATCH_BYTES, error));
  }

  // Which table sizes a level uses is not part of the library's stable interface, so they are bounded by the
  // levels from which they are known to pass the bound.
  bool bound_memory(int level, std::string& error)
  {
    return level < 6 ||
           (set(ZSTD_c_windowLog, MOST_WINDOW_LOG, error) && set(ZSTD_c_hashLog, MOST_TABLE_LOG, error) &&
            set(ZSTD_c_chainLog, MOST_TABLE_LOG, error));
  }

  ZSTD_CCtx* context_ = nullptr;
};

std::string compress_failure(size_t result)
{
  return std::string("the zstd compressor failed: ") + ZSTD_getErrorName(result);
}

class Zstd_Compressor : public Compressor
{
public:
  bool init(int level, unsigned workers, std::string& error)
  {
    output_.resize(OUTPUT_BYTES);
    return context_.init(level, error) &&
           (workers == 0 || (context_.set(ZSTD_c_nbWorkers, static_cast<int>(workers), error) &&
                             context_.set(ZSTD_c_jobSize, JOB_BYTES, error)));
  }

  bool add(const char* data, unsigned n, Byte_Sink& out) override
  {
    ZSTD_inBuffer in{data, n, 0};
    while (in.pos < in.size) {
      size_t left = 0;
      if (!run(in, ZSTD_e_continue, left, out))
        return false;
    }
    return true;
  }

  bool finish(Byte_Sink& out) override
  {
    ZSTD_inBuffer in{nullptr, 0, 0};
    size_t left = 1;
    while (left > 0) {
      if (!run(in, ZSTD_e_end, left, out))
        return false;
    }
    return true;
  }

private:
  bool run(ZSTD_inBuffer& in, ZSTD_EndDirective directive, size_t& left, Byte_Sink& out)
  {
    ZSTD_outBuffer made{output_.data(), OUTPUT_BYTES, made_};
    left = ZSTD_compressStream2(context_.get(), &made, &in, directive);
    if (ZSTD_isError(left)) {
      error_ = compress_failure(left);
      return false;
    }
    made_ = static_cast<unsigned>(made.pos);
    const bool ended = directive == ZSTD_e_end && left == 0;
    return (made_ < OUTPUT_BYTES && !ended) || deliver(out);
  }

  bool deliver(Byte_Sink& out)
  {
    const unsigned n = made_;
    made_ = 0;
    return out.put(output_.data(), n);
  }

  Zstd_Context context_;
  // The library gives its output in small portions; they are gathered so that the file gets large writes.
  std::vector<char> output_;
  unsigned made_ = 0;
};

class Zstd_Frame_Compressor : public Frame_Compressor
{
public:
  bool init(int level, std::string& error) { return context_.init(level, error); }

  unsigned compress(const char* data, unsigned n, char* out, unsigned capacity) override
  {
    const size_t size = ZSTD_compress2(context_.get(), out, capacity, data, n);
    if (ZSTD_isError(size))
      error_ = compress_failure(size);
    return ZSTD_isError(size) ? 0 : static_cast<unsigned>(size);
  }

private:
  Zstd_Context context_;
};

class Zstd_Decompressor : public Decompressor
{
public:
  ~Zstd_Decompressor() override { ZSTD_freeDCtx(context_); }

  bool init(std::string& error)
  {
    context_ = ZSTD_createDCtx();
    if (context_ == nullptr)
      error = "the zstd decompressor cannot start: not enough memory";
    return context_ != nullptr;
  }

protected:
  bool step(Span& span) override
  {
    ZSTD_inBuffer in{span.in, span.in_left, 0};
    ZSTD_outBuffer out{span.out, span.out_left, 0};
    const size_t result = ZSTD_decompressStream(context_, &out, &in);
    if (ZSTD_isError(result)) {
      error_ = std::string("the zstd data is damaged: ") + ZSTD_getErrorName(result);
      return false;
    }
    span.in += in.pos;
    span.in_left -= static_cast<unsigned>(in.pos);
    span.out += out.pos;
    span.out_left -= static_cast<unsigned>(out.pos);
    // 0 tells that the frame is complete; the context then waits for the next one.
    frame_open_ = result != 0;
    return true;
  }

private:
  ZSTD_DCtx* context_ = nullptr;
};
} // namespace

std::unique_ptr<Compressor> make_zstd_compressor(int level, unsigned workers, std::string& error)
{
  auto compressor = std::make_unique<Zstd_Compressor>();
  if (!compressor->init(level, workers, error))
    compressor.reset();
  return compressor;
}

std::unique_ptr<Frame_Compressor> make_zstd_frame_compressor(int level, std::string& error)
{
  auto compressor = std::make_unique<Zstd_Frame_Compressor>();
  if (!compressor->init(level, error))
    compressor.reset();
  return compressor;
}

unsigned frame_bound(unsigned n)
{
  return static_cast<unsigned>(ZSTD_compressBound(n));
}

std::unique_ptr<Decompressor> make_zstd_decompressor(std::string& error)
{
  auto decompressor = std::make_unique<Zstd_Decompressor>();
  if (!decompressor->init(error))
    decompressor.reset();
  return decompressor;
}
} // namespace kestrel
