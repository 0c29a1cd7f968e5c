#include "storage/codec.h"

#include <new>
#include <vector>

#include <zlib.h>

namespace kestrel
{
namespace
{
const unsigned OUTPUT_BYTES = 256 * 1024;
// The largest window, and the gzip container instead of zlib's own.
const int WINDOW_BITS_GZIP = 15 + 16;
const int MEMORY_LEVEL = 8;

std::string library_error(const char* what, const z_stream& stream, int result)
{
  std::string text = what;
  text += stream.msg != nullptr ? stream.msg : zError(result);
  return text;
}

class Zlib_Compressor : public Compressor
{
public:
  ~Zlib_Compressor() override
  {
    if (ready_)
      deflateEnd(&stream_);
  }

  bool init(int level, std::string& error)
  {
    output_.resize(OUTPUT_BYTES);
    const int result =
        deflateInit2(&stream_, level, Z_DEFLATED, WINDOW_BITS_GZIP, MEMORY_LEVEL, Z_DEFAULT_STRATEGY);
    ready_ = result == Z_OK;
    if (!ready_)
      error = library_error("the gzip compressor cannot start: ", stream_, result);
    return ready_;
  }

  bool add(const char* data, unsigned n, Byte_Sink& out) override
  {
    stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data));
    stream_.avail_in = n;
    while (stream_.avail_in > 0) {
      if (!run(Z_NO_FLUSH, out))
        return false;
    }
    return true;
  }

  bool finish(Byte_Sink& out) override
  {
    stream_.avail_in = 0;
    while (!ended_) {
      if (!run(Z_FINISH, out))
        return false;
    }
    return true;
  }

private:
  bool run(int flush, Byte_Sink& out)
  {
    stream_.next_out = reinterpret_cast<Bytef*>(output_.data());
    stream_.avail_out = OUTPUT_BYTES;
    const int result = deflate(&stream_, flush);
    if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) {
      error_ = library_error("the gzip compressor failed: ", stream_, result);
      return false;
    }
    ended_ = result == Z_STREAM_END;
    const unsigned made = OUTPUT_BYTES - stream_.avail_out;
    return made == 0 || out.put(output_.data(), made);
  }

  z_stream stream_ = {};
  bool ready_ = false;
  bool ended_ = false;
  std::vector<char> output_;
};

class Zlib_Decompressor : public Decompressor
{
public:
  ~Zlib_Decompressor() override
  {
    if (ready_)
      inflateEnd(&stream_);
  }

  bool init(std::string& error)
  {
    const int result = inflateInit2(&stream_, WINDOW_BITS_GZIP);
    ready_ = result == Z_OK;
    if (!ready_)
      error = library_error("the gzip decompressor cannot start: ", stream_, result);
    return ready_;
  }

protected:
  bool step(Span& span) override
  {
    stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(span.in));
    stream_.avail_in = span.in_left;
    stream_.next_out = reinterpret_cast<Bytef*>(span.out);
    stream_.avail_out = span.out_left;
    const int result = inflate(&stream_, Z_NO_FLUSH);
    if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) {
      error_ = library_error("the gzip data is damaged: ", stream_, result);
      return false;
    }
    span = Span{reinterpret_cast<const char*>(stream_.next_in), stream_.avail_in,
                reinterpret_cast<char*>(stream_.next_out), stream_.avail_out};
    frame_open_ = result != Z_STREAM_END;
    if (!frame_open_)
      inflateReset(&stream_);
    return true;
  }

private:
  z_stream stream_ = {};
  bool ready_ = false;
};
} // namespace

std::unique_ptr<Compressor> make_zlib_compressor(int level, std::string& error)
{
  auto compressor = std::make_unique<Zlib_Compressor>();
  if (!compressor->init(level, error))
    compressor.reset();
  return compressor;
}

std::unique_ptr<Decompressor> make_zlib_decompressor(std::string& error)
{
  auto decompressor = std::make_unique<Zlib_Decompressor>();
  if (!decompressor->init(error))
    decompressor.reset();
  return decompressor;
}
} // namespace kestrel
