#include "base/checksum.h"

#include <cinttypes>
#include <cstdio>
#include <new>
#include <xxhash.h>
#ifdef KESTREL_XXHASH_DISPATCH
// Puts functions that fit the processor in the place of the usual ones; the checksums are the same.
#include <xxh_x86dispatch.h>
#endif

namespace kestrel
{
namespace
{
#ifdef KESTREL_XXHASH_DISPATCH
// The first call looks at the processor and is not made for several threads at once.
[[maybe_unused]] const XXH128_hash_t processor_examined = ::XXH3_128bits("", 0);
#endif

std::string to_hex(const XXH128_hash_t& hash)
{
  char text[33];
  ::snprintf(text, sizeof text, "%016" PRIx64 "%016" PRIx64, static_cast<uint64_t>(hash.high64),
             static_cast<uint64_t>(hash.low64));
  return text;
}
} // namespace

struct Xxh3_128::State {
  State() : xxh(::XXH3_createState())
  {
    if (!xxh)
      throw std::bad_alloc();
  }
  ~State() { ::XXH3_freeState(xxh); }
  XXH3_state_t* const xxh;
};

Xxh3_128::Xxh3_128() : state_(new State)
{
  reset();
}

Xxh3_128::~Xxh3_128() {}

void Xxh3_128::reset()
{
  ::XXH3_128bits_reset(state_->xxh);
}

void Xxh3_128::update(const void* data, size_t length)
{
  if (length != 0)
    ::XXH3_128bits_update(state_->xxh, data, length);
}

std::string Xxh3_128::hex() const
{
  return to_hex(::XXH3_128bits_digest(state_->xxh));
}

std::string xxh3_128_hex(const void* data, size_t length)
{
  return to_hex(::XXH3_128bits(data, length));
}
} // namespace kestrel
