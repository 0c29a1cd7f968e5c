#include "storage/codec.h"

#include <algorithm>
#include <vector>

#include <lz4frame.h>

namespace kestrel
{
namespace
{
// Input goes to the library in pieces of the frame's block size, which it then compresses without copying
// them.
const unsigned PIECE_BYTES = 256 * 1024;

class Lz4_Compressor : public Compressor
{
public:
  ~Lz4_Compressor() override { LZ4F_freeCompressionContext(context_); }

  bool init(int level, std::string& error)
  {
    preferences_.frameInfo.blockSizeID = LZ4F_max256KB;
    preferences_.frameInfo.blockMode = LZ4F_blockIndependent;
    preferences_.frameInfo.contentChecksumFlag = LZ4F_contentChecksumEnabled;
    preferences_.compressionLevel = level;
    const LZ4F_errorCode_t result = LZ4F_createCompressionContext(&context_, LZ4F_VERSION);
    if (LZ4F_isError(result)) {
      error = std::string("the lz4 compressor cannot start: ") + LZ4F_getErrorName(result);
      return false;
    }
    output_.resize(std::max<size_t>(LZ4F_compressBound(PIECE_BYTES, &preferences_), LZ4F_HEADER_SIZE_MAX));
    return true;
  }

  bool add(const char* data, unsigned n, Byte_Sink& out) override
  {
    if (!begin(out))
      return false;
    while (n > 0) {
      const unsigned piece = std::min(n, PIECE_BYTES);
      if (!deliver(LZ4F_compressUpdate(context_, output_.data(), output_.size(), data, piece, nullptr), out))
        return false;
      data += piece;
      n -= piece;
    }
    return true;
  }

  bool finish(Byte_Sink& out) override
  {
    return begin(out) && deliver(LZ4F_compressEnd(context_, output_.data(), output_.size(), nullptr), out);
  }

private:
  bool begin(Byte_Sink& out)
  {
    if (begun_)
      return true;
    begun_ = true;
    return deliver(LZ4F_compressBegin(context_, output_.data(), output_.size(), &preferences_), out);
  }

  bool deliver(size_t result, Byte_Sink& out)
  {
    if (LZ4F_isError(result)) {
      error_ = std::string("the lz4 compressor failed: ") + LZ4F_getErrorName(result);
      return false;
    }
    return result == 0 || out.put(output_.data(), static_cast<unsigned>(result));
  }

  LZ4F_cctx* context_ = nullptr;
  LZ4F_preferences_t preferences_ = LZ4F_INIT_PREFERENCES;
  bool begun_ = false;
  std::vector<char> output_;
};

class Lz4_Decompressor : public Decompressor
{
public:
  ~Lz4_Decompressor() override { LZ4F_freeDecompressionContext(context_); }

  bool init(std::string& error)
  {
    const LZ4F_errorCode_t result = LZ4F_createDecompressionContext(&context_, LZ4F_VERSION);
    if (LZ4F_isError(result)) {
      error = std::string("the lz4 decompressor cannot start: ") + LZ4F_getErrorName(result);
      return false;
    }
    return true;
  }

protected:
  bool step(Span& span) override
  {
    size_t consumed = span.in_left;
    size_t produced = span.out_left;
    const size_t result = LZ4F_decompress(context_, span.out, &produced, span.in, &consumed, nullptr);
    if (LZ4F_isError(result)) {
      error_ = std::string("the lz4 data is damaged: ") + LZ4F_getErrorName(result);
      return false;
    }
    span.in += consumed;
    span.in_left -= static_cast<unsigned>(consumed);
    span.out += produced;
    span.out_left -= static_cast<unsigned>(produced);
    // 0 tells that the frame is complete; the context then waits for the next one.
    frame_open_ = result != 0;
    return true;
  }

private:
  LZ4F_dctx* context_ = nullptr;
};
} // namespace

std::unique_ptr<Compressor> make_lz4_compressor(int level, std::string& error)
{
  auto compressor = std::make_unique<Lz4_Compressor>();
  if (!compressor->init(level, error))
    compressor.reset();
  return compressor;
}

std::unique_ptr<Decompressor> make_lz4_decompressor(std::string& error)
{
  auto decompressor = std::make_unique<Lz4_Decompressor>();
  if (!decompressor->init(error))
    decompressor.reset();
  return decompressor;
}
} // namespace kestrel
