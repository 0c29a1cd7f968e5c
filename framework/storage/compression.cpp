#include "storage/compression.h"

#include <cstring>

namespace
{
struct Method_Entry {
  const char* name;
  const char* suffix;
  unsigned mtf_code;
  int default_level;
  int highest_level;
};

// Indexed by Compression_Method.
const Method_Entry METHODS[] = {
    {"none", "", 0, 0, 0},
    {"zlib", ".gz", 1, 6, 9},
    {"lz4", ".lz4", 2, 1, 12},
    {"zstd", ".zst", 3, 3, 19},
};
const unsigned METHOD_COUNT = sizeof METHODS / sizeof METHODS[0];
} // namespace

Compression_Method compression_name_to_value(const char* text, unsigned length)
{
  if (text == nullptr)
    return COMPRESSION_NONE;
  for (unsigned method = 0; method < METHOD_COUNT; ++method) {
    if (std::strlen(METHODS[method].name) == length && std::memcmp(METHODS[method].name, text, length) == 0)
      return method;
  }
  return COMPRESSION_NONE;
}

const char* compression_value_to_name(Compression_Method method)
{
  return METHODS[method < METHOD_COUNT ? method : COMPRESSION_NONE].name;
}

const char* compression_value_to_suffix(Compression_Method method)
{
  return METHODS[method < METHOD_COUNT ? method : COMPRESSION_NONE].suffix;
}

unsigned compression_to_mtf(Compression_Method method)
{
  return METHODS[method < METHOD_COUNT ? method : COMPRESSION_NONE].mtf_code;
}

namespace kestrel
{
bool is_compression_method(Compression_Method method)
{
  return method < METHOD_COUNT;
}

int effective_compression_level(Compression_Method method, int level)
{
  if (method >= METHOD_COUNT)
    return 0;
  const Method_Entry& entry = METHODS[method];
  if (level == 0 || entry.highest_level == 0)
    return entry.default_level;
  if (level < 1)
    return 1;
  return level > entry.highest_level ? entry.highest_level : level;
}
} // namespace kestrel
