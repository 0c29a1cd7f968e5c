#include "storage/codec.h"
#include "storage/side_file.h"
#include "support/corpus.h"

#include <cstdlib>
#include <string>
#include <vector>

namespace
{
void check(bool holds)
{
  if (!holds)
    ::abort();
}

/// Gives the input in small portions.
class Portions : public kestrel::Byte_Source
{
public:
  Portions(const char* data, unsigned n) : next_(data), left_(n) {}
  int get(const char*& data) override
  {
    const unsigned n = left_ < 61 ? left_ : 61;
    data = next_;
    next_ += n;
    left_ -= n;
    return static_cast<int>(n);
  }

private:
  const char* next_;
  unsigned left_;
};

/// Damaged frames are refused with a text; all others end.
void decompress(Compression_Method method, const char* data, unsigned n)
{
  std::string error;
  const auto decompressor = kestrel::make_decompressor(method, error);
  check(decompressor != nullptr);
  Portions portions(data, n);
  std::vector<char> out(4096);
  unsigned produced = 4096;
  for (unsigned blocks = 0; produced == 4096 && blocks < 1000; ++blocks) {
    if (!decompressor->fill(portions, out.data(), 4096, produced)) {
      check(!decompressor->error().empty());
      return;
    }
    check(produced <= 4096);
  }
}

void read_side_file(const std::string& text)
{
  kestrel::Side_File side;
  std::string error;
  if (!kestrel::parse_side_file(text, side, error)) {
    check(!error.empty());
    return;
  }
  kestrel::Side_File again;
  check(kestrel::parse_side_file(kestrel::side_file_text(side), again, error));
  check(again.method == side.method && again.storage_size == side.storage_size &&
        again.storage_checksum == side.storage_checksum && again.time == side.time);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  const char* const text = reinterpret_cast<const char*>(data);
  const unsigned n = static_cast<unsigned>(size);
  for (const Compression_Method method : {COMPRESSION_ZLIB, COMPRESSION_LZ4, COMPRESSION_ZSTD})
    decompress(method, text, n);
  check(kestrel::detect_compression(text, n) <= COMPRESSION_ZSTD);
  read_side_file(std::string(text, size));
  return 0;
}
