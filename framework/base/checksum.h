#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace kestrel
{
/// A running XXH3 checksum of 128 bits: finds damage, proves nothing against an attacker.
/// Threads:   one at a time.
/// Ownership: owns its state; throws std::bad_alloc from the constructor only.
class Xxh3_128
{
public:
  Xxh3_128();
  ~Xxh3_128();
  Xxh3_128(const Xxh3_128&) = delete;
  Xxh3_128& operator=(const Xxh3_128&) = delete;

  /// Begins anew; a fresh object needs none.
  void reset();
  void update(const void* data, size_t length);
  /// The checksum of all bytes so far as 32 lower-case hexadecimal digits, high half first; update may go on.
  std::string hex() const;

private:
  struct State;
  std::unique_ptr<State> state_;
};

/// The checksum of one piece of memory.
std::string xxh3_128_hex(const void* data, size_t length);
} // namespace kestrel
