#include "base/uuid.h"

#include "base/checksum.h"
#include "base/hex.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/random.h>

namespace
{
using kestrel::hex_digit;

const size_t uuid_length = 36;

bool is_hyphen_place(size_t i)
{
  return i == 8 || i == 13 || i == 18 || i == 23;
}

bool parse(const char* text, size_t length, unsigned char* out16)
{
  if (length != uuid_length)
    return false;
  size_t nibbles = 0;
  for (size_t i = 0; i < length; ++i) {
    if (is_hyphen_place(i)) {
      if (text[i] != '-')
        return false;
      continue;
    }
    const int digit = hex_digit(text[i]);
    if (digit < 0)
      return false;
    unsigned char& byte = out16[nibbles / 2];
    byte = static_cast<unsigned char>(nibbles % 2 == 0 ? digit * 16 : byte + digit);
    ++nibbles;
  }
  return true;
}

void set_version(unsigned char* bytes, unsigned version)
{
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | (version << 4));
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80);
}
} // namespace

int uuid_string_to_binary(const char* text, unsigned char* out16)
{
  if (text && parse(text, ::strnlen(text, uuid_length + 1), out16))
    return 0;
  ::memset(out16, 0, 16);
  return -1;
}

std::string uuid_binary_to_string(const unsigned char* bytes16)
{
  static const char digits[] = "0123456789abcdef";
  std::string text;
  text.reserve(uuid_length);
  for (size_t i = 0; i < 16; ++i) {
    if (is_hyphen_place(text.size()))
      text += '-';
    text += digits[bytes16[i] >> 4];
    text += digits[bytes16[i] & 0x0f];
  }
  return text;
}

namespace kestrel
{
std::string make_uuid()
{
  unsigned char bytes[16];
  size_t done = 0;
  while (done < sizeof bytes) {
    const ssize_t count = ::getrandom(bytes + done, sizeof bytes - done, 0);
    if (count > 0)
      done += static_cast<size_t>(count);
    else if (errno != EINTR)
      ::abort();
  }
  set_version(bytes, 4);
  return uuid_binary_to_string(bytes);
}

std::string name_uuid(const std::string& text)
{
  const std::string hash = xxh3_128_hex(text.data(), text.size());
  unsigned char bytes[16];
  for (size_t i = 0; i < sizeof bytes; ++i)
    bytes[i] = static_cast<unsigned char>(hex_digit(hash[2 * i]) * 16 + hex_digit(hash[2 * i + 1]));
  set_version(bytes, 8);
  return uuid_binary_to_string(bytes);
}

bool is_uuid(const std::string& text)
{
  unsigned char bytes[16];
  return parse(text.data(), text.size(), bytes);
}
} // namespace kestrel
